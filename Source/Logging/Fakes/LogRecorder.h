#pragma once

#include <string>
#include <vector>

#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Logging/Logging.h>

namespace krv {

/// Enables logging and records the lines, for tests. The destructor restores the defaults. One object at a time.
class LogRecorder {
public:
    explicit LogRecorder(std::uint32_t level = 15, std::uint32_t additional = 7) {
        krv_loggingEnabled = true;
        qtClientLogLevel = level;
        applicationLogLevel = level;
        additionalApplicationLogLevel = additional;
        DDLog::setSink([this](const LogMessage& message) {
            lines_.push_back({message.flag, message.context, message.level, std::string(message.file),
                              std::string(message.function), message.text});
        });
    }
    ~LogRecorder() {
        krv_loggingEnabled = false;
        qtClientLogLevel = 0;
        applicationLogLevel = 0;
        additionalApplicationLogLevel = 0;
        Logging::setQuicktimeLoggingLevel(0);
        DDLog::setSink({});
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    struct Line {
        LogFlag flag;
        LogContext context;
        std::uint32_t level;
        std::string file;
        std::string function;
        std::string text;
    };

    [[nodiscard]] const std::vector<Line>& lines() const { return lines_; }
    [[nodiscard]] std::vector<std::string> texts() const {
        std::vector<std::string> texts;
        for (const Line& line : lines_) {
            texts.push_back(line.text);
        }
        return texts;
    }
    void clear() { lines_.clear(); }

private:
    std::vector<Line> lines_;
};

}  // namespace krv
