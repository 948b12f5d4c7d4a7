#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Selector.h>

/// The logging gate and the logger behind it. All of it may be used from any thread.
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

/// One line that has passed the gate.
struct LogMessage {
    std::uint32_t level;
    LogFlag flag;
    LogContext context;
    /// Path of the source without its ending, such as "Source/Client/ReliabilityProxy".
    std::string_view file;
    /// The selector name of the operation that writes the line.
    std::string_view function;
    int line;
    std::string text;
};

/// The logger: hands each line synchronously to one sink.
class KRV_EXPORT DDLog {
public:
    using Sink = std::function<void(const LogMessage&)>;

    /// Replaces the sink; an empty one brings back the default, which writes one line to standard error. The sink
    /// is called on the thread that logs, never by two threads at once, and what it throws is dropped. A line that
    /// the sink itself causes is dropped.
    static void setSink(Sink sink);

    /// Hands a line to the sink, whatever the gate says.
    static void log(const LogMessage& message);
};

/// Verbosity of the message traffic.
class KRV_EXPORT Logging {
public:
    /// 15 and above adds payload lines and the connection lines of housekeeping operations. 0 at start.
    [[nodiscard]] static std::int32_t quicktimeLoggingLevel() noexcept;
    static void setQuicktimeLoggingLevel(std::int32_t level) noexcept;
};

}  // namespace krv
