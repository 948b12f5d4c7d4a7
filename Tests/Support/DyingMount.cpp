#include "DyingMount.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <fmt/format.h>

namespace krv::test {
namespace {

constexpr std::uint64_t kFolder = FUSE_ROOT_ID;
constexpr std::uint64_t kFile = 2;

fuse_attr attributesOf(std::uint64_t node, std::size_t size) {
    fuse_attr attributes{};
    attributes.ino = node;
    attributes.nlink = 1;
    attributes.mode = node == kFolder ? S_IFDIR | 0755 : S_IFREG | 0644;
    attributes.size = node == kFolder ? 0 : size;
    attributes.blksize = 4096;
    return attributes;
}

/// Returns the part of a request that follows its header.
template <typename Body>
Body bodyOf(const std::byte* request) {
    Body body{};
    std::memcpy(&body, request + sizeof(fuse_in_header), sizeof body);
    return body;
}

}  // namespace

DyingMount::DyingMount(std::filesystem::path place, const std::string& movie, DiesAt diesAt)
    : place_(std::move(place))
    , fatal_(diesAt == DiesAt::Read ? FUSE_READ : FUSE_FLUSH)
    , stop_(::eventfd(0, EFD_CLOEXEC)) {
    std::ifstream in(movie, std::ios::binary);
    contents_.assign(std::istreambuf_iterator<char>(in), {});
    std::filesystem::create_directory(place_);
    device_ = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options =
        fmt::format("fd={},rootmode={:o},user_id={},group_id={}", device_, S_IFDIR, ::getuid(), ::getgid());
    mounted_ = device_ >= 0 && ::mount("dying", place_.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
    if (mounted_) {
        thread_ = std::thread([this] { serve(); });
    }
}

DyingMount::~DyingMount() {
    respond();
    ::umount2(place_.c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove(place_, ignored);
    ::close(stop_);
}

void DyingMount::respond() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(stop_, &one, sizeof one);
        thread_.join();
    }
    if (device_ >= 0) {
        ::close(device_);
        device_ = -1;
    }
}

void DyingMount::serve() {
    std::array<std::byte, FUSE_MIN_READ_BUFFER> request{};
    for (;;) {
        std::array<pollfd, 2> waiting{{{device_, POLLIN, 0}, {stop_, POLLIN, 0}}};
        ::poll(waiting.data(), waiting.size(), -1);
        if (waiting[1].revents != 0) {
            return;
        }
        if (::read(device_, request.data(), request.size()) >= static_cast<ssize_t>(sizeof(fuse_in_header))) {
            answer(request.data());
        }
    }
}

void DyingMount::answer(const std::byte* request) {
    fuse_in_header in{};
    std::memcpy(&in, request, sizeof in);
    if (in.opcode == fatal_ || dead_) {
        dead_ = true;
        return;
    }
    switch (in.opcode) {
    case FUSE_INIT: {
        fuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = FUSE_KERNEL_MINOR_VERSION;
        out.max_write = 4096;
        return reply(in.unique, 0, &out, sizeof out);
    }
    case FUSE_LOOKUP: {
        if (std::strcmp(reinterpret_cast<const char*>(request) + sizeof in, "movie.mov") != 0) {
            return reply(in.unique, ENOENT, nullptr, 0);
        }
        fuse_entry_out out{};
        out.nodeid = kFile;
        out.attr = attributesOf(kFile, contents_.size());
        return reply(in.unique, 0, &out, sizeof out);
    }
    case FUSE_GETATTR: {
        fuse_attr_out out{};
        out.attr = attributesOf(in.nodeid, contents_.size());
        return reply(in.unique, 0, &out, sizeof out);
    }
    case FUSE_OPEN: {
        const fuse_open_out out{};
        return reply(in.unique, 0, &out, sizeof out);
    }
    case FUSE_READ: {
        const auto body = bodyOf<fuse_read_in>(request);
        const std::size_t start = std::min<std::size_t>(body.offset, contents_.size());
        return reply(in.unique, 0, contents_.data() + start,
                     std::min<std::size_t>(body.size, contents_.size() - start));
    }
    case FUSE_FLUSH:
    case FUSE_RELEASE:
        return reply(in.unique, 0, nullptr, 0);
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
        return;  // no answer is expected
    default:
        return reply(in.unique, ENOSYS, nullptr, 0);
    }
}

void DyingMount::reply(std::uint64_t request, int error, const void* body, std::size_t size) const {
    fuse_out_header header{};
    header.len = static_cast<std::uint32_t>(sizeof header + size);
    header.error = -error;
    header.unique = request;
    const std::array<iovec, 2> parts{{{&header, sizeof header}, {const_cast<void*>(body), size}}};
    [[maybe_unused]] const auto written = ::writev(device_, parts.data(), size > 0 ? 2 : 1);
}

}  // namespace krv::test
