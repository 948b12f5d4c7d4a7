#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Jobs/JobCore.h>
#include <KRVQTProcessClient/Jobs/JobOptions.h>

namespace krv {

/// The state that a job's handle shares with the engine. Thread-safe.
class JobState final : public JobCore, public std::enable_shared_from_this<JobState> {
public:
    JobState(ProgressCallback onProgress, const JobControl& control);
    ~JobState() override;

    // For the handle.

    void onEnd(RunLoop* loop, Callback callback) override;
    void whenEnded(Callback callback) override;
    [[nodiscard]] Outcome wait() override;
    [[nodiscard]] Progress progress() const override;
    [[nodiscard]] bool hasEnded() const override;
    void cancel() override;
    void abandon() override;

    // For the engine.

    /// Starts to call the function when the job shall be cancelled, at once if that has been asked for already. It must
    /// not block.
    void onCancel(std::function<void()> function);
    void report(const Progress& progress);
    /// Ends the job, unless it has ended.
    void end(Outcome outcome);

private:
    class Delivery;

    [[nodiscard]] RunLoop& loop() const;
    [[nodiscard]] Outcome waitOnMainLoop();
    void post(RunLoop& loop, Callback callback);
    void deliverProgress();

    RunLoop* const loop_;

    mutable Mutex mutex_;
    std::condition_variable_any changed_;
    ProgressCallback onProgress_ KRV_GUARDED_BY(mutex_);
    Progress progress_ KRV_GUARDED_BY(mutex_);
    bool progressIsPosted_ KRV_GUARDED_BY(mutex_) = false;
    bool cancelled_ KRV_GUARDED_BY(mutex_) = false;
    bool abandoned_ KRV_GUARDED_BY(mutex_) = false;
    std::function<void()> cancel_ KRV_GUARDED_BY(mutex_);
    std::optional<Outcome> outcome_ KRV_GUARDED_BY(mutex_);
    struct Listener {
        RunLoop* loop;
        Callback callback;
    };
    std::vector<Listener> listeners_ KRV_GUARDED_BY(mutex_);
    std::vector<Callback> immediate_ KRV_GUARDED_BY(mutex_);
    int waitingOnMainLoop_ KRV_GUARDED_BY(mutex_) = 0;
    /// The threads that are in one of the callbacks, one entry per call.
    std::vector<std::thread::id> delivering_ KRV_GUARDED_BY(mutex_);
    /// Last, because it calls cancel() as soon as it exists, until it is destroyed.
    std::optional<std::stop_callback<std::function<void()>>> stopped_;
};

}  // namespace krv
