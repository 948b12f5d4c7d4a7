#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Logging/Logging.h>

namespace krv {

/// One line that has passed the gate.
struct LogMessage {
    std::uint32_t level;
    LogFlag flag;
    LogContext context;
    /// Path of the source file without its extension, such as "Source/Client/ReliabilityProxy".
    std::string_view file;
    /// Selector name of the operation that writes the line.
    std::string_view function;
    int line;
    std::string text;
};

/// Passes each line synchronously to one sink. Thread-safe.
class KRV_EXPORT DDLog {
public:
    using Sink = std::function<void(const LogMessage&)>;

    /// Replaces the sink. An empty one restores the default, which writes to standard error. The sink is called on the
    /// thread that logs, by one thread at a time. Exceptions of the sink, and lines that the sink itself logs, are
    /// dropped.
    static void setSink(Sink sink);

    /// Passes a line to the sink, without checking the gate.
    static void log(const LogMessage& message);
};

}  // namespace krv
