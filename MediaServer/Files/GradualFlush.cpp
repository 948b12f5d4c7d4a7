#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Files/GradualFlush.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {
namespace {

/// A slow disk writes this in less than a second.
constexpr off_t kPart = off_t{8} << 20;
/// How often a flush of the file system looks whether it should continue.
constexpr std::chrono::milliseconds kInterval{100};

/// A flush on a thread of its own, because nothing can interrupt it.
class BackgroundFlush {
public:
    using Function = int (*)(int);

    /// Takes ownership of the file. flush: syncfs or fsync.
    BackgroundFlush(Descriptor file, Function flush)
        : file_(std::move(file))
        , flush_(flush) {}

    /// Flushes and tells the waiting thread.
    void perform() {
        const int result = flush_(file_.get()) == 0 ? 0 : errno;
        const LockGuard lock(mutex_);
        errorNumber_ = result;
        done_ = true;
        changed_.notify_all();
    }
    /// Waits for a moment. Returns whether the flush is done.
    [[nodiscard]] bool wait() {
        const LockGuard lock(mutex_);
        if (!done_) {
            changed_.wait_for(mutex_, kInterval);
        }
        return done_;
    }
    [[nodiscard]] int errorNumber() const {
        const LockGuard lock(mutex_);
        return errorNumber_;
    }

private:
    const Descriptor file_;
    const Function flush_;
    mutable Mutex mutex_;
    std::condition_variable_any changed_;
    bool done_ KRV_GUARDED_BY(mutex_) = false;
    int errorNumber_ KRV_GUARDED_BY(mutex_) = 0;
};

int flushInBackground(Descriptor file, BackgroundFlush::Function function, const std::function<bool()>& onProgress) {
    const auto flush = std::make_shared<BackgroundFlush>(std::move(file), function);
    try {
        threadWithoutSignals("KRVFlush", [flush] { flush->perform(); }).detach();
    } catch (const std::system_error&) {
        flush->perform();
    }
    while (!flush->wait()) {
        if (!onProgress()) {
            return 0;
        }
    }
    return flush->errorNumber();
}

}  // namespace

int flushGradually(int file, const std::function<bool()>& onProgress) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return errno;
    }
    constexpr unsigned kWriteAndWait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    for (off_t place = 0; place < status.st_size; place += kPart) {
        if (::sync_file_range(file, place, std::min(kPart, status.st_size - place), kWriteAndWait) != 0) {
            const bool notInParts = errno == ESPIPE || errno == EINVAL || errno == ENOSYS;
            return notInParts ? 0 : errno;
        }
        if (!onProgress()) {
            break;
        }
    }
    return 0;
}

int flushFileSystem(int file, const std::function<bool()>& onProgress) {
    Descriptor own(::fcntl(file, F_DUPFD_CLOEXEC, 0));
    return own ? flushInBackground(std::move(own), ::syncfs, onProgress) : errno;
}

int flushNames(int folder, const std::function<bool()>& onProgress) {
    Descriptor readable(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable) {
        return errno == EACCES ? 0 : errno;
    }
    return flushInBackground(std::move(readable), ::fsync, onProgress);
}

}  // namespace krv::server
