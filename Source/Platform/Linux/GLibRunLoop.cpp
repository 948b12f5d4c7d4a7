#include <atomic>
#include <utility>

#include <unistd.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/Linux/GLibRunLoop.h>

// GLib's frames must not see an exception, so dispatch() catches what a call-back throws and the turn ends
// there: every dispatch is followed by a return to runUntil or run, which raises it. When the application
// turns the main context with a loop of its own, no such frame of ours is below, and the exception is logged.

namespace krv {
namespace {

constexpr LogSite kSite{"Source/Platform/Linux/GLibRunLoop", Selector("runUntilDate:")};

/// GLib counts microseconds of the same clock. Rounded up, so that a call is never made too early.
gint64 readyTime(Clock::TimePoint time) {
    using namespace std::chrono;
    return ceil<microseconds>(time.time_since_epoch()).count();
}

gboolean dispatchMainLoop(GSource*, GSourceFunc, gpointer);
gboolean dispatchThreadLoop(GSource*, GSourceFunc, gpointer);
gboolean dispatchNothing(GSource* source, GSourceFunc, gpointer) {
    g_source_set_ready_time(source, -1);
    return G_SOURCE_CONTINUE;
}

GSourceFuncs mainLoopFunctions = {nullptr, nullptr, dispatchMainLoop, nullptr, nullptr, nullptr};
GSourceFuncs threadLoopFunctions = {nullptr, nullptr, dispatchThreadLoop, nullptr, nullptr, nullptr};
GSourceFuncs wakeUpFunctions = {nullptr, nullptr, dispatchNothing, nullptr, nullptr, nullptr};

GLibRunLoop& mainLoop() {
    static auto* loop = new GLibRunLoop(GLibRunLoop::Kind::Main);
    return *loop;
}

GLibRunLoop& threadLoop() {
    thread_local GLibRunLoop loop(GLibRunLoop::Kind::Thread);
    return loop;
}

// The dispatch functions look their loop up instead of carrying a pointer to it: what one thread writes and
// another reads through GLib's own locks is a data race in the eyes of ThreadSanitizer, which does not see
// those locks.
gboolean dispatchMainLoop(GSource*, GSourceFunc, gpointer) {
    mainLoop().dispatch();
    return G_SOURCE_CONTINUE;
}
gboolean dispatchThreadLoop(GSource*, GSourceFunc, gpointer) {
    threadLoop().dispatch();
    return G_SOURCE_CONTINUE;
}

/// Makes a context return from its poll at a given time at the latest.
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

/// Marks that the loop is turned by one of its own operations. What the callees make meanwhile in this thread
/// belongs to the loop's context; it is not pushed for longer, because an application pushes and pops
/// contexts of its own.
class GLibRunLoop::Turning {
public:
    explicit Turning(GLibRunLoop& loop)
        : loop_(loop) {
        if (!loop_.isOwnThread()) {
            throw Exception("NSInternalInconsistencyException", "a run loop can be turned by its own thread only");
        }
        ++loop_.turning_;
        if (loop_.kind_ == Kind::Thread) {
            g_main_context_push_thread_default(loop_.context_);
        }
    }
    ~Turning() {
        --loop_.turning_;
        if (loop_.kind_ == Kind::Thread) {
            g_main_context_pop_thread_default(loop_.context_);
        }
    }
    Turning(const Turning&) = delete;
    Turning& operator=(const Turning&) = delete;

private:
    GLibRunLoop& loop_;
};

GLibRunLoop::GLibRunLoop(Kind kind)
    : kind_(kind)
    , thread_(std::this_thread::get_id())
    , context_(kind == Kind::Main ? g_main_context_ref(g_main_context_default()) : g_main_context_new())
    , source_(g_source_new(kind == Kind::Main ? &mainLoopFunctions : &threadLoopFunctions, sizeof(GSource))) {
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
    if (turning_ > 0 && !exception_) {
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

void GLibRunLoop::raiseKeptException() {
    if (exception_) {
        std::rethrow_exception(std::exchange(exception_, nullptr));
    }
}

bool GLibRunLoop::isOwnThread() const {
    return kind_ == Kind::Main ? isMainThread() : thread_ == std::this_thread::get_id();
}

void GLibRunLoop::runUntil(Clock::TimePoint time) {
    const Turning turning(*this);
    // What is ready is dispatched once even when the time has passed already.
    g_main_context_iteration(context_, FALSE);
    raiseKeptException();
    if (now() >= time) {
        return;
    }
    const WakeUp wakeUp(context_, time);
    while (now() < time) {
        g_main_context_iteration(context_, TRUE);
        raiseKeptException();
    }
}

void GLibRunLoop::run() {
    const Turning turning(*this);
    while (!takeStopRequest()) {
        g_main_context_iteration(context_, TRUE);
        raiseKeptException();
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
    return isMainThread() ? main() : threadLoop();
}

bool RunLoop::isMainThread() {
    return ::gettid() == ::getpid();
}

RunLoop::Replacement::Replacement(RunLoop& loop)
    : previousMain_(mainReplacement.exchange(&loop))
    , previousCurrent_(std::exchange(currentReplacement, &loop)) {}

RunLoop::Replacement::~Replacement() {
    mainReplacement = previousMain_;
    currentReplacement = previousCurrent_;
}

}  // namespace krv
