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

/// Passes each line to one sink. Thread-safe.
class KRV_EXPORT DDLog {
public:
    using Sink = std::function<void(const LogMessage&)>;

    /// Replaces the sink, after the old one has returned. An empty one restores the default, which writes to standard
    /// error. The sink is called by one thread at a time, without a lock held: by the thread that logs, or, for a line
    /// that is logged meanwhile, by the thread that is in the sink. So the sink may call the library. Exceptions of the
    /// sink, and lines that the sink itself logs, are dropped; so are lines beyond 10,000 that wait for a sink.
    static void setSink(Sink sink);

    /// Passes a line to the sink, without checking the gate.
    static void log(const LogMessage& message);
};

}  // namespace krv
