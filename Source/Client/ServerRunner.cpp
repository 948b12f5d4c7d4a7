// The server runner: finds, launches and registers with the server, and notices when it is lost.
//
// Purpose. An application that makes a call needs a server that responds and knows this process. Nothing guarantees
// one. The server may not have been started, may have crashed a moment ago, may be starting right now on behalf of
// another application, may hang, or may have exited after its idle time-out and come back on another port. The runner
// looks once a second and takes the one step that leads closer to "registered". It never blocks an application's call,
// and no call waits for it: calls find out for themselves whether the server is there (ReliabilityProxy). Both rely on
// discovery only.
//
//        ┌────────────────────────── not running, or no port known ───────────────────────────┐
//        v                                                                                     │
//    0 Start ──> 1 LookForServer ──> 2 WaitForServer ──> 3 Register ──> 5 Registered ──────────┤
//        ^          launches if          │    │   ^          │   ^             │               │
//        │          none runs            │    └───┘          │   └─────────────┘ not known     │
//        └──────── waited too long ──────┴─── registration failed                              │
//                                                                                              │
// Sources of information.
//   - Discovery knows the port, and nothing else. It finds a server about a second after the server publishes itself.
//   - The process table knows whether a process with the server's name exists, whether it responds or not. Only this
//     user's processes count: another user has his own server, which must not keep us from launching ours.
//   - The server knows which processes are registered with it. It forgets them when it exits.
//   - The server's lock file decides which server serves a user. It is the only arbiter.
//
// Races, and why each is harmless.
//   - Six applications start at once, and no server runs. Each launches one. The first to take the lock serves; the
//     others exit quietly within milliseconds, and all six applications register with the one. Agreement among the
//     applications beforehand would need a lock of their own, whose owner may die with it.
//   - The server we launched loses the lock. It does not matter which process responds: "running" means any of them.
//   - The server dies between the look and the registration. Registering throws, the runner makes discovery forget the
//     port, and everything starts over a second later. Otherwise discovery could take seconds to notice, and the
//     machine would alternate between states 2 and 3 until then.
//   - The server dies while we are registered. Discovery still has the port for a second or so. The question "am I
//     registered" fails and counts as "not known", and registering throws: the same path as above.
//   - Somebody else restarts the server. The new one does not know us, and says so within three seconds.
//   - The server hangs or is stopped. Its process exists, so no second one is launched; the first one holds the lock
//     and would win. The machine cycles through state 2 until the server recovers or dies. A library must not kill it:
//     it may be working for other applications.
//   - A launch is slow. State 2 waits for ten seconds and then looks again. If a process exists by then, the runner
//     waits for it instead of launching another.
//   - The application is out of descriptors. The process table reads as empty, so a server is launched beside the one
//     that runs. It finds the lock taken and exits.
//   - Two runners run in one process, or a long registration delays a tick. The launch guard (the time at which the
//     present wait began, under the runner's lock) belongs to one runner; the lock file decides among several.
//   - The runner is cleaned up in the middle of a step. The step holds its own references, finishes, and finds the
//     runner stopped. The object is destroyed with the last reference, possibly on its own thread.
//
// Rejected.
//   - Launching from the call that finds no server. Six threads calling would launch six servers, and each caller would
//     wait for something it cannot see.
//   - Watching the server's process for its death (as a child, or with a pidfd). The server need not be ours, and a
//     server can be lost without dying. One question every three seconds costs less than two mechanisms.
//   - Stopping the server when its last application exits. Only the server knows which application is the last.
//   - Asking the server, instead of the process table, whether one runs. A server that is starting does not respond.
//
// Sleep.
//
// When the machine is about to sleep, the timer is stopped. Otherwise a step could run half before and half after the
// sleep, where every time-out would look expired and every connection would be dead. When the machine wakes, the timer
// is installed again. The events arrive on the main thread, and a timer belongs to the run loop of the thread that
// starts it. So after the first wake the steps, and whatever they launch, run on the main loop, and the runner's own
// thread runs a loop with nothing in it. That is why the launch guard needs a lock. The timer could be moved back with
// another call between threads, but then a wake during clean-up would have to find out which of the two still exists.
//   - A server that slept with us responds at once. A step in state 5 finds everything as it was.
//   - The sleep event may arrive late, together with the wake event, because we do not delay the machine's sleep. Then
//     the timer stops and starts in one go. A step that ran before that does no harm: all waits are measured in steady
//     time, which does not count the sleep.
//   - A wake before the runner's thread has started its timer: both start it, and the second start replaces the first.
//   - A wake without a sleep: the same. Two sleeps in a row: stopping twice is harmless.
//   - A wake while the runner is cleaned up: the observer is already removed, or finds the runner stopped. If clean-up
//     comes between that check and the start of the timer, the timer's first tick finds the runner stopped and removes
//     the timer.
//
// Failing steps.
//
// A step can fail: the bundle is missing, the system refuses a process, memory is short. The tick logs the exception,
// and the next one tries again. It may not leave that to its loop, because on the main loop, after a wake, the caller is
// the application's own run() or a call that runs the loop while it waits, and neither may see it.
//   - An exception of another kind propagates out of the body of the runner's thread, which begins again a second
//     later. On the main loop it is logged too.
//   - So the watch ends with clean-up and with nothing else.
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

/// How long the thread runs its loop before it checks whether to continue.
constexpr Clock::Duration kSlice = 1s;

constexpr LogSite site(std::string_view function) {
    return {"Source/Client/ServerRunner", Selector(function)};
}
constexpr LogSite kThread = site("startTimerOnThread");

void logFailedStep(const Exception& exception) {
    KRV_LOG(kLogFlagInfo, kThread, "Error during ServerRunner thread loop: {}", exception.description());
}

/// Logs the exception that is being handled, which is not one of the library's.
void logForeignException() {
    try {
        throw;
    } catch (const std::exception& exception) {
        KRV_LOG(kLogFlagError, kThread, "A step of the server runner has failed: {}", exception.what());
    } catch (...) {
        KRV_LOG(kLogFlagError, kThread, "A step of the server runner has failed with an exception of an unknown kind");
    }
}

/// Returns whether the body returned. No caller could catch its exception, and it must not terminate the application.
bool endsWithoutFailure(const std::function<void()>& body) {
    try {
        body();
        return true;
    } catch (...) {
        logForeignException();
        return false;
    }
}

}  // namespace

std::shared_ptr<ServerRunner>
ServerRunner::initWithProcessMonitor(std::shared_ptr<KRVProcessMonitor> processMonitor,
                                     std::shared_ptr<KRVQuicktimeProcessClient> andClient) {
    return initWithProcessMonitor(std::move(processMonitor), std::move(andClient), Environment{});
}

std::shared_ptr<ServerRunner> ServerRunner::initWithProcessMonitor(std::shared_ptr<KRVProcessMonitor> processMonitor,
                                                                   std::shared_ptr<KRVQuicktimeProcessClient> andClient,
                                                                   Environment environment) {
    const std::string client = andClient->description();
    std::shared_ptr<ServerRunner> runner(
        new ServerRunner(std::move(processMonitor), std::move(andClient), std::move(environment)));
    runner->activate();
    KRV_LOG(kLogFlagInfo, site("initWithProcessMonitor:andClient:"), "Process monitor initialized with client: {}",
            client);
    return runner;
}

ServerRunner::ServerRunner(std::shared_ptr<KRVProcessMonitor> processMonitor,
                           std::shared_ptr<KRVQuicktimeProcessClient> client, Environment environment)
    : environment_(std::move(environment))
    , processMonitor_(std::move(processMonitor))
    , client_(std::move(client)) {}

ServerRunner::~ServerRunner() {
    KRV_LOG(kLogFlagInfo, site("dealloc"), "Server Runner deallocating");
    cleanUp();
}

void ServerRunner::activate() {
    const auto self = std::static_pointer_cast<ServerRunner>(shared_from_this());
    NotificationCenter& power = environment_.powerEvents();
    // An observation does not keep the runner alive.
    const auto observe = [&](std::string_view name, void (ServerRunner::*operation)()) {
        return power.addObserver(name, [weak = std::weak_ptr(self), operation](const Notification&) {
            if (const auto runner = weak.lock()) {
                (runner.get()->*operation)();
            }
        });
    };
    {
        const LockGuard lock(mutex_);
        powerObservations_ = {observe(kWorkspaceWillSleepNotification, &ServerRunner::goingToSleep),
                              observe(kWorkspaceDidWakeNotification, &ServerRunner::wakingUp)};
    }
    environment_.startThread([self] { self->startTimerOnThread(); });
}

void ServerRunner::cleanUp() {
    cleanedUp_ = true;
    running_ = false;
    std::shared_ptr<KRVProcessMonitor> processMonitor;
    std::shared_ptr<KRVQuicktimeProcessClient> client;
    std::shared_ptr<Task> task;
    std::vector<NotificationCenter::Token> observations;
    {
        const LockGuard lock(mutex_);
        observations.swap(powerObservations_);
        serverCheckStartTime_.reset();
        lastSentAmIRegistered_.reset();
        qtProcessorTask_.swap(task);
        processMonitor_.swap(processMonitor);
        client_.swap(client);
    }
    for (const NotificationCenter::Token observation : observations) {
        environment_.powerEvents().removeObserver(observation);
    }
}

// The thread.

void ServerRunner::startDetachedThread(std::function<void()> body) {
    try {
        threadWithoutSignals("KRVServerRunner", [body = std::move(body)] {
            // After clean-up the body returns at once, so the loop ends then.
            while (!endsWithoutFailure(body)) {
                std::this_thread::sleep_for(kSlice);
            }
        }).detach();
    } catch (const std::system_error& failure) {
        throw Exception(std::string(kServerRunnerException),
                        fmt::format("The thread of the server runner cannot be started: {}", failure.what()));
    }
}

void ServerRunner::krvNSTimerFired() {
    if (cleanedUp_) {
        stopMonitorTimer();
        return;
    }
    try {
        stateMachine();
    } catch (const Exception& exception) {
        logFailedStep(exception);
    } catch (...) {
        if (&RunLoop::current() != &environment_.mainLoop()) {
            throw;
        }
        logForeignException();
    }
}

void ServerRunner::startTimerOnThread() {
    try {
        running_ = true;
        if (cleanedUp_) {
            running_ = false;
        }
        startMonitorTimer();
        while (running_) {
            try {
                RunLoop::current().runUntil(environment_.now() + kSlice);
            } catch (const Exception& exception) {
                logFailedStep(exception);
            }
        }
        stopMonitorTimer();
    } catch (const Exception& exception) {
        KRV_LOG(kLogFlagInfo, kThread, "Error starting timer: {}", exception.description());
    }
}

// Sleep and wake.

void ServerRunner::goingToSleep() {
    KRV_LOG(kLogFlagInfo, site("goingToSleep:"), "Nap time. Turning off monitoring");
    stopMonitorTimer();
}

void ServerRunner::wakingUp() {
    if (cleanedUp_) {
        return;
    }
    KRV_LOG(kLogFlagInfo, site("wakingUp:"), "Wakey wakey... begin monitoring again");
    startMonitorTimer();
}

// Members that several threads use.

std::shared_ptr<KRVQuicktimeProcessClient> ServerRunner::client() const {
    const LockGuard lock(mutex_);
    return client_;
}

std::shared_ptr<Task> ServerRunner::qtProcessorTask() const {
    const LockGuard lock(mutex_);
    return qtProcessorTask_;
}

std::optional<Clock::TimePoint> ServerRunner::serverCheckStartTime() const {
    const LockGuard lock(mutex_);
    return serverCheckStartTime_;
}

void ServerRunner::setServerCheckStartTime(std::optional<Clock::TimePoint> time) {
    const LockGuard lock(mutex_);
    serverCheckStartTime_ = time;
}

std::optional<Clock::TimePoint> ServerRunner::lastSentAmIRegistered() const {
    const LockGuard lock(mutex_);
    return lastSentAmIRegistered_;
}

void ServerRunner::setLastSentAmIRegistered(std::optional<Clock::TimePoint> time) {
    const LockGuard lock(mutex_);
    lastSentAmIRegistered_ = time;
}

}  // namespace krv
