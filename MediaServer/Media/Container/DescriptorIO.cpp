#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {
namespace {

constexpr int kBufferSize = 256 * 1024;

/// Large enough for a disk to write it in one piece.
constexpr std::int64_t kFlushedAtOnce = std::int64_t{8} << 20;

}  // namespace

DescriptorIO::DescriptorIO(int descriptor, Mode mode, std::function<void(std::int64_t)> activity)
    : descriptor_(descriptor)
    , activity_(std::move(activity)) {
    auto* buffer = static_cast<std::uint8_t*>(notNull(av_malloc(kBufferSize)));
    const bool writes = mode == Mode::Write;
    context_ = avio_alloc_context(buffer, kBufferSize, writes ? 1 : 0, this, writes ? nullptr : &readSome,
                                  writes ? &writeAll : nullptr, &seek);
    if (!context_) {
        av_free(buffer);
        throw std::bad_alloc();
    }
    context_->min_packet_size = kBufferSize;  // otherwise FFmpeg writes every packet by itself
}

DescriptorIO::~DescriptorIO() {
    av_freep(&context_->buffer);  // FFmpeg may have replaced the buffer
    avio_context_free(&context_);
}

int DescriptorIO::readSome(void* opaque, std::uint8_t* buffer, int size) {
    auto& self = *static_cast<DescriptorIO*>(opaque);
    if (self.readsZeros_) {
        std::memset(buffer, 0, static_cast<std::size_t>(size));
        self.position_ += size;
        self.activity_(size);
        return size;
    }
    for (;;) {
        const ssize_t got = pread(self.descriptor_, buffer, static_cast<std::size_t>(size), self.position_);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            if (self.error_ == 0) {
                self.error_ = errno;
            }
            return AVERROR(errno);
        }
        if (got == 0) {
            return AVERROR_EOF;
        }
        self.position_ += got;
        self.activity_(got);
        return static_cast<int>(got);
    }
}

int DescriptorIO::writeAll(void* opaque, std::uint8_t* buffer, int size) {
    auto& self = *static_cast<DescriptorIO*>(opaque);
    for (int written = 0; written < size;) {
        const ssize_t put =
            pwrite(self.descriptor_, buffer + written, static_cast<std::size_t>(size - written), self.place());
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            if (self.error_ == 0) {
                self.error_ = put < 0 ? errno : ENOSPC;
            }
            return AVERROR(self.error_);
        }
        written += static_cast<int>(put);
        self.position_ += put;
        self.activity_(put);
    }
    if (self.flushesEarly_) {
        self.startFlush();
    }
    return size;
}

void DescriptorIO::leaveRoom(std::int64_t at, std::int64_t size) noexcept {
    roomAt_ = at;
    roomSize_ = size;
}

void DescriptorIO::startFlush() noexcept {
    const std::int64_t end = place();
    if (end >= flushed_ + kFlushedAtOnce) {
        sync_file_range(descriptor_, flushed_, end - flushed_, SYNC_FILE_RANGE_WRITE);
        flushed_ = end;
    }
}

std::int64_t DescriptorIO::seek(void* opaque, std::int64_t offset, int whence) {
    auto& self = *static_cast<DescriptorIO*>(opaque);
    const int how = whence & ~AVSEEK_FORCE;
    std::int64_t base = 0;
    if (how == AVSEEK_SIZE || how == SEEK_END) {
        struct stat status {};
        if (fstat(self.descriptor_, &status) != 0) {
            return AVERROR(errno);
        }
        if (how == AVSEEK_SIZE) {
            return status.st_size - self.roomSize_;
        }
        base = status.st_size - self.roomSize_;
    } else if (how == SEEK_CUR) {
        base = self.position_;
    } else if (how != SEEK_SET) {
        return AVERROR(EINVAL);
    }
    std::int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) {
        return AVERROR(EINVAL);
    }
    self.position_ = target;
    return target;
}

}  // namespace krv::media
