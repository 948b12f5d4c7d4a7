#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Jobs/Diagnosis.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>
#include <KRVQTProcessClient/Jobs/Result.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

namespace krv {

/// What the library itself can see of the machine, without a server.
struct Surroundings {
    /// Path of the library's folder, and its version.
    std::string library{};
    std::string version{};
    /// The server's bundle; empty if there is none.
    std::string bundle{};
    /// The programs in the bundle that cannot be executed.
    std::vector<std::string> brokenPrograms{};
    bool processesAreVisible = false;
    /// As $XDG_RUNTIME_DIR says; empty if it is unset.
    std::string givenRuntimeFolder{};
    /// The one in use; empty if there is none.
    std::string runtimeFolder{};
    bool runtimeFolderIsWritable = false;
    /// The record of a server that has or had these ports.
    std::optional<ServiceRecord> record{};
    bool recordIsTrue = false;
    std::int32_t lowestPort = 0;
    std::int32_t highestPort = 0;
    int freePorts = 0;
    bool loopbackCarriesMulticast = false;
    bool systemBusResponds = false;
};

/// Examines this machine. Takes up to half a second. Thread-safe.
[[nodiscard]] Surroundings examineSurroundings(const ServerRunner& runner);

/// Returns what the surroundings mean for conversions. Pure.
[[nodiscard]] std::vector<Check> checksOf(const Surroundings& surroundings);

/// Returns what the server's status before and after the conversion means. pid: this process. Pure.
[[nodiscard]] std::vector<Check> checksOfServer(const Surroundings& surroundings, const Result<ServerStatus>& before,
                                                const Result<ServerStatus>& after, std::int64_t pid);

/// Returns what the conversion that was tried means. Pure.
[[nodiscard]] Check checkOfConversion(const Result<Converted>& converted);

}  // namespace krv
