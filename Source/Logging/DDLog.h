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

}  // namespace krv
