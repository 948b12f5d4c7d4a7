#pragma once

// Before the standard's header, so that an older language version gets one message, which says what is needed.
// clang-format off
#include <KRVQTProcessClient/Foundation/Export.h>
// clang-format on

#include <coroutine>
#include <functional>
#include <future>
#include <memory>
#include <utility>

#include <KRVQTProcessClient/Jobs/JobCore.h>
#include <KRVQTProcessClient/Jobs/Result.h>

namespace krv {

/// A handle to work that the media server does for this application. Its result can be taken in four ways: then() calls
/// a function on a run loop, co_await resumes a coroutine, wait() blocks, and future() returns a std::future. They may be
/// combined, and each delivers its own copy.
///
/// Destroying the handle cancels the work, and none of the job's callbacks starts afterwards. If one is running on
/// another thread, the destructor waits until it has returned. detach() lets the work go on without a handle.
///
/// All members are thread-safe, except for moving and destroying the handle. Nothing throws because of what happens to a
/// file or to the server. If a callback throws, the exception is logged; one of onProgress also cancels the job.
template <typename T>
class [[nodiscard]] Job {
public:
    using Callback = std::function<void(Result<T>)>;

    explicit Job(std::shared_ptr<JobCore> core)
        : core_(std::move(core)) {}
    ~Job() { abandon(); }
    Job(Job&& other) noexcept = default;
    /// Cancels the present job.
    Job& operator=(Job&& other) noexcept {
        if (this != &other) {
            abandon();
            core_ = std::move(other.core_);
        }
        return *this;
    }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    /// Calls the function with the result, exactly once and never within this call, on the loop of the job's options (by
    /// default the main run loop), which must run.
    void then(Callback callback) & { core_->onEnd(nullptr, taking(std::move(callback))); }
    /// The same. Keep what it returns: destroying it cancels the job.
    Job then(Callback callback) && {
        core_->onEnd(nullptr, taking(std::move(callback)));
        return std::move(*this);
    }

    /// Blocks until the job has ended. On the main thread it runs the main run loop meanwhile, because nothing else can.
    /// Within a callback of that loop it would never return, so there it returns Failure::Kind::BadArgument at once, and
    /// the job goes on. On the main thread, rethrows the exception of any other callback that the loop runs.
    Result<T> wait() { return resultOf(core_->wait()); }

    /// Returns a future of the result. It does not cancel the job.
    [[nodiscard]] std::future<Result<T>> future() & {
        auto promise = std::make_shared<std::promise<Result<T>>>();
        core_->whenEnded([promise](const JobCore::Outcome& outcome) { promise->set_value(resultOf(outcome)); });
        return promise->get_future();
    }
    /// The same, and detaches the job.
    [[nodiscard]] std::future<Result<T>> future() && {
        auto future = this->future();
        detach();
        return future;
    }

    /// Asks for an early end, and returns at once. The job ends with Failure::Kind::Cancelled within 100 ms, whether a
    /// server responds or not, or with its result if the work has just been completed. A destination is complete or
    /// untouched.
    void cancel() { core_->cancel(); }
    /// Lets the job go on without this handle, which is empty then. Its callbacks are still called.
    void detach() { core_.reset(); }

    [[nodiscard]] bool hasEnded() const { return core_->hasEnded(); }
    [[nodiscard]] Progress progress() const { return core_->progress(); }

    /// For co_await, which returns the result. The coroutine is resumed on the run loop of the thread that it was
    /// suspended on, which must run. GCC 12 destroys temporary options in braces twice if they are part of the co_await
    /// expression, so start such a job in a statement of its own.
    [[nodiscard]] auto operator co_await() & { return Awaiter{core_}; }
    [[nodiscard]] auto operator co_await() && { return Awaiter{core_}; }

private:
    class Awaiter {
    public:
        explicit Awaiter(std::shared_ptr<JobCore> core)
            : core_(std::move(core)) {}
        [[nodiscard]] bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> coroutine) {
            // A coroutine that is destroyed while it waits must not be resumed.
            core_->onEnd(JobCore::currentLoop(),
                         [waiting = std::weak_ptr(outcome_), coroutine](const JobCore::Outcome& ended) {
                             if (const auto outcome = waiting.lock()) {
                                 *outcome = ended;
                                 coroutine.resume();
                             }
                         });
        }
        Result<T> await_resume() { return resultOf(*outcome_); }

    private:
        std::shared_ptr<JobCore> core_;
        std::shared_ptr<JobCore::Outcome> outcome_ = std::make_shared<JobCore::Outcome>();
    };

    static Result<T> resultOf(const JobCore::Outcome& outcome) {
        if (outcome.failure) {
            return Result<T>(*outcome.failure);
        }
        return Result<T>(*std::static_pointer_cast<const T>(outcome.value));
    }
    static JobCore::Callback taking(Callback callback) {
        return [callback = std::move(callback)](const JobCore::Outcome& outcome) { callback(resultOf(outcome)); };
    }
    void abandon() noexcept {
        if (core_) {
            core_->abandon();
        }
    }

    std::shared_ptr<JobCore> core_;
};

}  // namespace krv
