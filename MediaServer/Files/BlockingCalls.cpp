#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Files/BlockingCalls.h>
#include <MediaServer/Files/MountTable.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Files on a drive that responds are open by then.
constexpr auto kPromptly = 100ms;
/// A call that has made its result final returns within milliseconds, unless a drive stops responding at that moment.
constexpr auto kPatienceAfterDecision = 5s;
/// A call that cleans up and reports nothing for this time is blocked on a drive.
constexpr auto kPatienceForCleanUp = 3s;

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

/// The threads that have been abandoned.
class BlockingCalls::Abandoned {
public:
    explicit Abandoned(std::size_t mostPerDrive)
        : mostPerDrive_(mostPerDrive) {}
    [[nodiscard]] std::size_t count() const {
        const LockGuard lock(mutex_);
        return count_;
    }
    void add(dev_t drive) {
        const LockGuard lock(mutex_);
        ++count_;
        ++perDrive_[drive];
    }
    void remove(dev_t drive) {
        const LockGuard lock(mutex_);
        --count_;
        removeFrom(drive);
    }
    void addCleaner() {
        const LockGuard lock(mutex_);
        ++cleaners_;
    }
    void removeCleaner() {
        const LockGuard lock(mutex_);
        --cleaners_;
        cleaned_.notify_all();
    }
    void reportCleaning() {
        const LockGuard lock(mutex_);
        ++reports_;
        cleaned_.notify_all();
    }
    void waitForCleaners() {
        const LockGuard lock(mutex_);
        while (cleaners_ > 0) {
            const auto before = reports_;
            const auto limit = Clock::now() + kPatienceForCleanUp;
            while (cleaners_ > 0 && reports_ == before) {
                if (cleaned_.wait_until(mutex_, limit) == std::cv_status::timeout) {
                    return;
                }
            }
        }
    }
    void move(dev_t from, dev_t to) {
        const LockGuard lock(mutex_);
        removeFrom(from);
        ++perDrive_[to];
    }
    /// Returns whether one more thread may use the drive.
    [[nodiscard]] bool mayUse(dev_t drive) const {
        const LockGuard lock(mutex_);
        const auto place = perDrive_.find(drive);
        return drive == MountTable::kUnknownDrive || place == perDrive_.end() || place->second < mostPerDrive_;
    }

private:
    void removeFrom(dev_t drive) KRV_REQUIRES(mutex_) {
        if (--perDrive_[drive] == 0) {
            perDrive_.erase(drive);
        }
    }

    const std::size_t mostPerDrive_;
    mutable Mutex mutex_;
    std::size_t count_ KRV_GUARDED_BY(mutex_) = 0;
    std::map<dev_t, std::size_t> perDrive_ KRV_GUARDED_BY(mutex_);
    std::condition_variable_any cleaned_;
    /// How many of the threads clean up.
    std::size_t cleaners_ KRV_GUARDED_BY(mutex_) = 0;
    /// How often they have reported.
    std::uint64_t reports_ KRV_GUARDED_BY(mutex_) = 0;
};

/// What the caller and the thread share.
struct BlockingCalls::Running {
    enum class State : std::uint8_t { Running, Returned, Abandoned };

    Call call;
    /// Readable after a report and at the end of the call.
    Descriptor event;
    std::shared_ptr<Abandoned> abandoned;
    /// What the call threw. Valid when it has returned.
    std::exception_ptr thrown;
    mutable Mutex mutex;
    State state KRV_GUARDED_BY(mutex) = State::Running;
    bool wanted KRV_GUARDED_BY(mutex) = true;
    bool decided KRV_GUARDED_BY(mutex) = false;
    bool cleansUp KRV_GUARDED_BY(mutex) = false;
    /// The drive that the call accesses.
    dev_t drive KRV_GUARDED_BY(mutex) = MountTable::kUnknownDrive;

    void tell() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(event.get(), &one, sizeof one);
    }
    void perform() {
        try {
            call(Report(*this));
        } catch (...) {
            thrown = std::current_exception();
        }
        call = nullptr;
        const LockGuard lock(mutex);
        if (state == State::Running) {
            state = State::Returned;
            tell();
        } else {
            abandoned->remove(drive);
            endCleanUp();
        }
    }
    void setCleansUp(bool does) {
        const LockGuard lock(mutex);
        cleansUp = does;
    }
    /// To be called if the call has been abandoned.
    void endCleanUp() KRV_REQUIRES(mutex) {
        if (std::exchange(cleansUp, false)) {
            abandoned->removeCleaner();
        }
    }
    void cleanedUp() {
        const LockGuard lock(mutex);
        if (state == State::Abandoned) {
            endCleanUp();
        }
        cleansUp = false;
    }
    /// Returns whether somebody still waits for the call.
    bool report() const {
        const LockGuard lock(mutex);
        if (state == State::Running) {
            tell();
        } else if (cleansUp) {
            abandoned->reportCleaning();
        }
        return wanted;
    }
    bool decide() {
        const LockGuard lock(mutex);
        decided = decided || wanted;
        return wanted;
    }
    /// Returns false if the result is final already.
    bool cancel() {
        const LockGuard lock(mutex);
        wanted = decided;
        return !decided;
    }
    void setDrive(dev_t now) {
        const LockGuard lock(mutex);
        if (state == State::Abandoned) {
            abandoned->move(drive, now);
        }
        drive = now;
    }
    [[nodiscard]] bool hasReturned() const {
        const LockGuard lock(mutex);
        return state == State::Returned;
    }
    /// Returns false if the call has returned.
    bool abandon() {
        const LockGuard lock(mutex);
        if (state == State::Returned) {
            return false;
        }
        wanted = false;
        state = State::Abandoned;
        abandoned->add(drive);
        if (cleansUp) {
            abandoned->addCleaner();
        }
        return true;
    }
};

bool BlockingCalls::Report::operator()() const {
    return running_->report();
}

void BlockingCalls::Report::cleanedUp() const {
    running_->cleanedUp();
}

bool BlockingCalls::Report::decide() const {
    return running_->decide();
}

bool BlockingCalls::Report::mayUse(dev_t drive) const {
    running_->setDrive(drive);
    return running_->abandoned->mayUse(drive);
}

BlockingCalls::End BlockingCalls::returned(const Running& running) {
    if (running.thrown) {
        std::rethrow_exception(running.thrown);
    }
    return End::Returned;
}

BlockingCalls::BlockingCalls()
    : BlockingCalls(Limits()) {}

BlockingCalls::BlockingCalls(Limits limits)
    : mostAbandoned_(limits.all)
    , abandoned_(std::make_shared<Abandoned>(limits.perDrive)) {}

void BlockingCalls::waitForCleanUp() {
    abandoned_->waitForCleaners();
}

std::size_t BlockingCalls::abandoned() const {
    return abandoned_->count();
}

bool BlockingCalls::start(const std::shared_ptr<Running>& running) {
    running->event.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!running->event) {
        return false;
    }
    try {
        threadWithoutSignals("KRVFileCalls", [running] { running->perform(); }).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

BlockingCalls::End BlockingCalls::run(Call call, const Waiting& waiting) {
    const auto running = std::make_shared<Running>();
    running->call = std::move(call);
    running->abandoned = abandoned_;
    running->setCleansUp(waiting.cleansUp);
    if (abandoned_->count() >= mostAbandoned_) {
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
        if (running->hasReturned()) {
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
            grace = now + (running->cancel() ? waiting.afterCancellation : kPatienceAfterDecision);
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
