// How a result reaches the application.
//
// A job ends on the engine's thread. That thread never calls the application, because an application's callback may take
// any time and belongs on the application's own loop. So every callback is posted to a loop, and runs there unless the
// handle has been destroyed since. Three things could still go wrong.
//   - The handle is destroyed on one thread while a callback runs on another. The callback may use what the owner of the
//     handle destroys next. So the destructor waits for it. A callback that destroys its own handle does not wait.
//   - The loop falls behind, because it is busy or does not run. Progress would pile up there. So at most one call for
//     progress is pending, and it delivers what is the latest when it runs.
//   - The main thread waits for a job whose callbacks need the main loop. So it runs that loop while it waits. If it is in
//     a callback of that loop, that is refused: the loop that would have to continue is the one that has called.
#include <algorithm>
#include <utility>

#include <KRVQTProcessClient/Jobs/JobState.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace krv {
namespace {

constexpr LogSite kSite{"Source/Jobs/JobState", Selector("deliver")};

/// Calls a function of the application. Returns false if it threw.
template <typename Function>
bool guarded(const Function& function) {
    try {
        function();
        return true;
    } catch (const std::exception& exception) {
        KRV_LOG(kLogFlagError, kSite, "A callback of a job has thrown: {}", exception.what());
    } catch (...) {
        KRV_LOG(kLogFlagError, kSite, "A callback of a job has thrown an exception of an unknown kind");
    }
    return false;
}

}  // namespace

JobCore::~JobCore() = default;

RunLoop* JobCore::currentLoop() {
    return &RunLoop::current();
}

/// Marks that this thread is in one of a job's callbacks.
class JobState::Delivery {
public:
    explicit Delivery(JobState& state)
        : state_(state) {
        const LockGuard lock(state_.mutex_);
        begun_ = !state_.abandoned_;
        if (begun_) {
            state_.delivering_.push_back(std::this_thread::get_id());
        }
    }
    ~Delivery() {
        if (!begun_) {
            return;
        }
        const LockGuard lock(state_.mutex_);
        auto& threads = state_.delivering_;
        threads.erase(std::find(threads.begin(), threads.end(), std::this_thread::get_id()));
        state_.changed_.notify_all();
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    /// Whether the callback may be called.
    [[nodiscard]] explicit operator bool() const { return begun_; }

private:
    JobState& state_;
    bool begun_ = false;
};

JobState::JobState(ProgressCallback onProgress, const JobControl& control)
    : loop_(control.loop)
    , onProgress_(std::move(onProgress)) {
    if (control.stop.stop_possible()) {
        stopped_.emplace(control.stop, [this] { cancel(); });
    }
}

JobState::~JobState() = default;

RunLoop& JobState::loop() const {
    return loop_ ? *loop_ : RunLoop::main();
}

void JobState::onEnd(RunLoop* loop, Callback callback) {
    RunLoop& wanted = loop ? *loop : this->loop();
    {
        const LockGuard lock(mutex_);
        if (!outcome_) {
            listeners_.push_back({&wanted, std::move(callback)});
            return;
        }
    }
    post(wanted, std::move(callback));
}

void JobState::post(RunLoop& loop, Callback callback) {
    loop.perform([self = shared_from_this(), callback = std::move(callback)] {
        if (const Delivery delivery(*self); delivery) {
            const Outcome outcome = [&self] {
                const LockGuard lock(self->mutex_);
                return *self->outcome_;
            }();
            guarded([&] { callback(outcome); });
        }
    });
}

void JobState::whenEnded(Callback callback) {
    Outcome outcome;
    {
        const LockGuard lock(mutex_);
        if (!outcome_) {
            immediate_.push_back(std::move(callback));
            return;
        }
        outcome = *outcome_;
    }
    callback(outcome);
}

JobCore::Outcome JobState::wait() {
    if (RunLoop::isMainThread()) {
        return waitOnMainLoop();
    }
    const LockGuard lock(mutex_);
    while (!outcome_) {
        changed_.wait(mutex_);
    }
    return *outcome_;
}

JobCore::Outcome JobState::waitOnMainLoop() {
    if (hasEnded()) {
        const LockGuard lock(mutex_);
        return *outcome_;
    }
    if (RunLoop::isInCallback()) {
        return {.failure = Failure(Failure::Kind::BadArgument,
                                   {.message = "A job cannot be waited for within a callback of the main loop.",
                                    .cause = "the main loop, which has to run meanwhile, has called this function",
                                    .suggestion = "Use then() or co_await, or wait on another thread."})};
    }
    class Waiting {
    public:
        explicit Waiting(JobState& state)
            : state_(state) {
            const LockGuard lock(state_.mutex_);
            ++state_.waitingOnMainLoop_;
            if (state_.outcome_) {
                RunLoop::main().stop();
            }
        }
        ~Waiting() {
            const LockGuard lock(state_.mutex_);
            --state_.waitingOnMainLoop_;
        }
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;

    private:
        JobState& state_;
    } const waiting(*this);
    for (bool othersStop = false;; othersStop = true) {
        RunLoop::main().run();
        const LockGuard lock(mutex_);
        if (outcome_) {
            if (othersStop) {
                RunLoop::main().stop();  // it was meant for another run of the loop
            }
            return *outcome_;
        }
    }
}

Progress JobState::progress() const {
    const LockGuard lock(mutex_);
    return progress_;
}

bool JobState::hasEnded() const {
    const LockGuard lock(mutex_);
    return outcome_.has_value();
}

void JobState::cancel() {
    std::function<void()> function;
    {
        const LockGuard lock(mutex_);
        cancelled_ = true;
        function = outcome_ ? nullptr : cancel_;
    }
    if (function) {
        function();
    }
}

void JobState::abandon() {
    cancel();
    const auto self = std::this_thread::get_id();
    std::vector<Listener> dropped;  // destroyed after the mutex has been released
    ProgressCallback droppedProgress;
    const LockGuard lock(mutex_);
    abandoned_ = true;
    dropped.swap(listeners_);
    const auto othersDeliver = [&]() KRV_REQUIRES(mutex_) {
        return std::any_of(delivering_.begin(), delivering_.end(), [self](const auto& each) { return each != self; });
    };
    while (othersDeliver()) {
        changed_.wait(mutex_);
    }
    if (delivering_.empty()) {
        droppedProgress.swap(onProgress_);
    }
}

void JobState::onCancel(std::function<void()> function) {
    {
        const LockGuard lock(mutex_);
        cancel_ = function;
        if (!cancelled_ || outcome_) {
            return;
        }
    }
    function();
}

void JobState::report(const Progress& progress) {
    {
        const LockGuard lock(mutex_);
        progress_ = progress;
        if (!onProgress_ || abandoned_ || progressIsPosted_ || outcome_) {
            return;
        }
        progressIsPosted_ = true;
    }
    loop().perform([self = shared_from_this()] { self->deliverProgress(); });
}

void JobState::deliverProgress() {
    const Delivery delivery(*this);
    if (!delivery) {
        return;
    }
    Progress progress;
    ProgressCallback callback;
    {
        const LockGuard lock(mutex_);
        progressIsPosted_ = false;
        progress = progress_;
        callback = onProgress_;
    }
    if (callback && !guarded([&] { callback(progress); })) {
        cancel();
    }
}

void JobState::end(Outcome outcome) {
    std::vector<Listener> listeners;
    std::vector<Callback> immediate;
    {
        const LockGuard lock(mutex_);
        if (outcome_) {
            return;
        }
        outcome_ = outcome;
        listeners.swap(listeners_);
        immediate.swap(immediate_);
        cancel_ = nullptr;
        if (waitingOnMainLoop_ > 0) {
            RunLoop::main().stop();
        }
        changed_.notify_all();
    }
    for (const Callback& callback : immediate) {
        callback(outcome);
    }
    for (Listener& listener : listeners) {
        post(*listener.loop, std::move(listener.callback));
    }
}

}  // namespace krv
