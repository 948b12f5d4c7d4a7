#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Workers/KilledProcesses.h>

namespace krv::server {
namespace {

/// A killed process has exited within milliseconds, unless it is blocked in the kernel.
constexpr std::chrono::seconds kPatience{2};

/// Reaps what has exited of a process or group. Returns whether nothing is left of it.
bool reapNow(pid_t process, int& status) {
    for (;;) {
        const pid_t ended = ::waitpid(process, &status, WNOHANG);
        if (ended == 0) {
            return false;
        }
        const bool more = ended > 0 ? process < 0 : errno == EINTR;
        if (!more) {
            return true;
        }
    }
}

/// Waits for a moment. Returns whether nothing is left of the process or group.
bool waitBriefly(pid_t process, int& status) {
    const Descriptor end(process > 0 ? static_cast<int>(::syscall(SYS_pidfd_open, process, 0)) : -1);
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (!reapNow(process, status)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        // Without a descriptor to wait for, it looks again every millisecond.
        pollfd waiting{end.get(), POLLIN, 0};
        ::poll(&waiting, 1, end ? static_cast<int>(left.count()) : 1);
    }
    return true;
}

/// The killed processes and groups that have not been reaped.
class Leftovers {
public:
    void add(pid_t process) {
        const LockGuard lock(mutex_);
        processes_.push_back(process);
    }
    void reap() {
        const LockGuard lock(mutex_);
        std::erase_if(processes_, [](pid_t process) {
            int status = 0;
            return reapNow(process, status);
        });
    }

private:
    Mutex mutex_;
    std::vector<pid_t> processes_ KRV_GUARDED_BY(mutex_);
};

Leftovers& leftovers() {
    static auto* const all = new Leftovers;  // never destroyed: threads may still end workers when the process exits
    return *all;
}

}  // namespace

bool reapKilled(pid_t process, int& status) {
    leftovers().reap();
    const bool reaped = waitBriefly(process, status);
    if (!reaped) {
        leftovers().add(process);
    }
    return reaped;
}

}  // namespace krv::server
