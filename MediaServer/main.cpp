// KRVQuicktimeProcess, the media server.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <fmt/format.h>
#include <malloc.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/StateFolder.h>

#include <MediaServer/Files/BlockingCalls.h>
#include <MediaServer/Files/InstalledProgram.h>
#include <MediaServer/Files/InstanceLock.h>
#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/ServerProcess.h>

namespace {

using namespace krv;
using namespace krv::server;

constexpr std::string_view kLoggingDomainKey = "KRVLoggingDomain";
constexpr std::string_view kIdleTimeoutKey = "idleTimeout";
constexpr std::int64_t kDefaultIdleSeconds = 600;
constexpr std::string_view kWorkerStallLimitKey = "workerStallLimit";
constexpr std::int64_t kDefaultStallSeconds = 900;
/// In MiB. The default is an equal share of the machine's memory for each worker that may run at the same time, at
/// least 1 GiB and at most 8 GiB.
constexpr std::string_view kWorkerMemoryLimitKey = "workerMemoryLimit";

/// How long the start waits for what an earlier server has left. The clean-up goes on after that.
constexpr std::chrono::seconds kPatience{5};

/// Blocks SIGTERM, SIGINT and SIGHUP in this thread and its descendants. Returns a signalfd that reports them.
int openTerminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

/// Each connection needs a descriptor, and the server must handle a thousand of them.
void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Returns the memory of large blocks to the system as soon as they are freed. Otherwise the C library keeps more and
/// more of it, up to 32 MiB a block, in case as much is needed again.
void returnLargeBlocks() {
    constexpr int kLarge = 1 << 18;
    ::mallopt(M_MMAP_THRESHOLD, kLarge);
}

/// Returns a time that can be added to any other.
std::chrono::seconds idleTimeout(const UserDefaults& defaults) {
    constexpr std::int64_t kLongest = std::int64_t{1} << 31;
    const std::int64_t given =
        defaults.stringForKey(kIdleTimeoutKey) ? defaults.integerForKey(kIdleTimeoutKey) : kDefaultIdleSeconds;
    return std::chrono::seconds(std::clamp<std::int64_t>(given, 0, kLongest));
}

std::chrono::seconds workerStallLimit(const UserDefaults& defaults) {
    constexpr std::int64_t kYear = std::int64_t{365} * 24 * 60 * 60;
    return std::chrono::seconds(defaults.stringForKey(kWorkerStallLimitKey)
                                    ? std::clamp<std::int64_t>(defaults.integerForKey(kWorkerStallLimitKey), 0, kYear)
                                    : kDefaultStallSeconds);
}

std::uint64_t workerMemory(const UserDefaults& defaults) {
    constexpr std::int64_t kMost = std::int64_t{1} << 30;
    return static_cast<std::uint64_t>(std::clamp<std::int64_t>(defaults.integerForKey(kWorkerMemoryLimitKey), 0, kMost))
           << 20;
}

/// Runs the server until it is to exit. Returns the process's exit status.
int serve(ServerProcess::Settings settings, int signals) {
    try {
        return ServerProcess(std::move(settings)).run(signals);
    } catch (const std::system_error& failure) {
        fmt::print(stderr, "KRVQuicktimeProcess: cannot start: {}\n", failure.code().message());
        return 1;
    }
}

}  // namespace

int main() {
    const int signals = openTerminationSignals();
    allowManyDescriptors();
    returnLargeBlocks();
    UserDefaults& defaults = UserDefaults::standard();
    if (const auto domain = defaults.stringForKey(kLoggingDomainKey)) {
        defaults.setDomain(*domain);
    }
    applyLoggingDefaults();

    InstanceLock lock;
    switch (lock.acquire(runtimeFolder(kMediaServerName), stateFolder(kMediaServerName))) {
    case InstanceLock::Result::Held:
        break;
    case InstanceLock::Result::TakenByAnother:
        return 0;  // the other server already serves this user
    case InstanceLock::Result::Failed:
        fmt::print(stderr, "KRVQuicktimeProcess: {}\n", lock.failure());
        return 1;
    }
    BlockingCalls blockingCalls;
    // Notes may name files on drives that do not respond.
    (void)blockingCalls.run([](const BlockingCalls::Report&) { OperationFiles::sweep(); }, {.limit = kPatience});

    const InstalledProgram program;
    const int status =
        serve({.minimumPort = PortNumbering::minimumPortNumber(),
               .maximumPort = PortNumbering::maximumPortNumber(),
               .serviceName = ServerNaming::machineSpecificNameFor(kHTTPServerDiscoveryDefaultServiceName),
               .program = program,
               .workerExecutable = (program.path().parent_path() / "KRVMediaWorker").string(),
               .workerMemory = workerMemory(defaults),
               .workerStallLimit = workerStallLimit(defaults),
               .executors = std::max(std::thread::hardware_concurrency(), 1U),
               .blockingCalls = blockingCalls,
               .idleTimeout = idleTimeout(defaults)},
              signals);
    blockingCalls.waitForCleanUp();
    lock.release();
    if (blockingCalls.abandoned() > 0) {
        // Abandoned threads may wake up at any time, so nothing that they use may be destroyed.
        std::fflush(nullptr);
        ::_exit(status);
    }
    return status;
}
