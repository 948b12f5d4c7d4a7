#include <atomic>
#include <utility>

#include <unistd.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Foundation/ThreadOwned.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/FreeDescriptors.h>
#include <KRVQTProcessClient/Platform/Linux/GLibRunLoop.h>
#include <KRVQTProcessClient/Platform/ThreadRunLoop.h>

// No exception may pass through GLib's frames. dispatch() catches what a callback throws and ends the iteration; every
// dispatch returns to runUntil or run, which rethrows it. When a toolkit runs the main context, there is no such frame
// of ours, and the exception is logged.

namespace krv {
namespace {

constexpr LogSite kSite{"Source/Platform/Linux/GLibRunLoop", Selector("runUntilDate:")};

/// Converts to GLib's microseconds of the same clock. Rounds up, so that no call is made too early.
gint64 readyTime(Clock::TimePoint time) {
    using namespace std::chrono;
    return ceil<microseconds>(time.time_since_epoch()).count();
}

constexpr int kDescriptorsOfTheMainLoop = 4;

gboolean dispatchMainLoop(GSource*, GSourceFunc, gpointer);
gboolean dispatchNothing(GSource* source, GSourceFunc, gpointer) {
    g_source_set_ready_time(source, -1);
    return G_SOURCE_CONTINUE;
}

GSourceFuncs mainLoopFunctions = {nullptr, nullptr, dispatchMainLoop, nullptr, nullptr, nullptr};
GSourceFuncs wakeUpFunctions = {nullptr, nullptr, dispatchNothing, nullptr, nullptr, nullptr};

/// Throws Exception "OutOfDescriptors" if it has to be created and cannot be.
GLibRunLoop& mainLoop() {
    static auto* loop = [] {
        requireFreeDescriptors(kDescriptorsOfTheMainLoop, "the main run loop");
        return new GLibRunLoop;
    }();
    return *loop;
}

// The dispatch function looks up its loop instead of receiving a pointer to it. ThreadSanitizer does not see GLib's own
// locks, so it would report the pointer, written by one thread and read by another, as a data race.
gboolean dispatchMainLoop(GSource*, GSourceFunc, gpointer) {
    mainLoop().dispatch();
    return G_SOURCE_CONTINUE;
}

/// Makes a context return from its poll no later than a given time.
class WakeUp {
public:
    WakeUp(GMainContext* context, Clock::TimePoint time)
        : source_(g_source_new(&wakeUpFunctions, sizeof(GSource))) {
        g_source_set_ready_time(source_, readyTime(time));
        g_source_attach(source_, context);
    }
    ~WakeUp() {
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

private:
    GSource* const source_;
};

std::atomic<RunLoop*> mainReplacement{nullptr};
thread_local RunLoop* currentReplacement = nullptr;

}  // namespace

/// Marks that one of the loop's own operations runs it.
class GLibRunLoop::Running {
public:
    explicit Running(GLibRunLoop& loop)
        : loop_(loop) {
        if (!isMainThread()) {
            throw Exception(std::string(kInternalInconsistencyException),
                            "a run loop can be turned by its own thread only");
        }
        ++loop_.nestedRuns_;
    }
    ~Running() { --loop_.nestedRuns_; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    GLibRunLoop& loop_;
};

GLibRunLoop::GLibRunLoop()
    : context_(g_main_context_ref(g_main_context_default()))
    , source_(g_source_new(&mainLoopFunctions, sizeof(GSource))) {
    g_source_set_can_recurse(source_, TRUE);
    g_source_set_static_name(source_, "krv::RunLoop");
    g_source_attach(source_, context_);
}

GLibRunLoop::~GLibRunLoop() {
    close();
    g_source_destroy(source_);
    g_source_unref(source_);
    g_main_context_unref(context_);
}

Clock::TimePoint GLibRunLoop::now() const {
    return std::chrono::steady_clock::now();
}

void GLibRunLoop::nextCallChanged(std::optional<Clock::TimePoint> due) {
    g_source_set_ready_time(source_, due ? readyTime(*due) : -1);
}

void GLibRunLoop::dispatch() noexcept {
    try {
        makeDueCalls();
    } catch (...) {
        keepException();
    }
}

void GLibRunLoop::keepException() noexcept {
    if (nestedRuns_ > 0 && !exception_) {
        exception_ = std::current_exception();
        return;
    }
    try {
        throw;
    } catch (const std::exception& exception) {
        KRV_LOG(kLogFlagError, kSite, "Exception in a call-back of the run loop: {}", exception.what());
    } catch (...) {
        KRV_LOG(kLogFlagError, kSite, "Exception of an unknown kind in a call-back of the run loop");
    }
}

void GLibRunLoop::rethrowKeptException() {
    if (exception_) {
        std::rethrow_exception(std::exchange(exception_, nullptr));
    }
}

void GLibRunLoop::runUntil(Clock::TimePoint time) {
    const Running running(*this);
    // Even if the time has already passed, dispatch once what is ready.
    g_main_context_iteration(context_, FALSE);
    rethrowKeptException();
    if (now() >= time) {
        return;
    }
    const WakeUp wakeUp(context_, time);
    while (now() < time) {
        g_main_context_iteration(context_, TRUE);
        rethrowKeptException();
    }
}

void GLibRunLoop::run() {
    const Running running(*this);
    while (!takeStopRequest()) {
        g_main_context_iteration(context_, TRUE);
        rethrowKeptException();
    }
}

void GLibRunLoop::stop() {
    const LockGuard lock(stopMutex_);
    stopRequested_ = true;
    g_main_context_wakeup(context_);
}

bool GLibRunLoop::takeStopRequest() {
    const LockGuard lock(stopMutex_);
    return std::exchange(stopRequested_, false);
}

RunLoop& RunLoop::main() {
    RunLoop* replacement = mainReplacement.load();
    return replacement ? *replacement : mainLoop();
}

RunLoop& RunLoop::current() {
    if (currentReplacement) {
        return *currentReplacement;
    }
    if (isMainThread()) {
        return main();
    }
    if (auto* const loop = threadOwned<ThreadRunLoop>()) {
        return *loop;
    }
    static auto* const ofEndingThreads = new ThreadRunLoop;  // never runs
    return *ofEndingThreads;
}

bool RunLoop::isMainThread() {
    return ::gettid() == ::getpid();
}

bool RunLoop::isInCallback() {
    return g_main_depth() > 0;
}

RunLoop::Replacement::Replacement(RunLoop& loop)
    : previousMain_(mainReplacement.exchange(&loop))
    , previousCurrent_(std::exchange(currentReplacement, &loop)) {}

RunLoop::Replacement::~Replacement() {
    mainReplacement = previousMain_;
    currentReplacement = previousCurrent_;
}

}  // namespace krv
