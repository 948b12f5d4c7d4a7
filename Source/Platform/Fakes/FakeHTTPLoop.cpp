#include <algorithm>
#include <stdexcept>
#include <utility>

#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPLoop.h>

namespace krv {

FakeHTTPLoop::FakeHTTPLoop(FakeClock& clock)
    : clock_(clock) {}

FakeHTTPLoop::~FakeHTTPLoop() = default;

bool FakeHTTPLoop::runOne() {
    Task task;
    {
        const LockGuard lock(mutex_);
        if (!tasks_.empty()) {
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
    }
    const auto due = std::find_if(timers_.begin(), timers_.end(),
                                  [now = clock_.now()](const auto& timer) { return timer.second.due <= now; });
    if (!task && due != timers_.end()) {
        task = std::move(due->second.task);
        timers_.erase(due);
    }
    if (!task) {
        return false;
    }
    task();
    return true;
}

void FakeHTTPLoop::runReady() {
    while (runOne()) {
    }
}

void FakeHTTPLoop::advanceBy(Clock::Duration duration) {
    const auto end = clock_.now() + duration;
    runReady();
    for (;;) {
        const auto next = std::min_element(timers_.begin(), timers_.end(),
                                           [](const auto& a, const auto& b) { return a.second.due < b.second.due; });
        if (next == timers_.end() || next->second.due > end) {
            break;
        }
        clock_.advanceTo(next->second.due);
        runReady();
    }
    clock_.advanceTo(end);
}

std::vector<FakeHTTPLoop::Pending> FakeHTTPLoop::pending() const {
    std::vector<Pending> list;
    for (const auto& [token, sent] : sent_) {
        list.push_back({token, sent.request});
    }
    return list;
}

void FakeHTTPLoop::reply(Token token, HTTPResponse response) {
    const auto sent = sent_.extract(token);
    if (!sent) {
        throw std::logic_error("no such request is pending");
    }
    sent.mapped().reply(std::move(response));
    runReady();
}

void FakeHTTPLoop::post(Task task) {
    const LockGuard lock(mutex_);
    tasks_.push_back(std::move(task));
}

HTTPLoop::Token FakeHTTPLoop::after(Clock::Duration delay, Task task) {
    timers_.emplace(++lastToken_, Timer{timePointAfter(clock_.now(), delay), std::move(task)});
    return lastToken_;
}

HTTPLoop::Token FakeHTTPLoop::send(HTTPRequest request, Reply reply) {
    sent_.emplace(++lastToken_, Sent{std::move(request), std::move(reply)});
    return lastToken_;
}

void FakeHTTPLoop::drop(Token token) {
    timers_.erase(token);
    sent_.erase(token);
}

}  // namespace krv
