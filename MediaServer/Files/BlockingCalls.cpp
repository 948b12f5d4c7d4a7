#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Files/BlockingCalls.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Files on a drive that responds are open by then.
constexpr auto kPromptly = 100ms;

/// Returns how long to poll until the earliest of the times, in milliseconds; -1 if there is none.
int untilEarliest(std::initializer_list<std::optional<Clock::time_point>> times) {
    std::optional<Clock::time_point> earliest;
    for (const auto& time : times) {
        if (time && (!earliest || *time < *earliest)) {
            earliest = time;
        }
    }
    if (!earliest) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*earliest - Clock::now());
    return static_cast<int>(std::max(left, 0ms).count());
}

}  // namespace

/// What the caller and the thread share.
struct BlockingCalls::Running {
    enum class State : std::uint8_t { Running, Returned, Abandoned };

    Call call;
    /// Readable after a report and at the end of the call.
    Descriptor event;
    std::atomic<bool> wanted{true};
    std::atomic<State> state{State::Running};
    /// What the call threw. Valid when it has returned.
    std::exception_ptr thrown;
    std::shared_ptr<std::atomic<std::size_t>> abandoned;

    void tell() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(event.get(), &one, sizeof one);
    }
    void perform() {
        try {
            call([this] {
                tell();
                return wanted.load();
            });
        } catch (...) {
            thrown = std::current_exception();
        }
        call = nullptr;
        auto expected = State::Running;
        if (state.compare_exchange_strong(expected, State::Returned)) {
            tell();
        } else {
            --*abandoned;
        }
    }
    /// Returns false if the call has returned.
    bool abandon() {
        wanted = false;
        ++*abandoned;
        auto expected = State::Running;
        if (state.compare_exchange_strong(expected, State::Abandoned)) {
            return true;
        }
        --*abandoned;
        return false;
    }
};

BlockingCalls::End BlockingCalls::returned(const Running& running) {
    if (running.thrown) {
        std::rethrow_exception(running.thrown);
    }
    return End::Returned;
}

BlockingCalls::BlockingCalls(std::size_t mostAbandoned)
    : mostAbandoned_(mostAbandoned) {}

bool BlockingCalls::start(const std::shared_ptr<Running>& running) {
    running->event.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!running->event) {
        return false;
    }
    try {
        const SignalsBlocked blocked;
        std::thread([running] { running->perform(); }).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

BlockingCalls::End BlockingCalls::run(Call call, const Waiting& waiting) {
    const auto running = std::make_shared<Running>();
    running->call = std::move(call);
    running->abandoned = abandoned_;
    if (*abandoned_ >= mostAbandoned_) {
        return End::Refused;
    }
    if (!start(running)) {
        return End::NoThread;
    }
    const auto limitFromNow = [&] {
        return waiting.limit > 0ms ? std::optional(Clock::now() + waiting.limit) : std::nullopt;
    };
    auto limit = limitFromNow();
    auto delay = waiting.onDelay ? std::optional(Clock::now() + kPromptly) : std::nullopt;
    std::optional<Clock::time_point> grace;
    for (;;) {
        // The cancellation descriptor stays readable, so poll() must ignore it after the first time.
        std::array<pollfd, 2> events{
            {{running->event.get(), POLLIN, 0}, {grace ? -1 : waiting.cancellation, POLLIN, 0}}};
        const int count = ::poll(events.data(), events.size(), untilEarliest({limit, delay, grace}));
        if (count < 0 && errno != EINTR) {
            std::this_thread::yield();  // out of memory
        }
        const bool told = count > 0 && events[0].revents != 0;
        if (told) {
            std::uint64_t reports = 0;
            [[maybe_unused]] const auto taken = ::read(running->event.get(), &reports, sizeof reports);
        }
        // Only after the event has been taken, which may be that of the call's return.
        if (running->state == Running::State::Returned) {
            return returned(*running);
        }
        if (told) {
            limit = limitFromNow();
            if (waiting.onReport) {
                waiting.onReport();
            }
        }
        const auto now = Clock::now();
        if (count > 0 && events[1].revents != 0) {
            running->wanted = false;
            grace = now + waiting.afterCancellation;
        }
        if (grace && now >= *grace) {
            return running->abandon() ? End::Cancelled : returned(*running);
        }
        if (limit && now >= *limit) {
            return running->abandon() ? End::TimedOut : returned(*running);
        }
        if (delay && now >= *delay) {
            delay.reset();
            waiting.onDelay();
        }
    }
}

}  // namespace krv::server
