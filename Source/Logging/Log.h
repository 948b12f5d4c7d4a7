#pragma once

#include <cstdint>
#include <string_view>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Logging/Logging.h>

/// Writing to the log from inside the library. Not installed: fmt stays out of the public headers.
namespace krv {

/// Where a line is written: the source and the operation, and what it needs to pass the gate.
struct LogSite {
    std::string_view file;
    Selector function;
    std::uint32_t mask = 0;
    LogContext context = kLogContextClient;
};

/// Whether a line with this flag passes now.
[[nodiscard]] bool logPasses(LogFlag flag, const LogSite& site) noexcept;
/// The level word that decides about a context now.
[[nodiscard]] std::uint32_t logLevelWord(LogContext context) noexcept;

}  // namespace krv

/// Formats and writes a line if it passes the gate; the arguments are not evaluated otherwise.
#define KRV_LOG(flag, site, ...)                                                                                       \
    do {                                                                                                               \
        const ::krv::LogSite& krvLogSite = (site);                                                                     \
        if (::krv::logPasses((flag), krvLogSite)) {                                                                    \
            ::krv::DDLog::log({::krv::logLevelWord(krvLogSite.context), (flag), krvLogSite.context, krvLogSite.file,   \
                               krvLogSite.function.name(), __LINE__, ::fmt::format(__VA_ARGS__)});                     \
        }                                                                                                              \
    } while (false)
