#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

#include <MediaServer/Front/ListeningSockets.h>
#include <MediaServer/Front/StatusPage.h>
#include <MediaServer/Operations/ServerLog.h>
#include <MediaServer/ServerProcess.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

constexpr auto kClientCheck = 2s;
/// More than two operations rarely start at the same time, and each idle worker costs memory.
constexpr unsigned kSpareWorkers = 2;
/// Operations of type 8 and 11 have an executor thread of their own.
constexpr unsigned kShortExecutors = 1;
/// How often the server checks whether it may exit while it is shutting down.
constexpr auto kExitCheck = 50ms;
/// How long the server waits, when it is shutting down, for clients to ask for outcomes that they do not know.
constexpr auto kFarewell = 3s;

std::uint64_t memoryOfEachWorker(const ServerProcess::Settings& settings) {
    return settings.workerMemory > 0 ? settings.workerMemory
                                     : WorkerLimits::memoryOfEach(settings.executors + kShortExecutors + kSpareWorkers);
}

}  // namespace

ServerProcess::ServerProcess(Settings settings)
    : settings_(std::move(settings))
    , wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , removal_(settings_.program, kClientCheck)
    , workers_(settings_.workerExecutable, kSpareWorkers, memoryOfEachWorker(settings_))
    , ledger_([this] { held_.checkAgain(); })
    , executors_(ledger_, settings_.executors,
                 [this](const KRVOperationBase::Ref& request, const Cancellation& cancellation,
                        const std::function<void(double)>& onProgress, const std::function<void()>& onDelay) {
                     return workflow_.perform(request, cancellation, onProgress, onDelay);
                 })
    , dispatcher_(clients_, ledger_, held_, [this] { requestShutDown(); })
    , front_({[this](const KRVOperationBase::Ref& request, const RequestSender& sender, const HTTPFront::Reply& reply) {
                  dispatcher_.dispatch(request, sender, reply);
              },
              [this](PageName name) { return page(name); }}) {}

Page ServerProcess::page(PageName name) const {
    switch (name) {
    case PageName::Activity:
        return activityPage(activity());
    case PageName::ActivityData:
        return activityData(activity());
    case PageName::Status:
        break;
    }
    return {.body = statusPage(status())};
}

ServerStatus ServerProcess::status() const {
    const auto counts = ledger_.counts();
    return {.version = std::string(libraryVersion()),
            .pid = ::getpid(),
            .port = port_,
            .uptime = std::chrono::steady_clock::now() - start_,
            .clients = clients_.registeredPids(),
            .queued = counts.queued,
            .running = counts.running,
            .finished = counts.finished,
            .workers = settings_.executors,
            .landlock = sandbox_.landlock,
            .seccomp = sandbox_.seccomp};
}

ServerActivity ServerProcess::activity() const {
    ServerActivity activity{
        .status = status(), .operations = ledger_.activity(), .now = std::chrono::system_clock::now()};
    for (const JobRunner::BusyWorker& worker : runner_.busy()) {
        activity.workers.push_back({worker.pid, worker.request});
    }
    for (const pid_t pid : workers_.idle()) {
        activity.workers.push_back({pid, nullptr});
    }
    const auto name = [&](const OperationActivity::Waiting& operation) {
        auto& program = activity.programs[operation.client.pid];
        const auto process = program.empty() ? ProcessTable::system().process(operation.client.pid) : std::nullopt;
        if (process && process->startTime == operation.client.startTime) {
            program = process->name;
        }
    };
    std::for_each(activity.operations.running.begin(), activity.operations.running.end(), name);
    std::for_each(activity.operations.waiting.begin(), activity.operations.waiting.end(), name);
    return activity;
}

void ServerProcess::requestShutDown() {
    shutDownRequested_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void ServerProcess::beginShutDown() {
    if (!shuttingDown_) {
        shuttingDown_ = true;
        serverLog(kLogFlagInfo, "shutdown", "exiting when the running operations have finished");
        ledger_.close();
    }
}

void ServerProcess::shutDownIfRemoved() {
    if (!shuttingDown_ && removal_.removed()) {
        serverLog(kLogFlagWarning, "shutdown",
                  fmt::format("{} has been removed or replaced", settings_.program.path().string()));
        beginShutDown();
    }
}

void ServerProcess::removeDeadClients() {
    for (const ClientKey& dead : clients_.removeDead()) {
        serverLog(kLogFlagInfo, "clients", fmt::format("process {} has exited", dead.pid));
        ledger_.removeAllOf(dead);
    }
    for (const ClientKey& client : ledger_.removeOld()) {
        clients_.forgetUnlessRegistered(client);
    }
}

bool ServerProcess::mayExit() {
    const auto counts = ledger_.counts();
    const auto now = std::chrono::steady_clock::now();
    const bool working = counts.running + counts.queued > 0;
    if (shuttingDown_) {
        if (working) {
            workEnded_ = {};
            return false;
        }
        if (workEnded_ == std::chrono::steady_clock::time_point{}) {
            workEnded_ = now;
        }
        return counts.untold == 0 || now - workEnded_ >= kFarewell;
    }
    if (working || !clients_.empty()) {
        lastNeeded_ = now;
    }
    return settings_.idleTimeout > 0s && now - lastNeeded_ >= settings_.idleTimeout;
}

int ServerProcess::run(int signals) {
    auto sockets = ListeningSockets::open(settings_.minimumPort, settings_.maximumPort);
    if (!sockets) {
        fmt::print(stderr, "KRVQuicktimeProcess: no port from {} to {} is free\n", settings_.minimumPort,
                   settings_.maximumPort);
        return 1;
    }
    port_ = sockets->port;
    if (!front_.start(std::move(*sockets))) {
        fmt::print(stderr, "KRVQuicktimeProcess: the HTTP library cannot be started\n");
        return 1;
    }
    for (const std::string& phrase : missingForSandbox(sandbox_)) {
        serverLog(kLogFlagWarning, "start", "the kernel has " + phrase);
    }
    ServicePublisher publisher(settings_.serviceName, port_);
    serverLog(kLogFlagInfo, "start", fmt::format("serving on port {}", port_));

    auto nextCheck = std::chrono::steady_clock::now() + kClientCheck;
    while (!mayExit()) {
        std::array<pollfd, 2> waiting{{{signals, POLLIN, 0}, {wake_.get(), POLLIN, 0}}};
        const auto timeout =
            shuttingDown_ ? std::chrono::milliseconds(kExitCheck) : std::chrono::milliseconds(kClientCheck);
        if (::poll(waiting.data(), waiting.size(), static_cast<int>(timeout.count())) < 0 && errno != EINTR) {
            break;
        }
        signalfd_siginfo info{};
        if ((waiting[0].revents & POLLIN) != 0 && ::read(signals, &info, sizeof info) == sizeof info) {
            if (std::exchange(signalled_, true)) {
                serverLog(kLogFlagInfo, "shutdown", "cancelling the running operations");
                ledger_.cancelEverything();
            }
            beginShutDown();
        }
        if (shutDownRequested_.exchange(false)) {
            std::uint64_t count = 0;
            [[maybe_unused]] const auto taken = ::read(wake_.get(), &count, sizeof count);
            beginShutDown();
        }
        if (std::chrono::steady_clock::now() >= nextCheck) {
            nextCheck = std::chrono::steady_clock::now() + kClientCheck;
            shutDownIfRemoved();
            removeDeadClients();
            front_.dropSlowSenders();
            publisher.restartIfFailed();
        }
    }
    serverLog(kLogFlagInfo, "shutdown", "exited");
    return 0;
}

}  // namespace krv::server
