// The server runner: finding, launching, registering with and losing the server.
//
// What it is for. An application that makes a call must find a server that answers and knows it. Nobody promises that:
// the server may not have been started, may have crashed a moment ago, may have been started by another application
// or be starting just now, may hang, may have been ended by its idle time-out and come back on another port. The
// runner looks once a second and does the one thing that brings the state nearer to "registered". It never blocks an
// application's call and is never asked by one: calls find out for themselves whether the server is there
// (ReliabilityProxy), and both agree only on what discovery says.
//
//        ┌────────────────────────── not running, or no port known ───────────────────────────┐
//        v                                                                                     │
//    0 Start ──> 1 LookForServer ──> 2 WaitForServer ──> 3 Register ──> 5 Registered ──────────┤
//        ^          launches if          │    │   ^          │   ^             │               │
//        │          none runs            │    └───┘          │   └─────────────┘ not known     │
//        └──────── waited too long ──────┴─── registration raised                              │
//                                                                                              │
// Who knows what.
//   - Discovery knows the port, and only the port. It finds a server about a second after that publishes itself.
//   - The process table knows whether a process of the server's name exists, whether it answers or not. Only this
//     user's processes count: another user has a server of his own, and it must not keep us from launching ours.
//   - The server knows which processes are registered with it, and forgets them when it ends.
//   - The lock file of the server decides which one serves a user. It is the only arbiter there is.
//
// The races, and why each is harmless.
//   - Six applications start at once, and no server runs. Each launches one; the first to take the lock serves, the
//     others end quietly within milliseconds, and all six register with the one. Agreement between the applications
//     beforehand would need a lock of their own, whose holder may die with it.
//   - The launched server is the one that lost. Nobody minds which process answers: "running" means that any does.
//   - The server dies between the look and the registration. Registering raises, discovery is told to forget the port,
//     and everything starts over a second later. Without that word to discovery its next announcement could take
//     seconds, and the machine would run in a circle through states 2 and 3 meanwhile.
//   - The server dies while registered. Discovery still knows the port for a second or so, am-I-registered fails and
//     counts as "not known", registering raises: the same road.
//   - A server restarted by somebody else has forgotten us. Am-I-registered says so within three seconds.
//   - A server hangs, or is stopped: its process exists, so none is launched beside it (it holds the lock, and would
//     win). The machine goes round through state 2 until it wakes or dies. Killing it is not for a library to decide:
//     other applications' work may be in it.
//   - A launch is slow. State 2 waits for ten seconds and then looks again; a process that exists by then is waited
//   for,
//     not launched again.
//   - Two runners in one process, or a tick that a long registration has delayed: the launch guard (the time at which
//     the present wait began, under the runner's lock) belongs to one runner, and the lock file decides among several.
//   - The runner is cleaned up in the middle of a step. The step holds its own references, finishes, and finds itself
//     stopped; the object goes with the last of them, possibly on its own thread.
//
// Rejected.
//   - Launching from the call that finds no server: six threads calling would launch six servers, and the caller would
//     wait for what it cannot see.
//   - Being told of the server's death by its process (a child, a pidfd): the server need not be ours, and a dead
//     process is not the only way to be gone. One question every three seconds costs less than two ways of knowing.
//   - Stopping the server when its last application goes: only the server knows which one is the last.
//   - Asking the server instead of the process table whether one runs: a server that is just starting answers nobody.
//
// Sleep.
//
// The machine goes to sleep: the timer is stopped, so that no step runs half on this side of the sleep and half on the
// other, where every time-out would look expired and every connection be dead. It wakes: the timer is installed anew.
// The events arrive on the main thread, and a timer belongs to the run loop of the thread that starts it. So after the
// first wake the steps, and whatever they launch, run on the main loop; the runner's own thread goes on turning a loop
// that has nothing in it. That is why the launch guard has a lock. It could be moved back with another call between
// threads, but then a wake during clean-up would have to find out which of the two still exists.
//   - A server that slept with us answers again at once; a step in state 5 finds everything as it was.
//   - The announcement of the sleep may come late, together with that of the wake (nobody holds up the machine for us).
//     Then the timer stops and starts in one go, and a step that ran in between has done no harm: steady time, which
//     all waits are measured with, does not count the sleep.
//   - A wake before the runner's thread has begun: both start the timer, and the second start replaces the first.
//   - A wake without a sleep: the same. Two sleeps in a row: stopping twice is harmless.
//   - A wake while the runner is cleaned up: the observation is gone, or finds the runner stopped.
#include <exception>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <pthread.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

/// How long the thread turns its run loop before it looks whether it shall go on.
constexpr Clock::Duration kSlice = 1s;

constexpr LogSite site(std::string_view function) {
    return {"Source/Client/ServerRunner", Selector(function)};
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
    runner->beginToLive();
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

void ServerRunner::beginToLive() {
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
    std::thread([body = std::move(body)] {
        ::pthread_setname_np(::pthread_self(), "KRVServerRunner");
        try {
            body();
        } catch (const std::exception& exception) {
            // Nobody else could learn of it, and an application must not end for it.
            KRV_LOG(kLogFlagError, site("startTimerOnThread"), "The server is watched no longer: {}", exception.what());
        }
    }).detach();
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
                KRV_LOG(kLogFlagInfo, site("startTimerOnThread"), "Error during ServerRunner thread loop: {}",
                        exception.description());
            }
        }
        stopMonitorTimer();
    } catch (const Exception& exception) {
        KRV_LOG(kLogFlagInfo, site("startTimerOnThread"), "Error starting timer: {}", exception.description());
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

// Members that two threads may see.

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
