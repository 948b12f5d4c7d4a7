#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Jobs/Failure.h>
#include <KRVQTProcessClient/Jobs/Progress.h>

namespace krv {

class RunLoop;

/// The part of a job that does not depend on the type of its result. For Job, which documents it. Thread-safe.
class KRV_EXPORT JobCore {
public:
    /// Either a value, of the type that the job's maker and its Job agree on, or a failure.
    struct Outcome {
        std::shared_ptr<const void> value{};
        std::optional<Failure> failure{};
    };
    using Callback = std::function<void(const Outcome&)>;

    virtual ~JobCore();

    /// Calls the callback on a loop, or on the job's own if it is null, when the job has ended and after this function
    /// has returned. Not after abandon().
    virtual void onEnd(RunLoop* loop, Callback callback) = 0;
    /// Calls the callback on whichever thread ends the job, or right now if it has ended, also after abandon(). It must
    /// not block.
    virtual void whenEnded(Callback callback) = 0;
    [[nodiscard]] virtual Outcome wait() = 0;
    [[nodiscard]] virtual Progress progress() const = 0;
    [[nodiscard]] virtual bool hasEnded() const = 0;
    virtual void cancel() = 0;
    /// Cancels the job. No callback starts after this, and none is running any more unless it is the caller.
    virtual void abandon() = 0;

    /// Returns the loop of the calling thread.
    [[nodiscard]] static RunLoop* currentLoop();
};

}  // namespace krv
