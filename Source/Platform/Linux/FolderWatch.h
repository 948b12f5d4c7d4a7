#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace krv {

/// Watches a folder for files that are moved into it, on a thread of its own. The thread blocks all signals.
class FolderWatch {
public:
    /// Starts watching. Calls moved on the watch's thread with the name of each file, empty if
    /// the kernel has lost some. Returns null if the folder cannot
    /// be watched, for instance because this process is out of descriptors.
    [[nodiscard]] static std::unique_ptr<FolderWatch> start(const std::string& folder,
                                                            std::function<void(const std::string& name)> moved);
    /// Joins the thread, so it must not be called on it.
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// Returns whether the folder has been removed, so that a new watch is needed.
    [[nodiscard]] bool hasEnded() const noexcept { return ended_; }

private:
    FolderWatch() = default;
    void run();

    int events_ = -1;
    int stop_ = -1;
    std::function<void(const std::string&)> moved_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

}  // namespace krv
