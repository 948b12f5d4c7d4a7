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

std::atomic<bool> signalArrived{false};
std::mutex actionMutex;
std::function<void()> action;  // guarded by actionMutex

void act() {
    std::function<void()> now;
    {
        const std::lock_guard lock(actionMutex);
        now.swap(action);
    }
    if (now) {
        std::thread(std::move(now)).detach();  // so that a second signal does not wait for it
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
    signalArrived = true;
    act();
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

void Interruption::onRequest(std::function<void()> wanted) {
    {
        const std::lock_guard lock(actionMutex);
        action = std::move(wanted);
    }
    if (signalArrived) {
        act();
    }
}

bool Interruption::requested() noexcept {
    return signalArrived;
}

}  // namespace krvqt
