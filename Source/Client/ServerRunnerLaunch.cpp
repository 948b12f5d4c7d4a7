// Finds the server's program and launches it.
#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/StateFolder.h>

namespace krv {

constinit const std::string_view kKRVNewKRVQuicktimeProcessorStarted = "kKRVNewKRVQuicktimeProcessorStarted";

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr std::string_view kServerType = "app";
constexpr std::string_view kExecutablesInBundle = "/Contents/MacOS/";
constexpr std::string_view kLoggingDomainArgument = "-KRVLoggingDomain";
constexpr std::string_view kMediaClass = "KRVMedia";
constexpr Clock::Duration kLaunchTakesAtMost = 30s;
constexpr std::uintmax_t kLargestErrorFile = std::uintmax_t{256} * 1024;

constexpr LogSite site(std::string_view function) {
    return {"Source/Client/ServerRunner", Selector(function)};
}

/// Returns the file for the server's standard error, or an empty string if there is no folder for it. Without the file
/// the messages of the dynamic linker and of a crash would be lost.
std::string standardErrorFile() {
    const std::string folder = stateFolder(kMediaServerName);
    if (folder.empty()) {
        return {};
    }
    std::error_code failure;
    const fs::path file = fs::path(folder) / "standard-error.log";
    if (const auto size = fs::file_size(file, failure); !failure && size > kLargestErrorFile) {
        fs::resize_file(file, 0, failure);
    }
    return file.string();
}

/// The latest launch. Never destroyed, because threads may query it until the process exits.
struct LatestLaunch {
    Mutex mutex;
    std::optional<LaunchAttempt> attempt KRV_GUARDED_BY(mutex);
    std::shared_ptr<Task> task KRV_GUARDED_BY(mutex);
};

LatestLaunch& latest() {
    static auto* instance = new LatestLaunch;
    return *instance;
}

void note(LaunchAttempt attempt, const std::shared_ptr<Task>& task = nullptr) {
    const LockGuard lock(latest().mutex);
    latest().attempt = std::move(attempt);
    latest().task = task;
}

}  // namespace

std::optional<LaunchAttempt> ServerRunner::latestLaunch() {
    const LockGuard lock(latest().mutex);
    auto attempt = latest().attempt;
    if (attempt && latest().task) {
        attempt->running = latest().task->isRunning();
    }
    return attempt;
}

std::optional<Bundle> ServerRunner::bundleOfThisLibrary() {
    return Bundle::containing(reinterpret_cast<const void*>(&ServerRunner::latestLaunch));
}

std::optional<std::string> ServerRunner::findResource(std::string_view name, std::string_view ofType) const {
    if (auto path = findResource(name, ofType, environment_.mainBundle())) {
        return path;
    }
    const auto library = environment_.libraryBundle();
    return library ? findResource(name, ofType, *library) : std::nullopt;
}

std::optional<std::string> ServerRunner::findResource(std::string_view name, std::string_view ofType,
                                                      const Bundle& inBundle) const {
    const std::string fileName = fmt::format("{}.{}", name, ofType);
    const auto search = [&](const Bundle& bundle) {
        auto path = bundle.pathForResource(name, ofType);
        return path ? path : bundle.pathForAuxiliaryExecutable(fileName);
    };
    if (auto path = search(inBundle)) {
        return path;
    }
    const auto media = environment_.classes->bundleForClass(kMediaClass);
    return media ? search(*media) : std::nullopt;
}

void ServerRunner::kickOffQTProcessor() {
    {
        const LockGuard lock(mutex_);
        if (serverCheckStartTime_) {
            // Start minus now, so the number is negative.
            KRV_LOG(kLogFlagInfo, site("kickOffQTProcessor"),
                    "Not starting server - one has already been started {:.2f}s ago",
                    secondsFromDuration(*serverCheckStartTime_ - environment_.now()));
            return;
        }
    }
    const auto bundle = findResource(kMediaServerName, kServerType);
    if (!bundle) {
        const auto library = environment_.libraryBundle();
        KRV_LOG(kLogFlagInfo, site("kickOffQTProcessor"), "There is no {}.{} in {}{}{}", kMediaServerName, kServerType,
                environment_.mainBundle().path(), library ? " or " : "", library ? library->path() : "");
        // The reason has a placeholder for a name, and prints the text for a missing one.
        const std::string reason = "Cannot find the executable (null). Can't start server";
        note({.bundle = {}, .executable = {}, .failure = reason, .standardErrorFile = {}});
        throw Exception(std::string(kBadBuildException), reason);
    }
    KRV_LOG(kLogFlagInfo, site("kickOffQTProcessor"), "I will start {}", *bundle);
    Task::Launch what{.executable = fmt::format("{}{}{}", *bundle, kExecutablesInBundle, kMediaServerName),
                      .arguments = {std::string(kLoggingDomainArgument)},
                      .standardErrorFile = standardErrorFile()};
    if (auto identifier = environment_.mainBundle().bundleIdentifier()) {
        what.arguments.push_back(*std::move(identifier));
    }
    setServerCheckStartTime(environment_.now());
    LaunchAttempt attempt{
        .bundle = *bundle, .executable = what.executable, .failure = {}, .standardErrorFile = what.standardErrorFile};
    std::shared_ptr<Task> task;
    try {
        task = environment_.launch(what);
    } catch (const Exception& exception) {
        attempt.failure = exception.reason();
        note(std::move(attempt));
        throw;
    }
    attempt.pid = task->processIdentifier();
    note(std::move(attempt), task);
    {
        const LockGuard lock(mutex_);
        if (!cleanedUp_) {
            qtProcessorTask_.swap(task);
        }
    }
    RunLoop::current().performAfterDelay(kLaunchTakesAtMost, shared_from_this(), kNoLongerStartingProcessor,
                                         [this] { noLongerStartingProcessor(); });
}

bool ServerRunner::launchIfMissing() {
    if (KRVProcessMonitor::isProcessRunningNamed(kMediaServerName, *environment_.processes)) {
        return false;
    }
    setServerCheckStartTime(std::nullopt);  // what an earlier launch started has exited
    kickOffQTProcessor();
    return true;
}

void ServerRunner::noLongerStartingProcessor() {
    setServerCheckStartTime(std::nullopt);
    environment_.mainLoop().perform([self = std::static_pointer_cast<ServerRunner>(shared_from_this())] {
        self->noLongerStartingProcessor_mainThread();
    });
}

void ServerRunner::noLongerStartingProcessor_mainThread() {
    environment_.notificationCenter().post(
        {std::string(kKRVNewKRVQuicktimeProcessorStarted), Value(), shared_from_this()});
}

}  // namespace krv
