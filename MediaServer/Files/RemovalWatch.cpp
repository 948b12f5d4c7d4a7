#include <condition_variable>
#include <system_error>
#include <utility>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Files/RemovalWatch.h>

namespace krv::server {

struct RemovalWatch::Shared {
    Shared(InstalledProgram watched, std::chrono::milliseconds pause)
        : program(std::move(watched))
        , interval(pause) {}

    void watch() {
        mutex.lock();
        while (!stopping) {
            if (wake.wait_for(mutex, interval) == std::cv_status::timeout) {
                mutex.unlock();
                const bool missing = !program.isPresent();
                mutex.lock();
                removed = missing;
            }
        }
        mutex.unlock();
    }

    const InstalledProgram program;
    const std::chrono::milliseconds interval;
    Mutex mutex;
    std::condition_variable_any wake;
    bool stopping KRV_GUARDED_BY(mutex) = false;
    bool removed KRV_GUARDED_BY(mutex) = false;
};

RemovalWatch::RemovalWatch(InstalledProgram program, std::chrono::milliseconds interval)
    : shared_(std::make_shared<Shared>(std::move(program), interval)) {
    try {
        threadWithoutSignals("KRVRemovalWatch", [shared = shared_] { shared->watch(); }).detach();
    } catch (const std::system_error&) {
        return;
    }
}

RemovalWatch::~RemovalWatch() {
    const LockGuard lock(shared_->mutex);
    shared_->stopping = true;
    shared_->wake.notify_all();
}

bool RemovalWatch::removed() const {
    const LockGuard lock(shared_->mutex);
    return shared_->removed;
}

}  // namespace krv::server
