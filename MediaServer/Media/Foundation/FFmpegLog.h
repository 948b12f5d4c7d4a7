#pragma once

#include <cstdarg>
#include <string>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv::media {

/// FFmpeg's log, kept instead of printed. FFmpeg has one call-back for the process, so this is the process's
/// one instance; a worker runs one operation at a time, which is why the last lines belong to it. Any thread.
class FFmpegLog {
public:
    /// The instance; the first call takes the call-back over, after which FFmpeg prints nothing any more.
    static FFmpegLog& instance();

    /// Forgets what was logged so far. The worker calls it before each operation.
    void clear();
    /// The last line of level error, else the last warning, without FFmpeg's "[mov @ 0x…]" prefix; empty if
    /// none.
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
