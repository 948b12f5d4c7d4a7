#include <stdexcept>

#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>

namespace krv {

FakeRunLoop::FakeRunLoop(FakeClock& clock)
    : clock_(clock) {}

FakeRunLoop::~FakeRunLoop() {
    close();
}

Clock::TimePoint FakeRunLoop::now() const {
    return clock_.now();
}

void FakeRunLoop::nextCallChanged(std::optional<Clock::TimePoint>) {}

void FakeRunLoop::advanceBy(Clock::Duration duration) {
    runUntil(timePointAfter(clock_.now(), duration));
}

void FakeRunLoop::runReady() {
    for (auto next = nextCall(); next && *next <= clock_.now(); next = nextCall()) {
        makeDueCalls();
    }
}

void FakeRunLoop::runUntil(Clock::TimePoint time) {
    for (auto next = nextCall(); next && *next <= std::max(time, clock_.now()); next = nextCall()) {
        clock_.advanceTo(*next);
        makeDueCalls();
        if (clock_.now() > time) {
            return;  // a callback has slept past the end
        }
    }
    clock_.advanceTo(time);
}

void FakeRunLoop::run() {
    while (!stopRequested_.exchange(false)) {
        const auto next = nextCall();
        if (!next) {
            throw std::logic_error("FakeRunLoop::run: nothing is pending and nobody has called stop()");
        }
        clock_.advanceTo(*next);
        makeDueCalls();
    }
}

void FakeRunLoop::stop() {
    stopRequested_ = true;
}

}  // namespace krv
