#pragma once

#include <cstdint>
#include <functional>

extern "C" {
#include <libavformat/avio.h>
}

namespace krv::media {

/// FFmpeg's I/O over an open file descriptor. It keeps a position of its own and uses pread and pwrite only,
/// so that several of them, a writer and a reader of the same file for instance, share one descriptor without
/// disturbing one another. The descriptor is not owned. One thread.
class DescriptorIO {
public:
    enum class Mode { Read, Write };

    /// activity is called after each transfer with the number of bytes; it must not throw.
    DescriptorIO(int descriptor, Mode mode, std::function<void(std::int64_t bytes)> activity);
    ~DescriptorIO();
    DescriptorIO(const DescriptorIO&) = delete;
    DescriptorIO& operator=(const DescriptorIO&) = delete;

    [[nodiscard]] AVIOContext* context() const noexcept { return context_; }
    /// From now on what is read is zeros, and the file is left alone.
    void blind() noexcept { blind_ = true; }
    /// errno of the first transfer that failed; 0 if none did. FFmpeg tends to forget it on the way up.
    [[nodiscard]] int errorNumber() const noexcept { return error_; }

private:
    static int readSome(void* opaque, std::uint8_t* buffer, int size);
    static int writeAll(void* opaque, std::uint8_t* buffer, int size);
    static std::int64_t seek(void* opaque, std::int64_t offset, int whence);

    int descriptor_;
    std::int64_t position_ = 0;
    int error_ = 0;
    bool blind_ = false;
    std::function<void(std::int64_t)> activity_;
    AVIOContext* context_ = nullptr;
};

}  // namespace krv::media
