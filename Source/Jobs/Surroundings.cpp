#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <unistd.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <KRVQTProcessClient/Discovery/PortNumbering.h>
#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Jobs/Surroundings.h>
#include <KRVQTProcessClient/Platform/Bundle.h>
#include <KRVQTProcessClient/Platform/MachineProbes.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>

namespace krv {
namespace {

namespace fs = std::filesystem;
using State = Check::State;

constexpr std::string_view kBundleType = "app";
constexpr std::string_view kWorkerName = "KRVMediaWorker";

std::string folderOfThisLibrary() {
    const auto bundle = Bundle::containing(reinterpret_cast<const void*>(&examineSurroundings));
    return bundle ? bundle->path() : std::string();
}

std::vector<std::string> brokenProgramsIn(const fs::path& bundle) {
    std::vector<std::string> broken;
    for (const std::string_view name : {std::string_view(kMediaServerName), kWorkerName}) {
        const fs::path program = bundle / "Contents" / "MacOS" / name;
        if (::access(program.c_str(), X_OK) != 0) {
            broken.push_back(program.string());
        }
    }
    return broken;
}

/// Returns whether the process in a record is alive and can be that of a server for this process.
bool isTrue(const ServiceRecord& record) {
    const auto process = ProcessTable::ofThisUser().process(record.pid);
    return record.pidNamespace == pidNamespace() && process && process->startTime == record.startTime;
}

Check checkOfBundle(const Surroundings& found) {
    if (found.bundle.empty()) {
        return {.name = "bundle",
                .state = State::Problem,
                .finding = fmt::format("There is no {}.{} beside the application, nor beside its library in {}.",
                                       kMediaServerName, kBundleType, found.library),
                .suggestion = "Install the media server, or put it beside the application."};
    }
    if (!found.brokenPrograms.empty()) {
        return {.name = "bundle",
                .state = State::Problem,
                .finding = fmt::format("{} cannot be executed.", fmt::join(found.brokenPrograms, " and ")),
                .suggestion = "Reinstall the media server."};
    }
    return {.name = "bundle", .state = State::Good, .finding = fmt::format("The server is in {}.", found.bundle)};
}

Check checkOfProcesses(const Surroundings& found) {
    if (found.processesAreVisible) {
        return {.name = "processes", .state = State::Good, .finding = "The processes of this user can be listed."};
    }
    return {.name = "processes",
            .state = State::Problem,
            .finding = "This process cannot read its own entry in /proc, so it cannot tell whether a server is alive.",
            .suggestion = "Mount /proc where the application runs."};
}

Check checkOfRuntimeFolder(const Surroundings& found) {
    Check check{.name = "runtime-folder", .state = State::Good};
    if (found.runtimeFolder.empty()) {
        check.state = State::Problem;
        check.finding = "There is no folder for files of this session.";
        check.suggestion = "Set XDG_RUNTIME_DIR to a folder that only this user can write to.";
    } else if (!found.runtimeFolderIsWritable) {
        check.state = State::Problem;
        check.finding = fmt::format("This user cannot write to {}.", found.runtimeFolder);
        check.suggestion = "Set XDG_RUNTIME_DIR to a folder that this user can write to.";
    } else if (!found.givenRuntimeFolder.empty() && found.givenRuntimeFolder != found.runtimeFolder) {
        check.state = State::Warning;
        check.finding = fmt::format("XDG_RUNTIME_DIR is {}, which is not a folder that only this user can write to. "
                                    "{} is used instead.",
                                    found.givenRuntimeFolder, found.runtimeFolder);
        check.suggestion = "Correct XDG_RUNTIME_DIR, or unset it.";
    } else {
        check.finding = fmt::format("It is {}.", found.runtimeFolder);
    }
    return check;
}

Check checkOfPorts(const Surroundings& found) {
    const int all = found.highestPort - found.lowestPort + 1;
    const bool needed = found.freePorts == 0 && !found.recordIsTrue;
    return {.name = "ports",
            .state = needed ? State::Problem : State::Good,
            .finding = fmt::format("{} of the {} ports from {} to {} are free.", found.freePorts, all, found.lowestPort,
                                   found.highestPort),
            .suggestion = needed ? "Choose another range with minimumPortNumber and maximumPortNumber." : ""};
}

Check checkOfMulticast(const Surroundings& found) {
    if (found.loopbackCarriesMulticast) {
        return {.name = "multicast", .state = State::Good, .finding = "The loopback interface carries multicast."};
    }
    return {.name = "multicast",
            .state = State::Warning,
            .finding =
                "The loopback interface does not carry multicast. A server that does not share the runtime folder "
                "is found by trying the ports, which takes some seconds.",
            .suggestion = "Give all programs of this user the same runtime folder."};
}

Check checkOfBus(const Surroundings& found) {
    if (found.systemBusResponds) {
        return {.name = "system-bus", .state = State::Good, .finding = "The system bus reports sleep and wake."};
    }
    return {.name = "system-bus",
            .state = State::Warning,
            .finding = "There is no system bus, so sleep and wake are not noticed."};
}

Check checkOfRecord(const Surroundings& found, bool wasRunning) {
    Check check{.name = "service-record", .state = State::Good};
    if (!found.record) {
        check.state = wasRunning ? State::Warning : State::Good;
        check.finding = wasRunning
                            ? fmt::format("A server was running, but its record is not in {}.", found.runtimeFolder)
                            : "There was none, because no server was running.";
        check.suggestion = wasRunning ? "Give all programs of this user the same XDG_RUNTIME_DIR." : "";
    } else if (found.recordIsTrue) {
        check.finding = fmt::format("It named process {} on port {}.", found.record->pid, found.record->port);
    } else {
        check.finding =
            fmt::format("It named process {}, which has exited. The next server replaces it.", found.record->pid);
    }
    return check;
}

std::string sentenceOf(const Failure& failure) {
    return failure.cause().empty() ? failure.message()
                                   : fmt::format("{} The cause: {}.", failure.message(), failure.cause());
}

Check checkOfServer(const Surroundings& found, const Result<ServerStatus>& before, const Result<ServerStatus>& after) {
    Check check{.name = "server", .state = State::Good};
    if (!after) {
        check.state = State::Problem;
        check.finding = sentenceOf(after.error());
        check.suggestion = after.error().suggestion();
        return check;
    }
    if (before && before->pid == after->pid) {
        const bool byRecord = found.recordIsTrue && found.record->port == after->port;
        check.finding =
            fmt::format("Process {} of version {} has been serving on port {} for {:.0f} s. It was found {}.",
                        after->pid, after->version, after->port, after->uptime.count(),
                        byRecord ? "by its record" : "by multicast DNS or on its port");
    } else {
        check.finding = fmt::format("None was running. Process {} of version {} was launched and serves on port {}.",
                                    after->pid, after->version, after->port);
    }
    if (after->version != found.version) {
        check.state = State::Warning;
        check.finding += fmt::format(" The library's version is {}.", found.version);
        check.suggestion = "Shut the server down, so that the one of this library is launched.";
    }
    return check;
}

Check checkOfRegistration(const Result<ServerStatus>& after, std::int64_t pid) {
    if (!after) {
        return {.name = "registration", .state = State::Unknown, .finding = "No server responds."};
    }
    if (std::find(after->clients.begin(), after->clients.end(), pid) != after->clients.end()) {
        return {.name = "registration",
                .state = State::Good,
                .finding = fmt::format("This process, {}, is registered with the server.", pid)};
    }
    return {.name = "registration",
            .state = State::Warning,
            .finding = fmt::format("This process, {}, is not registered with the server, which may exit while it is "
                                   "still needed.",
                                   pid)};
}

Check checkOfSandbox(const Result<ServerStatus>& after) {
    Check check{.name = "sandbox", .state = State::Unknown};
    if (!after) {
        check.finding = "No server responds.";
    } else if (!after->sandbox) {
        check.finding = "The server does not say what its sandbox can do.";
    } else if (after->sandbox->landlock > 0 && after->sandbox->seccomp) {
        check.state = State::Good;
        check.finding =
            fmt::format("Workers are confined by seccomp and by version {} of Landlock.", after->sandbox->landlock);
    } else {
        check.state = State::Warning;
        check.finding = fmt::format("The kernel lacks {}, so a worker that a file has taken over is confined less.",
                                    after->sandbox->seccomp        ? "Landlock"
                                    : after->sandbox->landlock > 0 ? "seccomp filters"
                                                                   : "Landlock and seccomp filters");
        check.suggestion = "Use a kernel with both, such as that of Debian 12.";
    }
    return check;
}

}  // namespace

Surroundings examineSurroundings(const ServerRunner& runner) {
    Surroundings found;
    found.library = folderOfThisLibrary();
    found.version = buildVersion();
    found.bundle = runner.findResource(kMediaServerName, kBundleType).value_or("");
    if (!found.bundle.empty()) {
        found.brokenPrograms = brokenProgramsIn(found.bundle);
    }
    found.processesAreVisible = ProcessTable::ofThisUser().process(::getpid()).has_value() && pidNamespace() != 0;
    const char* const given = std::getenv("XDG_RUNTIME_DIR");
    found.givenRuntimeFolder = given ? given : "";
    found.runtimeFolder = runtimeFolder(kMediaServerName);
    found.runtimeFolderIsWritable = ::access(found.runtimeFolder.c_str(), W_OK | X_OK) == 0;
    found.record = readServiceRecord(found.runtimeFolder);
    found.recordIsTrue = found.record && isTrue(*found.record);
    found.lowestPort = PortNumbering::minimumPortNumber();
    found.highestPort = PortNumbering::maximumPortNumber();
    found.freePorts = freePortsOnLoopback(found.lowestPort, found.highestPort);
    found.loopbackCarriesMulticast = loopbackCarriesMulticast();
    found.systemBusResponds = systemBusResponds();
    return found;
}

std::vector<Check> checksOf(const Surroundings& found) {
    return {{.name = "version",
             .state = State::Good,
             .finding = fmt::format("This is version {} of the library, from {}.", found.version, found.library)},
            checkOfBundle(found),
            checkOfProcesses(found),
            checkOfRuntimeFolder(found),
            checkOfPorts(found),
            checkOfMulticast(found),
            checkOfBus(found)};
}

std::vector<Check> checksOfServer(const Surroundings& found, const Result<ServerStatus>& before,
                                  const Result<ServerStatus>& after, std::int64_t pid) {
    return {checkOfRecord(found, before.has_value()), checkOfServer(found, before, after),
            checkOfRegistration(after, pid), checkOfSandbox(after)};
}

Check checkOfConversion(const Result<Converted>& converted) {
    if (converted) {
        return {.name = "conversion", .state = State::Good, .finding = "A moment of silence was converted."};
    }
    return {.name = "conversion",
            .state = State::Problem,
            .finding = sentenceOf(converted.error()),
            .suggestion = converted.error().suggestion()};
}

}  // namespace krv
