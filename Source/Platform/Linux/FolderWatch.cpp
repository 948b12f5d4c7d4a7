#include "FolderWatch.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

namespace krv {

std::unique_ptr<FolderWatch> FolderWatch::start(const std::string& folder,
                                                std::function<void(const std::string& name)> moved) {
    std::unique_ptr<FolderWatch> watch(new FolderWatch);
    watch->moved_ = std::move(moved);
    watch->events_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    watch->stop_ = ::eventfd(0, EFD_CLOEXEC);
    if (watch->events_ < 0 || watch->stop_ < 0 ||
        ::inotify_add_watch(watch->events_, folder.c_str(), IN_MOVED_TO | IN_ONLYDIR) < 0) {
        return nullptr;
    }
    try {
        watch->thread_ = threadWithoutSignals("KRVFolderWatch", [self = watch.get()] { self->run(); });
    } catch (const std::system_error&) {
        watch.reset();
    }
    return watch;
}

FolderWatch::~FolderWatch() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(stop_, &one, sizeof one);
        thread_.join();
    }
    for (const int descriptor : {events_, stop_}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

void FolderWatch::run() {
    for (;;) {
        std::array<pollfd, 2> waiting{{{events_, POLLIN, 0}, {stop_, POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
            break;
        }
        if (waiting[1].revents != 0) {
            return;
        }
        alignas(inotify_event) std::array<char, 4096> buffer{};
        const ssize_t size = ::read(events_, buffer.data(), buffer.size());
        for (ssize_t place = 0; place < size;) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + place, sizeof event);
            const char* const name = buffer.data() + place + sizeof event;
            place += static_cast<ssize_t>(sizeof event + event.len);
            if ((event.mask & IN_IGNORED) != 0) {
                ended_ = true;
                return;
            }
            moved_(event.len > 0 ? std::string(name) : std::string());
        }
    }
    ended_ = true;
}

}  // namespace krv
