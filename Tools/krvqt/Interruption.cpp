#include "Interruption.h"

#include <cerrno>
#include <csignal>
#include <stop_token>
#include <string_view>
#include <thread>

#include <unistd.h>

#include "ExitStatus.h"

namespace krvqt {
namespace {

/// Never destroyed, because a signal may arrive until the process exits.
std::stop_source& source() {
    static auto* const instance = new std::stop_source;
    return *instance;
}

sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

void takeSignals(std::chrono::seconds patience) {
    const sigset_t set = watchedSignals();
    int number = 0;
    while (sigwait(&set, &number) != 0) {
    }
    std::thread([] { source().request_stop(); }).detach();  // so that a second signal does not wait for it
    timespec timeout{};
    timeout.tv_sec = patience.count();
    while (sigtimedwait(&set, nullptr, &timeout) == -1 && errno == EINTR) {
    }
    constexpr std::string_view kMessage = "krvqt: exiting; the media server has not confirmed the cancellation\n";
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kMessage.data(), kMessage.size());
    ::_exit(kCancelled);
}

}  // namespace

void Interruption::watch(std::chrono::seconds patience) {
    const sigset_t set = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(takeSignals, patience).detach();
}

std::stop_token Interruption::token() {
    return source().get_token();
}

}  // namespace krvqt
