#pragma once

#include <cstdint>
#include <functional>

extern "C" {
#include <libavformat/avio.h>
}

namespace krv::media {

/// Connects FFmpeg's I/O to an open file descriptor. It keeps its own position and uses pread and pwrite only. So
/// several instances, such as a writer and a reader of the same file, can share one descriptor. It borrows the
/// descriptor. Not thread-safe.
class DescriptorIO {
public:
    enum class Mode { Read, Write };

    /// activity is called after each transfer with the number of bytes and must not throw.
    DescriptorIO(int descriptor, Mode mode, std::function<void(std::int64_t bytes)> activity);
    ~DescriptorIO();
    DescriptorIO(const DescriptorIO&) = delete;
    DescriptorIO& operator=(const DescriptorIO&) = delete;

    [[nodiscard]] AVIOContext* context() const noexcept { return context_; }
    /// Makes all further reads return zeros without reading the file.
    void readZeros() noexcept { readsZeros_ = true; }
    /// Leaves room in a file that is being written: what FFmpeg writes from this position on lies behind the room,
    /// while FFmpeg counts its positions as if there were none.
    void leaveRoom(std::int64_t at, std::int64_t size) noexcept;
    /// Makes the kernel write to the disk what has been written so far while the work goes on, so that a flush at the
    /// end is short. For files in which little is written twice.
    void flushEarly() noexcept { flushesEarly_ = true; }
    /// Returns the errno of the first transfer that failed, or 0. FFmpeg often loses it on the way to its caller.
    [[nodiscard]] int errorNumber() const noexcept { return error_; }

private:
    static int readSome(void* opaque, std::uint8_t* buffer, int size);
    static int writeAll(void* opaque, std::uint8_t* buffer, int size);
    [[nodiscard]] std::int64_t place() const noexcept { return position_ + (position_ >= roomAt_ ? roomSize_ : 0); }
    void startFlush() noexcept;
    static std::int64_t seek(void* opaque, std::int64_t offset, int whence);

    int descriptor_;
    std::int64_t position_ = 0;
    int error_ = 0;
    bool readsZeros_ = false;
    bool flushesEarly_ = false;
    std::int64_t flushed_ = 0;
    std::int64_t roomAt_ = 0;
    std::int64_t roomSize_ = 0;
    std::function<void(std::int64_t)> activity_;
    AVIOContext* context_ = nullptr;
};

}  // namespace krv::media
