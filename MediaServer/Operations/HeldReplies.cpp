#include <algorithm>
#include <iterator>
#include <utility>

#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Operations/HeldReplies.h>

namespace krv::server {

HeldReplies::HeldReplies()
    : thread_(threadWithoutSignals("KRVHeldReplies", [this] { loop(); })) {}

HeldReplies::~HeldReplies() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void HeldReplies::hold(std::chrono::milliseconds atMost, std::function<bool()> isReady, std::function<void()> send) {
    List reply;
    reply.push_back({std::chrono::steady_clock::now() + atMost, std::move(isReady), std::move(send)});
    bool sooner = false;
    {
        const LockGuard lock(mutex_);
        // With the lock, because news may arrive meanwhile.
        if (const Held& held = reply.front(); !held.isReady()) {
            sooner = held.deadline < alarm_;
            held_.splice(held_.end(), reply);
        }
    }
    HeldReplies::send(reply);
    if (sooner) {
        wake_.notify_all();
    }
}

void HeldReplies::checkAgain() {
    List ready;
    {
        const LockGuard lock(mutex_);
        ready = take([](const Held& held) { return held.isReady(); });
    }
    send(ready);
}

HeldReplies::List HeldReplies::take(const std::function<bool(const Held&)>& condition) {
    List taken;
    for (auto it = held_.begin(); it != held_.end();) {
        const auto next = std::next(it);
        if (condition(*it)) {
            taken.splice(taken.end(), held_, it);
        }
        it = next;
    }
    return taken;
}

void HeldReplies::send(const List& replies) {
    for (const Held& held : replies) {
        held.send();
    }
}

void HeldReplies::loop() {
    for (bool stopping = false; !stopping;) {
        List late;
        {
            const LockGuard lock(mutex_);
            const auto next = std::min_element(held_.begin(), held_.end(),
                                               [](const Held& a, const Held& b) { return a.deadline < b.deadline; });
            alarm_ = next == held_.end() ? Time::max() : next->deadline;
            if (next == held_.end() && !stopping_) {
                wake_.wait(mutex_);
            } else if (!stopping_) {
                wake_.wait_until(mutex_, alarm_);
            }
            stopping = stopping_;
            const auto now = std::chrono::steady_clock::now();
            late = take([&](const Held& held) { return stopping || held.deadline <= now; });
        }
        send(late);
    }
}

}  // namespace krv::server
