#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Logging/Logging.h>

namespace krv {

/// Enables logging and records the lines, for tests. The destructor restores the defaults. One object at a time.
///
/// By default every level passes, and only lines that require no mask.
class LogRecorder {
public:
    explicit LogRecorder(std::uint32_t level = 15, std::uint32_t additional = 0)
        : level_(level) {
        krv_loggingEnabled = true;
        qtClientLogLevel = levelOf(kLogContextClient);
        applicationLogLevel = levelOf(kLogContextApplication);
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
    /// Returns each line with its origin, "info client Source/Client/ServerRunner goingToSleep: | Nap time". LinesOf
    /// makes the lines to compare with. A line that was checked with the level word of another context says so.
    [[nodiscard]] std::vector<std::string> whole() const {
        std::vector<std::string> whole;
        for (const Line& line : lines_) {
            whole.push_back(flagName(line.flag) + " " + contextName(line.context) + " " + line.file + " " +
                            line.function + " | " + line.text);
            if (line.level != levelOf(line.context)) {
                whole.back() += " (level word " + std::to_string(line.level) + ")";
            }
        }
        return whole;
    }
    [[nodiscard]] std::vector<std::string> texts() const {
        std::vector<std::string> texts;
        for (const Line& line : lines_) {
            texts.push_back(line.text);
        }
        return texts;
    }
    void clear() { lines_.clear(); }

private:
    static std::string flagName(LogFlag flag) {
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
        return "flag " + std::to_string(flag);
    }
    static std::string contextName(LogContext context) {
        return context == kLogContextClient        ? "client"
               : context == kLogContextApplication ? "application"
                                                   : "context " + std::to_string(context);
    }
    /// Returns the level word of a context. The two differ in a bit that no flag uses.
    [[nodiscard]] std::uint32_t levelOf(LogContext context) const {
        return context == kLogContextApplication ? level_ | 0x100U : level_;
    }

    const std::uint32_t level_;
    std::vector<Line> lines_;
};

/// The lines of one source file in one context, as LogRecorder::whole() returns them.
///
///     constexpr LinesOf kRunner("Source/Client/ServerRunner");
///     EXPECT_THAT(log.whole(), ElementsAre(kRunner.info("goingToSleep:", "Nap time. Turning off monitoring")));
class LinesOf {
public:
    explicit constexpr LinesOf(std::string_view file, std::string_view context = "client")
        : file_(file)
        , context_(context) {}

    [[nodiscard]] std::string error(std::string_view function, std::string_view text) const {
        return line("error", function, text);
    }
    [[nodiscard]] std::string warning(std::string_view function, std::string_view text) const {
        return line("warning", function, text);
    }
    [[nodiscard]] std::string info(std::string_view function, std::string_view text) const {
        return line("info", function, text);
    }
    [[nodiscard]] std::string verbose(std::string_view function, std::string_view text) const {
        return line("verbose", function, text);
    }

private:
    [[nodiscard]] std::string line(std::string_view flag, std::string_view function, std::string_view text) const {
        std::string line;
        for (const std::string_view part : {flag, std::string_view(" "), context_, std::string_view(" "), file_,
                                            std::string_view(" "), function, std::string_view(" | "), text}) {
            line += part;
        }
        return line;
    }

    std::string_view file_;
    std::string_view context_;
};

}  // namespace krv
