// The server runner's state machine, one function per state. ServerRunner.cpp explains it.
#include <cmath>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr Clock::Duration kBetweenQuestions = 3s;

constexpr LogSite site(std::string_view function) {
    return {"Source/Client/ServerRunner", Selector(function)};
}
constexpr LogSite kStep = site("stateMachine");

/// Returns the absolute difference of two times in seconds.
float distance(Clock::TimePoint a, Clock::TimePoint b) {
    return std::abs(static_cast<float>(secondsFromDuration(a - b)));
}

}  // namespace

void ServerRunner::stateMachine() {
    // Evaluated on every step, even where unused, because isQTProcessServerRunning() logs.
    const bool running = isQTProcessServerRunning();
    const bool ready = isQTProcessReady();
    switch (state_) {
    case Start:
        state_ = LookForServer;
        setServerCheckStartTime(std::nullopt);
        stateMachine();
        break;
    case LookForServer:
        lookForServer(running);
        break;
    case WaitForServer:
        waitForServer(ready);
        break;
    case Register:
        registerClient();
        break;
    case Registered:
        watchServer(running, ready);
        break;
    default:
        break;
    }
}

void ServerRunner::lookForServer(bool running) {
    if (running) {
        KRV_LOG(kLogFlagInfo, kStep, "Looks like a server is already running.");
        setServerCheckStartTime(environment_.now());
    } else if (!serverCheckStartTime()) {
        KRV_LOG(kLogFlagInfo, kStep, "Starting a new server ...");
        kickOffQTProcessor();
    } else {
        // Another thread has launched one since the previous step.
        KRV_LOG(kLogFlagInfo, kStep,
                "No server running - but we have just begun one. Will ignore that no server is running, for now");
    }
    state_ = WaitForServer;
}

void ServerRunner::waitForServer(bool ready) {
    float waited = 0;
    {
        const LockGuard lock(mutex_);
        if (!serverCheckStartTime_) {
            serverCheckStartTime_ = environment_.now();
        }
        waited = distance(*serverCheckStartTime_, environment_.now());
    }
    // Giving up is checked first. A server that becomes ready in this very step is found by the next look.
    if (waited > static_cast<float>(timeToPresumeAServerDead_)) {
        KRV_LOG(kLogFlagInfo, kStep,
                "Waited long enough ({}s) for server to appear as alive. Giving up, starting again",
                timeToPresumeAServerDead());
        if (const auto task = qtProcessorTask(); task && !task->isRunning()) {
            KRV_LOG(kLogFlagInfo, kStep, "The server that was launched, process {}, has ended",
                    task->processIdentifier());
        }
        state_ = Start;
    } else if (ready) {
        KRV_LOG(kLogFlagInfo, kStep, "Server responding to requests on port {}. That's a good sign!",
                environment_.discovery()->servicePortNumber());
        state_ = Register;
        stateMachine();
    } else {
        KRV_LOG(kLogFlagInfo, kStep, "Waiting for a server to appear ({:.2f}s)", waited);
    }
}

void ServerRunner::registerClient() {
    noLongerStartingProcessor();
    try {
        if (const auto client = this->client()) {
            client->registerWithServer();
        }
    } catch (const Exception& exception) {
        environment_.discovery()->serverIsntThere();
        KRV_LOG(kLogFlagInfo, kStep, "Failed to register with server: {}. Starting from scratch.",
                exception.description());
        state_ = Start;
        return;
    }
    state_ = Registered;
    KRV_LOG(kLogFlagInfo, kStep, "Registration complete. Good to go.");
}

void ServerRunner::watchServer(bool running, bool ready) {
    if (!running || !ready) {
        state_ = Start;
    } else if (!doesServerKnowUs()) {
        state_ = Register;
    }
}

bool ServerRunner::isQTProcessReady() const {
    return environment_.discovery()->servicePortNumber() > 0;
}

bool ServerRunner::isQTProcessServerRunning() const {
    if (isQTProcessReady() || KRVProcessMonitor::isProcessRunningNamed(kMediaServerName, *environment_.processes)) {
        return true;
    }
    KRV_LOG(kLogFlagInfo, site("isQTProcessServerRunning"), "Can't find process. Server isn't running");
    return false;
}

bool ServerRunner::doesServerKnowUs() {
    if (!isQTProcessReady()) {
        return false;
    }
    const auto now = environment_.now();
    if (const auto last = lastSentAmIRegistered();
        last && (now > *last ? now - *last : *last - now) < kBetweenQuestions) {
        return lastAmIRegisteredResponse_;
    }
    setLastSentAmIRegistered(now);
    const auto client = this->client();
    lastAmIRegisteredResponse_ = client && client->amIRegistered();
    return lastAmIRegisteredResponse_;
}

}  // namespace krv
