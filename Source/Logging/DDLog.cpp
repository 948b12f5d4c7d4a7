#include <condition_variable>
#include <list>
#include <memory>
#include <new>
#include <utility>

#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Logging/DDLog.h>

namespace krv {
namespace {

/// How many lines may wait for a busy sink. Later ones are dropped, because a sink may hang.
constexpr std::size_t kMostWaiting = 10'000;

/// The sink is called without the lock. A thread that logs while another one is in the sink leaves its line to that one
/// instead of waiting: it may hold a lock that the sink's thread needs before it returns, for instance because the sink
/// asks for the shared client.
struct Logger {
    Mutex mutex;
    std::condition_variable_any idle;
    std::shared_ptr<const DDLog::Sink> sink KRV_GUARDED_BY(mutex) = std::make_shared<const DDLog::Sink>();
    bool busy KRV_GUARDED_BY(mutex) = false;
    std::list<LogMessage> waiting KRV_GUARDED_BY(mutex);
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

void pass(const DDLog::Sink& sink, const LogMessage& message) {
    try {
        if (sink) {
            sink(message);
        } else {
            writeToStandardError(message);
        }
    } catch (...) {
        // The line of a failing sink is lost. Logging must not change the behaviour of the logged operation.
    }
}

/// Queues the line. Returns whether the calling thread must pass the queued lines on.
bool queue(Logger& l, const LogMessage& message) {
    std::list<LogMessage> line{message};
    const LockGuard lock(l.mutex);
    if (l.waiting.size() < kMostWaiting) {
        l.waiting.splice(l.waiting.end(), line);
    }
    return !std::exchange(l.busy, true);
}

/// Takes the next queued line. If there is none, leaves the sink to others and returns false.
bool takeNext(Logger& l, std::list<LogMessage>& next, std::shared_ptr<const DDLog::Sink>& sink) {
    next.clear();
    sink.reset();
    const LockGuard lock(l.mutex);
    if (l.waiting.empty()) {
        l.busy = false;
        l.idle.notify_all();
        return false;
    }
    next.splice(next.end(), l.waiting, l.waiting.begin());
    sink = l.sink;
    return true;
}

}  // namespace

void DDLog::setSink(Sink sink) {
    Logger& l = logger();
    auto other = std::make_shared<const Sink>(std::move(sink));
    const LockGuard lock(l.mutex);
    while (l.busy && !insideSink) {
        l.idle.wait(l.mutex);
    }
    l.sink.swap(other);
}

void DDLog::log(const LogMessage& message) {
    if (insideSink) {
        return;
    }
    Logger& l = logger();
    try {
        if (!queue(l, message)) {
            return;
        }
    } catch (const std::bad_alloc&) {
        return;  // the line is lost, as with a failing sink
    }
    insideSink = true;
    std::list<LogMessage> next;
    std::shared_ptr<const Sink> sink;
    while (takeNext(l, next, sink)) {
        pass(*sink, next.front());
    }
    insideSink = false;
}

}  // namespace krv
