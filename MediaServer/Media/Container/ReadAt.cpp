#include <cerrno>
#include <optional>

#include <unistd.h>

#include <MediaServer/Media/Container/ReadAt.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// Transfers the bytes part by part. Returns how many there were before the file ended, or nothing and errno.
template <typename Byte, typename Transfer>
std::optional<std::size_t> transfer(std::span<Byte> bytes, std::int64_t offset, const Transfer& part) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t now = part(bytes.data() + done, bytes.size() - done, offset + static_cast<std::int64_t>(done));
        if (now < 0 && errno == EINTR) {
            continue;
        }
        if (now < 0) {
            return std::nullopt;
        }
        if (now == 0) {
            break;
        }
        done += static_cast<std::size_t>(now);
    }
    return done;
}

std::optional<std::size_t> readSome(int descriptor, std::span<std::byte> bytes, std::int64_t offset) {
    return transfer(bytes, offset, [descriptor](std::byte* to, std::size_t size, std::int64_t at) {
        return ::pread(descriptor, to, size, at);
    });
}

/// Returns whether all of it was transferred. If not, and without another error, sets errno to this one.
bool isWhole(std::optional<std::size_t> done, std::size_t all, int otherwise) {
    if (done && *done < all) {
        errno = otherwise;
    }
    return done == all;
}

}  // namespace

bool readAll(int descriptor, std::span<std::byte> bytes, std::int64_t offset) {
    return isWhole(readSome(descriptor, bytes, offset), bytes.size(), EIO);
}

bool writeAll(int descriptor, std::span<const std::byte> bytes, std::int64_t offset) {
    const auto write = [descriptor](const std::byte* from, std::size_t size, std::int64_t at) {
        return ::pwrite(descriptor, from, size, at);
    };
    return isWhole(transfer(bytes, offset, write), bytes.size(), ENOSPC);
}

ReadAt readAtDescriptor(int descriptor) {
    return [descriptor](std::int64_t offset, std::span<std::byte> bytes) {
        const auto done = readSome(descriptor, bytes, offset);
        if (!done) {
            throw Failure({.cause = FailureCause::UnreadableSource, .errorNumber = errno});
        }
        return *done == bytes.size();
    };
}

}  // namespace krv::media
