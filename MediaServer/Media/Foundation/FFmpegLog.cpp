#include <algorithm>
#include <array>
#include <string_view>

#include <MediaServer/Media/Foundation/FFmpegLog.h>

extern "C" {
#include <libavutil/log.h>
}

namespace krv::media {
namespace {

/// Strips the prefix of lines such as "[mov,mp4 @ 0x55d0] moov atom not found".
std::string_view withoutPrefix(std::string_view line) {
    while (line.starts_with('[')) {
        const auto end = line.find("] ");
        if (end == std::string_view::npos) {
            break;
        }
        line.remove_prefix(end + 2);
    }
    return line;
}

}  // namespace

FFmpegLog& FFmpegLog::instance() {
    static auto* const log = new FFmpegLog();  // never destroyed: codec threads may log until the process exits
    return *log;
}

FFmpegLog::FFmpegLog() {
    av_log_set_level(AV_LOG_WARNING);
}

void FFmpegLog::clear() {
    av_log_set_callback(&FFmpegLog::receive);
    const LockGuard lock(mutex_);
    partial_.clear();
    error_.clear();
    warning_.clear();
}

std::string FFmpegLog::lastMeaningfulLine() const {
    const LockGuard lock(mutex_);
    return error_.empty() ? warning_ : error_;
}

void FFmpegLog::receive(void* object, int level, const char* format, va_list arguments) {
    if (level <= AV_LOG_WARNING) {
        instance().add(object, level, format, arguments);
    }
}

void FFmpegLog::add(void* object, int level, const char* format, va_list arguments) {
    std::array<char, 1024> text{};
    const LockGuard lock(mutex_);
    int withPrefix = partial_.empty() ? 1 : 0;
    if (av_log_format_line2(object, level, format, arguments, text.data(), static_cast<int>(text.size()), &withPrefix) <
        0) {
        return;
    }
    partial_ += text.data();
    if (!partial_.ends_with('\n') && partial_.size() < 4096) {
        return;
    }
    std::string line(withoutPrefix(partial_));
    partial_.clear();
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < 0x20; }, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    if (!line.empty()) {
        (level <= AV_LOG_ERROR ? error_ : warning_) = std::move(line);
    }
}

}  // namespace krv::media
