#include <algorithm>

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
    {
        const LockGuard lock(mutex_);
        held_.push_back({std::chrono::steady_clock::now() + atMost, std::move(isReady), std::move(send)});
        news_ = true;
    }
    wake_.notify_all();
}

void HeldReplies::checkAgain() {
    {
        const LockGuard lock(mutex_);
        news_ = true;
    }
    wake_.notify_all();
}

void HeldReplies::loop() {
    for (;;) {
        std::list<Held> looking;
        bool stopping = false;
        {
            const LockGuard lock(mutex_);
            while (!news_ && !stopping_) {
                const auto next = std::min_element(
                    held_.begin(), held_.end(), [](const Held& a, const Held& b) { return a.deadline < b.deadline; });
                if (next == held_.end()) {
                    wake_.wait(mutex_);
                } else if (wake_.wait_until(mutex_, next->deadline) == std::cv_status::timeout) {
                    break;
                }
            }
            news_ = false;
            stopping = stopping_;
            looking.swap(held_);
        }
        const auto now = std::chrono::steady_clock::now();
        for (auto it = looking.begin(); it != looking.end();) {
            if (stopping || it->deadline <= now || it->isReady()) {
                it->send();
                it = looking.erase(it);
            } else {
                ++it;
            }
        }
        if (stopping) {
            return;
        }
        const LockGuard lock(mutex_);
        held_.splice(held_.end(), looking);
    }
}

}  // namespace krv::server
