#pragma once

#include <csignal>
#include <thread>
#include <utility>

namespace krv {

/// Blocks all signals in this thread, so that threads that it starts block them too, until it is destroyed.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

/// Starts a thread that blocks all signals. Throws std::system_error if there is none.
template <typename Function>
[[nodiscard]] std::thread threadWithoutSignals(Function function) {
    const SignalsBlocked blocked;
    return std::thread(std::move(function));
}

}  // namespace krv
