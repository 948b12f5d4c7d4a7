#include <cstdint>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

#include <MediaServer/Workers/Cancellation.h>

namespace krv::server {

Cancellation::Cancellation()
    : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Cancellation::request() {
    requested_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(event_.get(), &one, sizeof one);
    const LockGuard lock(mutex_);
    for (const Observer* const observer : observers_) {
        observer->onRequest_();
    }
}

Cancellation::Observer::Observer(const Cancellation& cancellation, std::function<void()> onRequest)
    : cancellation_(cancellation)
    , onRequest_(std::move(onRequest)) {
    const LockGuard lock(cancellation_.mutex_);
    cancellation_.observers_.insert(this);
}

Cancellation::Observer::~Observer() {
    const LockGuard lock(cancellation_.mutex_);
    cancellation_.observers_.erase(this);
}

}  // namespace krv::server
