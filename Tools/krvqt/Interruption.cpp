#include "Interruption.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include <unistd.h>

#include "ExitStatus.h"

namespace krvqt {
namespace {

std::atomic<bool> signalCame{false};
std::mutex actionMutex;
std::function<void()> action;  // guarded by actionMutex

void act() {
    std::function<void()> now;
    {
        const std::lock_guard lock(actionMutex);
        now.swap(action);
    }
    if (now) {
        std::thread(std::move(now)).detach();  // a second signal must not wait for it
    }
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
    signalCame = true;
    act();
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

void Interruption::onRequest(std::function<void()> wanted) {
    {
        const std::lock_guard lock(actionMutex);
        action = std::move(wanted);
    }
    if (signalCame) {
        act();
    }
}

bool Interruption::requested() noexcept {
    return signalCame;
}

}  // namespace krvqt
