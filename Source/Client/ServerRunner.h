#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Monitoring/KRVNSTimer.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>
#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/ClassRegistry.h>
#include <KRVQTProcessClient/Platform/Clock.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>
#include <KRVQTProcessClient/Platform/PowerEvents.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Platform/Task.h>

namespace krv {

class KRVQuicktimeProcessClient;

/// Posted on the default notification centre, on the main thread, with the runner as object: the present attempt to
/// start a server has come to its end, after every try to register and half a minute after each launch.
KRV_EXPORT extern const std::string_view kKRVNewKRVQuicktimeProcessorStarted;

/// What became of the latest attempt of this process to launch the server.
struct LaunchAttempt {
    /// The bundle that was found; empty when there was none.
    std::string bundle;
    std::string executable;
    /// Why the launch failed; empty when the program was started.
    std::string failure;
    /// Where what the program prints on its standard error goes; empty when there is no place for it.
    std::string standardErrorFile;
    /// Process id of what was started, else 0.
    pid_t pid = 0;
    /// Whether that process still lives. A server that found another one already serving this user ends at once, too.
    bool running = false;
};

/// Keeps one server process available to its client, and the client registered with it: one step of a state machine
/// each second, on a thread of its own. ServerRunner.cpp begins with how it works, and ServerRunnerStates.cpp with why.
///
/// A runner keeps its client and its monitor alive, and its thread keeps the runner, until cleanUp.
class KRV_EXPORT ServerRunner final : public KRVNSTimer {
public:
    /// What the runner uses of the system. The defaults are the real things.
    struct Environment {
        std::function<std::shared_ptr<HTTPServerDiscovery>()> discovery = &HTTPServerDiscovery::defaultInstance;
        std::function<Clock::TimePoint()> now = [] { return Clock::steady().now(); };
        const ProcessTable* processes = &ProcessTable::ofThisUser();
        std::function<const Bundle&()> mainBundle = &Bundle::main;
        std::function<std::optional<Bundle>()> libraryBundle = &ServerRunner::bundleOfThisLibrary;
        ClassRegistry* classes = &ClassRegistry::shared();
        std::function<std::shared_ptr<Task>(const Task::Launch&)> launch = &Task::launch;
        std::function<NotificationCenter&()> powerEvents = &PowerEvents::notificationCenter;
        std::function<NotificationCenter&()> notificationCenter = &NotificationCenter::defaultCenter;
        std::function<RunLoop&()> mainLoop = &RunLoop::main;
        /// Runs the body on a new thread and does not wait for it.
        std::function<void(std::function<void()> body)> startThread = &startDetachedThread;
    };

    /// A runner that is live at once: its thread has been started and its first step comes a second later. Both must
    /// not be null. Any thread.
    [[nodiscard]] static std::shared_ptr<ServerRunner>
    initWithProcessMonitor(std::shared_ptr<KRVProcessMonitor> processMonitor,
                           std::shared_ptr<KRVQuicktimeProcessClient> andClient);
    [[nodiscard]] static std::shared_ptr<ServerRunner>
    initWithProcessMonitor(std::shared_ptr<KRVProcessMonitor> processMonitor,
                           std::shared_ptr<KRVQuicktimeProcessClient> andClient, Environment environment);
    ~ServerRunner() override;

    void start() { startMonitorTimer(); }
    void stop() { stopMonitorTimer(); }
    /// Ends the runner: its thread ends within about a second, and it lets go of the client and the monitor. The server
    /// is not stopped.
    void cleanUp();

    /// Seconds to wait for a server to answer before starting over; 10 at first.
    [[nodiscard]] std::int32_t timeToPresumeAServerDead() const noexcept { return timeToPresumeAServerDead_; }
    void setTimeToPresumeAServerDead(std::int32_t seconds) noexcept { timeToPresumeAServerDead_ = seconds; }
    /// Whether the runner's thread goes on.
    [[nodiscard]] bool running() const noexcept { return running_; }
    void setRunning(bool running) noexcept { running_ = running; }
    [[nodiscard]] std::shared_ptr<Task> qtProcessorTask() const;
    [[nodiscard]] std::optional<Clock::TimePoint> serverCheckStartTime() const;
    void setServerCheckStartTime(std::optional<Clock::TimePoint> time);
    [[nodiscard]] std::optional<Clock::TimePoint> lastSentAmIRegistered() const;
    void setLastSentAmIRegistered(std::optional<Clock::TimePoint> time);

    // The state machine.

    /// The values of state. Four is never entered; a step in it, or in any value not listed, does nothing.
    enum State : std::int32_t { Start = 0, LookForServer = 1, WaitForServer = 2, Register = 3, Registered = 5 };
    [[nodiscard]] std::int32_t state() const noexcept { return state_; }
    void setState(std::int32_t state) noexcept { state_ = state; }

    void krvNSTimerFired() override { stateMachine(); }
    /// One step. Raises when there is no server to launch or its launch is refused.
    void stateMachine();
    /// Whether the server's port is known.
    [[nodiscard]] bool isQTProcessReady() const;
    /// Whether its port is known or a process of the server's name runs.
    [[nodiscard]] bool isQTProcessServerRunning() const;
    /// Whether the server says that it knows the client; asks at most every three seconds.
    [[nodiscard]] bool doesServerKnowUs();

    // The launch.

    /// Launches the server from its bundle, unless a launch is under way already. Raises Exception "BadBuild" when
    /// there is no bundle, and what Task::launch raises when the system refuses.
    void kickOffQTProcessor();
    /// Ends the present attempt, and says so with kKRVNewKRVQuicktimeProcessorStarted.
    void noLongerStartingProcessor();
    /// A resource in the application's bundle or that of the library, and after each in the bundle of class "KRVMedia".
    [[nodiscard]] std::optional<std::string> findResource(std::string_view name, std::string_view ofType) const;
    [[nodiscard]] std::optional<std::string> findResource(std::string_view name, std::string_view ofType,
                                                          const Bundle& inBundle) const;
    /// The latest launch by any runner of this process; absent when there was none. Any thread.
    [[nodiscard]] static std::optional<LaunchAttempt> latestLaunch();

    // Called by the system.

    void goingToSleep();
    void wakingUp();
    /// The body of the runner's thread.
    void startTimerOnThread();

    static constexpr Selector kNoLongerStartingProcessor{"noLongerStartingProcessor"};

private:
    ServerRunner(std::shared_ptr<KRVProcessMonitor> processMonitor, std::shared_ptr<KRVQuicktimeProcessClient> client,
                 Environment environment);
    void beginToLive();
    void lookForServer(bool running);
    void waitForServer(bool ready);
    void registerClient();
    void watchServer(bool running, bool ready);
    void noLongerStartingProcessor_mainThread();
    [[nodiscard]] std::shared_ptr<KRVQuicktimeProcessClient> client() const;

    static void startDetachedThread(std::function<void()> body);
    static std::optional<Bundle> bundleOfThisLibrary();

    const Environment environment_;
    mutable RecursiveMutex mutex_;
    std::shared_ptr<KRVProcessMonitor> processMonitor_ KRV_GUARDED_BY(mutex_);
    std::shared_ptr<KRVQuicktimeProcessClient> client_ KRV_GUARDED_BY(mutex_);
    std::atomic<std::int32_t> timeToPresumeAServerDead_{10};
    std::shared_ptr<Task> qtProcessorTask_ KRV_GUARDED_BY(mutex_);
    std::atomic<std::int32_t> state_{Start};
    std::atomic<bool> lastAmIRegisteredResponse_{false};
    std::optional<Clock::TimePoint> lastSentAmIRegistered_ KRV_GUARDED_BY(mutex_);
    std::optional<Clock::TimePoint> serverCheckStartTime_ KRV_GUARDED_BY(mutex_);
    std::atomic<bool> running_{false};
    std::atomic<bool> cleanedUp_{false};
    std::vector<NotificationCenter::Token> powerObservations_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv
