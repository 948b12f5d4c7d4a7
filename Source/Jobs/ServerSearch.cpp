// Finding a server for the jobs.
//
// The client's own calls notice a missing server only when they fail: each attempt is sent to whatever port is known, and
// after a failure the call waits a few seconds. Jobs wait first and send then, so no attempt is spent on a server that is
// not there.
//
// A search begins when a job needs a server and none is known to respond. It looks for a port in two places: in the
// service record, which is believed if the process that it names lives, and in discovery, which also knows servers that do
// not share the runtime folder. The first request to a port registers this process, because a server that registers it
// responds, and shows it in its status from the start. While nothing responds the search looks again, at first every ten
// milliseconds, because a launched server needs about fifty.
//
// If there is no port and no server process, the search launches a server, but only once: a server that exits at once
// would do so again. Where waiting cannot help, all jobs that wait fail at once with the reason. Otherwise each waits
// until its own patience is at an end.
//
// The server runner watches the server too, at its own pace of one step per second, and may launch one at the same moment.
// The lock file decides which one serves.
//
// The reason for a loss is not looked for: connections break when a server exits, is killed or is replaced after a sleep,
// and in each case the next search finds what there is then. A server that is stopped or hangs accepts connections and
// never responds. Its requests time out, and the search goes on asking it, because its process keeps the lock.
#include <chrono>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/ServerReply.h>
#include <KRVQTProcessClient/Jobs/ServerSearch.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/ServerLock.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr Clock::Duration kShortInterval = 10ms;
constexpr Clock::Duration kLongInterval = 100ms;
/// How long the search looks at the short interval.
constexpr Clock::Duration kEagerFor = 1s;
/// Reading the process table takes milliseconds, so it is not read each time.
constexpr Clock::Duration kBetweenProcessTables = 100ms;
constexpr Clock::Duration kProbeTimeout = 5s;

/// A server that holds the lock will serve, or is about to exit. Its program may have another name.
bool lockIsHeld() {
    return isServerLockHeld(runtimeFolder(kMediaServerName));
}

bool isServerRunning() {
    return lockIsHeld() || KRVProcessMonitor::isProcessRunningNamed(kMediaServerName, ProcessTable::ofThisUser());
}

/// Returns the port in the service record, if the server that wrote it lives.
std::optional<long> portInRecord() {
    const auto record = readServiceRecord(runtimeFolder(kMediaServerName));
    if (!record || record->pidNamespace != pidNamespace()) {
        return std::nullopt;
    }
    const auto process = ProcessTable::ofThisUser().process(record->pid);
    const bool lives = process && process->startTime == record->startTime;
    return lives ? std::optional<long>(record->port) : std::nullopt;
}

}  // namespace

ServerLink::~ServerLink() = default;

ServerSearch::ServerSearch(HTTPLoop& http, std::shared_ptr<ServerRunner> runner)
    : http_(http)
    , runner_(std::move(runner)) {}

ServerSearch::~ServerSearch() {
    if (observation_) {
        NotificationCenter::defaultCenter().removeObserver(*observation_);
    }
}

ServerSearch::Token ServerSearch::whenReady(Waiter waiter) {
    const Token token = ++lastToken_;
    if (waiters_.empty()) {
        searchBegan_ = Clock::steady().now();
        launched_ = false;
        probeFailure_.clear();
        processesRead_.reset();
    }
    const auto deadline = timePointAfter(Clock::steady().now(), waiter.patience);
    waiters_.emplace(token, Waiting{std::move(waiter), deadline});
    lookAgainIn(Clock::Duration::zero());
    return token;
}

void ServerSearch::drop(Token token) {
    waiters_.erase(token);
}

void ServerSearch::lost(long port) {
    if (port == port_) {
        port_ = 0;
    }
}

void ServerSearch::lookAgainIn(Clock::Duration delay) {
    if (timer_) {
        http_.drop(*timer_);
    }
    timer_ = http_.after(delay, [this] {
        timer_.reset();
        look();
    });
}

void ServerSearch::look() {
    if (waiters_.empty() || probing_) {
        return;
    }
    if (port_ > 0) {
        answerAll(std::nullopt);
        return;
    }
    if (const auto port = findPort()) {
        probe(*port);
        return;
    }
    if (const auto failure = launchIfMissing()) {
        answerAll(failure);
        return;
    }
    tellReasonAndExpire();
    const bool eager = Clock::steady().now() - searchBegan_ < kEagerFor;
    lookAgainIn(eager ? kShortInterval : kLongInterval);
}

std::optional<long> ServerSearch::findPort() {
    if (const auto port = portInRecord()) {
        return port;
    }
    const long port = discovery_ ? discovery_->servicePortNumber() : 0;
    return port >= 1 ? std::optional(port) : std::nullopt;
}

void ServerSearch::probe(long port) {
    probing_ = true;
    const auto question =
        runner_ ? KRVOperationBase::registerWithServerOperation() : KRVOperationBase::readyToProcessRequestOperation();
    (void)http_.send(requestTo(port, *question, kProbeTimeout), [this, port](const HTTPResponse& response) {
        probing_ = false;
        const ServerReply reply = replyIn(response);
        if (reply.kind == ServerReply::Kind::Record && !reply.record->error()) {
            port_ = port;
            look();
            return;
        }
        probeFailure_ = reply.record && reply.record->error()
                            ? reply.record->error()->localizedDescription()
                            : fmt::format("found on port {}, but {}", port, reply.why);
        if (const auto failure = launchIfMissing()) {
            answerAll(failure);
            return;
        }
        tellReasonAndExpire();
        lookAgainIn(kLongInterval);
    });
}

std::optional<Failure> ServerSearch::launchIfMissing() {
    const auto now = Clock::steady().now();
    if (processesRead_ && now - *processesRead_ < kBetweenProcessTables) {
        return std::nullopt;
    }
    processesRead_ = now;
    if (runner_) {
        if (const auto failure = launch()) {
            return failure;
        }
    } else if (!isServerRunning()) {
        return noServer();
    }
    if (!discovery_) {
        // A server may run whose record is elsewhere. Discovery reports on the main loop.
        discovery_ = HTTPServerDiscovery::defaultInstance();
        observation_ = NotificationCenter::defaultCenter().addObserver(
            kHTTPServerDiscoveryServiceChangeNotification,
            [this](const Notification&) { http_.post([this] { look(); }); });
    }
    return std::nullopt;
}

std::optional<Failure> ServerSearch::launch() {
    if (launched_) {
        const auto latest = ServerRunner::latestLaunch();
        const bool exited = latest && latest->pid > 0 && !latest->running;
        if (!exited || isServerRunning()) {
            return std::nullopt;
        }
        // One that exits at once because another has the lock is not to blame.
        return probeFailure_.empty() ? cannotStart(whyNotYet()) : noConnection(probeFailure_);
    }
    if (lockIsHeld()) {
        return std::nullopt;
    }
    try {  // the runner looks for a process of that name itself
        launched_ = runner_->launchIfMissing();
        return std::nullopt;
    } catch (const Exception&) {
        return cannotStart(whyNotYet());
    }
}

std::string ServerSearch::whyNotYet() const {
    if (!probeFailure_.empty()) {
        return probeFailure_;
    }
    const auto launch = launched_ || runner_ ? ServerRunner::latestLaunch() : std::nullopt;
    if (!launch) {
        return "one is running, but its port has not been found yet";
    }
    if (launch->bundle.empty()) {
        return fmt::format("there is no {}.app beside the application or its library to start it from",
                           kMediaServerName);
    }
    if (!launch->failure.empty()) {
        return launch->failure;
    }
    if (launch->running) {
        return fmt::format("launched as process {}, but it does not respond yet", launch->pid);
    }
    return fmt::format("{} was launched and exited at once{}{}", launch->executable,
                       launch->standardErrorFile.empty() ? "" : "; its output is in ", launch->standardErrorFile);
}

void ServerSearch::answerAll(const std::optional<Failure>& failure) {
    auto answered = std::exchange(waiters_, {});
    for (auto& [token, each] : answered) {
        each.waiter.answer(failure);
    }
}

void ServerSearch::tellReasonAndExpire() {
    const std::string reason = whyNotYet();
    const bool isNew = std::exchange(reason_, reason) != reason;
    const auto now = Clock::steady().now();
    std::vector<Waiter> expired;
    for (auto it = waiters_.begin(); it != waiters_.end();) {
        if (it->second.deadline <= now) {
            expired.push_back(std::move(it->second.waiter));
            it = waiters_.erase(it);
            continue;
        }
        if (isNew) {
            it->second.waiter.waiting(reason);
        }
        ++it;
    }
    for (const Waiter& each : expired) {
        each.answer(noResponse(each.patience, reason));
    }
}

}  // namespace krv
