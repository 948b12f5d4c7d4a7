#include <cstdint>

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
}

}  // namespace krv::server
