#pragma once

#include <cstdint>
#include <string_view>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Logging/Logging.h>

/// Logging from inside the library. Not installed, because fmt must stay out of the public headers.
namespace krv {

/// The origin of a line: source file and operation, and the masks and the context with which it is checked.
struct LogSite {
    std::string_view file;
    Selector function;
    std::uint32_t mask = 0;
    LogContext context = kLogContextClient;
};

/// Returns whether a line with this flag passes the gate now.
[[nodiscard]] bool logPasses(LogFlag flag, const LogSite& site) noexcept;
/// Returns the present level word of a context.
[[nodiscard]] std::uint32_t logLevelWord(LogContext context) noexcept;

}  // namespace krv

/// Formats and writes a line if it passes the gate. Otherwise the arguments are not evaluated.
#define KRV_LOG(flag, site, ...)                                                                                       \
    do {                                                                                                               \
        const ::krv::LogSite& krvLogSite = (site);                                                                     \
        if (::krv::logPasses((flag), krvLogSite)) {                                                                    \
            ::krv::DDLog::log({::krv::logLevelWord(krvLogSite.context), (flag), krvLogSite.context, krvLogSite.file,   \
                               krvLogSite.function.name(), __LINE__, ::fmt::format(__VA_ARGS__)});                     \
        }                                                                                                              \
    } while (false)
