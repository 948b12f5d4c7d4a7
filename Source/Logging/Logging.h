#pragma once

#include <atomic>
#include <cstdint>

#include <KRVQTProcessClient/Foundation/Export.h>

/// The logging gate: which lines are written. Thread-safe.
namespace krv {

/// The flag of a line; a level word is a sum of flags.
enum LogFlag : std::uint32_t { kLogFlagError = 1, kLogFlagWarning = 2, kLogFlagInfo = 4, kLogFlagVerbose = 8 };

/// The context of a line: whose level word decides about it.
enum LogContext : int { kLogContextClient = 8, kLogContextApplication = 32 };

/// Masks that some lines need in additionalApplicationLogLevel besides their flag.
inline constexpr std::uint32_t kLoggingHTTPMessaging = 1U << 0;
inline constexpr std::uint32_t kLoggingHTTPDiscovery = 1U << 1;
inline constexpr std::uint32_t kLoggingDebug = 1U << 2;

/// The values of the gate. All are zero at start, so the library is silent until it is asked to speak.
KRV_EXPORT extern std::atomic<bool> krv_loggingEnabled;
KRV_EXPORT extern std::atomic<std::uint32_t> qtClientLogLevel;
KRV_EXPORT extern std::atomic<std::uint32_t> applicationLogLevel;
KRV_EXPORT extern std::atomic<std::uint32_t> additionalApplicationLogLevel;

/// Verbosity of the message traffic.
class KRV_EXPORT Logging {
public:
    /// 15 and above adds payload lines and the connection lines of housekeeping operations. 0 at start.
    [[nodiscard]] static std::int32_t quicktimeLoggingLevel() noexcept;
    static void setQuicktimeLoggingLevel(std::int32_t level) noexcept;
};

}  // namespace krv
