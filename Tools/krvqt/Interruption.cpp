#include "Interruption.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <thread>

#include <unistd.h>

#include "ExitStatus.h"

namespace krvqt {
namespace {

std::atomic<bool> signalCame{false};

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
    signalCame = true;
    timespec timeout{};
    timeout.tv_sec = patience.count();
    while (sigtimedwait(&set, nullptr, &timeout) == -1 && errno == EINTR) {
    }
    constexpr std::string_view kMessage = "krvqt: leaving without the server's answer\n";
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kMessage.data(), kMessage.size());
    ::_exit(kCancelled);
}

}  // namespace

void Interruption::watch(std::chrono::seconds patience) {
    const sigset_t set = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(takeSignals, patience).detach();
}

bool Interruption::requested() noexcept {
    return signalCame;
}

}  // namespace krvqt
