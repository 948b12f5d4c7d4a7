#include <utility>

#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Logging/DDLog.h>

namespace krv {
namespace {

struct Logger {
    Mutex mutex;
    DDLog::Sink sink KRV_GUARDED_BY(mutex);
};

Logger& logger() {
    static auto* instance = new Logger;  // never destroyed: lines may be written until the process exits
    return *instance;
}

thread_local bool insideSink = false;

std::string_view flagName(LogFlag flag) {
    switch (flag) {
    case kLogFlagError:
        return "error";
    case kLogFlagWarning:
        return "warning";
    case kLogFlagInfo:
        return "info";
    case kLogFlagVerbose:
        return "verbose";
    }
    return "log";
}

void writeToStandardError(const LogMessage& message) {
    const std::string line = fmt::format("[{}] {} {}:{}: {}\n", flagName(message.flag), message.function, message.file,
                                         message.line, message.text);
    // One write per line, so that lines of several threads and processes do not mix.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

void DDLog::setSink(Sink sink) {
    Logger& l = logger();
    Sink old;
    {
        const LockGuard lock(l.mutex);
        old = std::exchange(l.sink, std::move(sink));
    }
}

void DDLog::log(const LogMessage& message) {
    if (insideSink) {
        return;
    }
    insideSink = true;
    try {
        Logger& l = logger();
        const LockGuard lock(l.mutex);
        if (l.sink) {
            l.sink(message);
        } else {
            writeToStandardError(message);
        }
    } catch (...) {
        // The line of a failing sink is lost. Logging must not change the behaviour of the logged operation.
    }
    insideSink = false;
}

}  // namespace krv
