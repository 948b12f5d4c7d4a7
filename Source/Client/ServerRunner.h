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

/// Notification: an attempt to start a server is over. Posted before each registration and half a minute after each
/// launch, on the default notification centre and the main thread. Its object is the runner.
KRV_EXPORT extern const std::string_view kKRVNewKRVQuicktimeProcessorStarted;

/// The result of this process's latest attempt to launch the server.
struct LaunchAttempt {
    /// The server's bundle; empty if it was not found.
    std::string bundle;
    std::string executable;
    /// Why the launch failed; empty if the program was started.
    std::string failure;
    /// The file that receives the program's standard error; empty if there is no folder for it.
    std::string standardErrorFile;
    /// Process id of the program, 0 if it was not started.
    pid_t pid = 0;
    /// Whether that process is still running. A server exits at once if another one already serves this user.
    bool running = false;
};

/// Keeps one server process available to its client, and the client registered with it. A state machine runs one step
/// per second on a thread of its own. ServerRunner.cpp begins with the full explanation.
///
/// Until cleanUp the runner keeps references to its client and its monitor, and its thread keeps one to the runner.
class KRV_EXPORT ServerRunner final : public KRVNSTimer {
public:
    /// The services that the runner uses. The defaults are the real ones.
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

    /// Creates a runner and starts its thread. The first step runs a second later. Neither argument may be null.
    /// Thread-safe.
    [[nodiscard]] static std::shared_ptr<ServerRunner>
    initWithProcessMonitor(std::shared_ptr<KRVProcessMonitor> processMonitor,
                           std::shared_ptr<KRVQuicktimeProcessClient> andClient);
    [[nodiscard]] static std::shared_ptr<ServerRunner>
    initWithProcessMonitor(std::shared_ptr<KRVProcessMonitor> processMonitor,
                           std::shared_ptr<KRVQuicktimeProcessClient> andClient, Environment environment);
    ~ServerRunner() override;

    void start() { startMonitorTimer(); }
    void stop() { stopMonitorTimer(); }
    /// Stops the runner and releases the client and the monitor. The thread exits within about a second, or, if its step
    /// waits for a server that hangs, when that request has timed out (up to a minute). Does not stop the server.
    void cleanUp();

    /// Seconds to wait for a server to respond before starting over. Default 10.
    [[nodiscard]] std::int32_t timeToPresumeAServerDead() const noexcept { return timeToPresumeAServerDead_; }
    void setTimeToPresumeAServerDead(std::int32_t seconds) noexcept { timeToPresumeAServerDead_ = seconds; }
    /// Whether the runner's thread continues to run.
    [[nodiscard]] bool running() const noexcept { return running_; }
    void setRunning(bool running) noexcept { running_ = running; }
    [[nodiscard]] std::shared_ptr<Task> qtProcessorTask() const;
    [[nodiscard]] std::optional<Clock::TimePoint> serverCheckStartTime() const;
    void setServerCheckStartTime(std::optional<Clock::TimePoint> time);
    [[nodiscard]] std::optional<Clock::TimePoint> lastSentAmIRegistered() const;
    void setLastSentAmIRegistered(std::optional<Clock::TimePoint> time);

    // The state machine.

    /// The values of state. A step in any other value, such as the unused 4, does nothing.
    enum State : std::int32_t { Start = 0, LookForServer = 1, WaitForServer = 2, Register = 3, Registered = 5 };
    [[nodiscard]] std::int32_t state() const noexcept { return state_; }
    void setState(std::int32_t state) noexcept { state_ = state; }

    /// Runs one step and logs the Exception of a step that fails. Any other exception is logged too on the main loop,
    /// and propagates on others. Removes the timer of a runner that has been cleaned up.
    void krvNSTimerFired() override;
    /// Runs one step. Throws if the server's bundle is missing or its launch is refused.
    void stateMachine();
    /// Returns whether the server's port is known.
    [[nodiscard]] bool isQTProcessReady() const;
    /// Returns whether the server's port is known or a process with the server's name is running.
    [[nodiscard]] bool isQTProcessServerRunning() const;
    /// Returns whether this process is registered with the server. Asks the server at most every three seconds and
    /// returns the last reply in between.
    [[nodiscard]] bool doesServerKnowUs();

    // The launch.

    /// Launches the server from its bundle, unless a launch is already in progress. Throws Exception "BadBuild" if the
    /// bundle is missing, and what Task::launch throws.
    void kickOffQTProcessor();
    /// Launches the server now instead of at the next step, unless a process of that name is running. For callers that
    /// cannot wait a second. Returns whether it launched one. Throws like kickOffQTProcessor(). Thread-safe.
    bool launchIfMissing();
    /// Ends the present attempt and posts kKRVNewKRVQuicktimeProcessorStarted.
    void noLongerStartingProcessor();
    /// Returns the path of a resource. Searches the application's bundle, then the library's, and after each of them
    /// the bundle of the class "KRVMedia".
    [[nodiscard]] std::optional<std::string> findResource(std::string_view name, std::string_view ofType) const;
    [[nodiscard]] std::optional<std::string> findResource(std::string_view name, std::string_view ofType,
                                                          const Bundle& inBundle) const;
    /// Returns the latest launch by any runner of this process, or nothing if there was none. Thread-safe.
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
    void activate();
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
