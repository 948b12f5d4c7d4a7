#pragma once

#include <cstdarg>
#include <string>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv::media {

/// Keeps the last lines of FFmpeg's log instead of printing them. FFmpeg has one log callback per process, hence one
/// instance. A worker runs one operation at a time, so the lines belong to that operation. Thread-safe.
class FFmpegLog {
public:
    /// Returns the instance.
    static FFmpegLog& instance();

    /// Forgets the lines so far. Also installs the log callback, after which FFmpeg prints nothing. The worker calls it
    /// before each operation.
    void clear();
    /// Returns the last error, or the last warning if there was no error, without FFmpeg's "[mov @ 0x…]" prefix.
    /// Returns an empty string if there was neither.
    [[nodiscard]] std::string lastMeaningfulLine() const;

private:
    FFmpegLog();
    static void receive(void* object, int level, const char* format, va_list arguments);
    void add(void* object, int level, const char* format, va_list arguments);

    mutable Mutex mutex_;
    std::string partial_ KRV_GUARDED_BY(mutex_);
    std::string error_ KRV_GUARDED_BY(mutex_);
    std::string warning_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::media
