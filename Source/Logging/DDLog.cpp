#include <condition_variable>
#include <deque>
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
    DDLog::Sink sink KRV_GUARDED_BY(mutex);
    bool busy KRV_GUARDED_BY(mutex) = false;
    std::deque<LogMessage> waiting KRV_GUARDED_BY(mutex);
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

}  // namespace

void DDLog::setSink(Sink sink) {
    Logger& l = logger();
    Sink old;
    const LockGuard lock(l.mutex);
    while (l.busy && !insideSink) {
        l.idle.wait(l.mutex);
    }
    old = std::exchange(l.sink, std::move(sink));
}

void DDLog::log(const LogMessage& message) {
    if (insideSink) {
        return;
    }
    Logger& l = logger();
    l.mutex.lock();
    if (l.waiting.size() < kMostWaiting) {
        l.waiting.push_back(message);
    }
    if (l.busy) {
        l.mutex.unlock();
        return;
    }
    l.busy = true;
    insideSink = true;
    while (!l.waiting.empty()) {
        const LogMessage next = std::move(l.waiting.front());
        l.waiting.pop_front();
        const Sink sink = l.sink;
        l.mutex.unlock();
        pass(sink, next);
        l.mutex.lock();
    }
    insideSink = false;
    l.busy = false;
    l.idle.notify_all();
    l.mutex.unlock();
}

}  // namespace krv
