#pragma once

#include <csignal>
#include <thread>
#include <utility>

#include <pthread.h>

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

/// Starts a thread that blocks all signals. The name, which debuggers and /proc show, is at most 15 characters and is
/// borrowed until the process exits. Throws std::system_error if there is none.
template <typename Function>
[[nodiscard]] std::thread threadWithoutSignals(const char* name, Function function) {
    const SignalsBlocked blocked;
    return std::thread([name, function = std::move(function)]() mutable {
        ::pthread_setname_np(::pthread_self(), name);
        function();
    });
}

}  // namespace krv
