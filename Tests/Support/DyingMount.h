#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace krv::test {

/// A mounted file system with one file, "movie.mov", that stops responding at the first request of a kind, like a
/// network share whose server dies. Requests that it has taken block their processes, which cannot be killed, until
/// respond().
///
/// It is a FUSE mount of this process, which serves it on a thread. Needs root, in a mount namespace of its own. The
/// thread that serves it must not be blocked, so this process must not access the mount.
class DyingMount {
public:
    enum class DiesAt { Read, Close };

    /// movie: the file whose contents it has.
    DyingMount(std::filesystem::path place, const std::string& movie, DiesAt diesAt);
    ~DyingMount();
    DyingMount(const DyingMount&) = delete;
    DyingMount& operator=(const DyingMount&) = delete;

    [[nodiscard]] bool isMounted() const { return mounted_; }
    [[nodiscard]] std::string file() const { return (place_ / "movie.mov").string(); }
    /// Returns whether it has stopped responding.
    [[nodiscard]] bool isDead() const { return dead_; }
    /// Fails all requests that wait, and all later ones.
    void respond();

private:
    void serve();
    void answer(const std::byte* request);
    void reply(std::uint64_t request, int error, const void* body, std::size_t size) const;

    const std::filesystem::path place_;
    const std::uint32_t fatal_;
    std::vector<char> contents_;
    int device_ = -1;
    /// Readable when serve() is to end.
    int stop_ = -1;
    bool mounted_ = false;
    std::atomic<bool> dead_{false};
    std::thread thread_;
};

}  // namespace krv::test
