#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {
namespace {

constexpr int kBufferSize = 256 * 1024;

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
            pwrite(self.descriptor_, buffer + written, static_cast<std::size_t>(size - written), self.position_);
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
    return size;
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
            return status.st_size;
        }
        base = status.st_size;
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
