#pragma once

#include <atomic>
#include <cstdint>

#include <KRVQTProcessClient/Foundation/Export.h>

/// The logging gate, which decides whether a line is written. Thread-safe.
namespace krv {

/// The level of a line. A level word is a sum of flags.
enum LogFlag : std::uint32_t { kLogFlagError = 1, kLogFlagWarning = 2, kLogFlagInfo = 4, kLogFlagVerbose = 8 };

/// The context of a line selects the level word with which it is checked.
enum LogContext : int { kLogContextClient = 8, kLogContextApplication = 32 };

/// Masks that some lines require in additionalApplicationLogLevel in addition to their flag.
inline constexpr std::uint32_t kLoggingHTTPMessaging = 1U << 0;
inline constexpr std::uint32_t kLoggingHTTPDiscovery = 1U << 1;
inline constexpr std::uint32_t kLoggingDebug = 1U << 2;

/// The values of the gate. All are initially zero, so the library logs nothing until an application changes them.
KRV_EXPORT extern std::atomic<bool> krv_loggingEnabled;
KRV_EXPORT extern std::atomic<std::uint32_t> qtClientLogLevel;
KRV_EXPORT extern std::atomic<std::uint32_t> applicationLogLevel;
KRV_EXPORT extern std::atomic<std::uint32_t> additionalApplicationLogLevel;

/// Verbosity of the logged messages between client and server.
class KRV_EXPORT Logging {
public:
    /// At 15 and above, payloads and the connections of housekeeping operations are logged too. Default 0.
    [[nodiscard]] static std::int32_t quicktimeLoggingLevel() noexcept;
    static void setQuicktimeLoggingLevel(std::int32_t level) noexcept;
};

}  // namespace krv
