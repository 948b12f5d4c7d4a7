#pragma once

#include <array>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace krv::test {

/// A mounted file system that never responds, like a network share whose server is gone: whoever looks up a name in it
/// blocks in the kernel until he is killed or the mount responds.
///
/// It is a FUSE mount of this process, which answers the first request, that of the kernel itself, and no other. Needs
/// root, in a mount namespace of its own.
class DeadMount {
public:
    explicit DeadMount(std::filesystem::path place)
        : place_(std::move(place)) {
        std::filesystem::create_directory(place_);
        device_ = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const std::string options =
            fmt::format("fd={},rootmode={:o},user_id={},group_id={}", device_, S_IFDIR, ::getuid(), ::getgid());
        mounted_ = device_ >= 0 &&
                   ::mount("dead", place_.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0 && answerFirst();
    }
    ~DeadMount() {
        respond();
        ::umount2(place_.c_str(), MNT_DETACH);
        std::error_code ignored;
        std::filesystem::remove(place_, ignored);
    }
    DeadMount(const DeadMount&) = delete;
    DeadMount& operator=(const DeadMount&) = delete;

    [[nodiscard]] bool isMounted() const { return mounted_; }
    [[nodiscard]] std::string file(const std::string& name) const { return (place_ / name).string(); }
    /// Waits for a request and takes it without answering. Its process cannot be killed any more until respond().
    void takeRequest() const {
        std::array<char, FUSE_MIN_READ_BUFFER> request{};
        [[maybe_unused]] const auto count = ::read(device_, request.data(), request.size());
    }
    /// Fails all requests that wait, and all later ones.
    void respond() {
        if (device_ >= 0) {
            ::close(device_);
            device_ = -1;
        }
    }

private:
    bool answerFirst() const {
        std::array<char, FUSE_MIN_READ_BUFFER> request{};
        if (::read(device_, request.data(), request.size()) <= 0) {
            return false;
        }
        fuse_in_header in{};
        std::memcpy(&in, request.data(), sizeof in);
        struct {
            fuse_out_header header;
            fuse_init_out body;
        } answer{};
        answer.header = {.len = sizeof answer, .error = 0, .unique = in.unique};
        answer.body.major = FUSE_KERNEL_VERSION;
        answer.body.minor = FUSE_KERNEL_MINOR_VERSION;
        answer.body.max_write = 4096;
        return in.opcode == FUSE_INIT && ::write(device_, &answer, sizeof answer) == sizeof answer;
    }

    const std::filesystem::path place_;
    int device_ = -1;
    bool mounted_ = false;
};

}  // namespace krv::test
