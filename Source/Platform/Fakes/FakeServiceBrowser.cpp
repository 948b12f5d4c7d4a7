#include <KRVQTProcessClient/Platform/Fakes/FakeServiceBrowser.h>

namespace krv {

using namespace std::chrono_literals;

void FakeNetService::resolveWithTimeout(Clock::Duration timeout) {
    resolutions_.push_back(timeout);
    RunLoop::current().perform([self = shared_from_this()] {
        self->port_ = self->resolvesTo_;
        const auto delegate = self->delegate_.lock();
        if (!delegate) {
            return;
        }
        if (self->port_ >= 1) {
            delegate->netServiceDidResolveAddress(self);
        } else {
            delegate->didNotResolve(self);
        }
    });
}

void FakeServiceBrowser::searchForServicesOfType(std::string_view type, std::string_view inDomain) {
    stop();
    searches_.emplace_back(type, inDomain);
    searching_ = true;
    loop_ = &RunLoop::main();
    scheduleSilence(silent_ ? 6s : 2s);
}

void FakeServiceBrowser::stop() {
    searching_ = false;
    if (silence_) {
        silence_->invalidate();
        silence_.reset();
    }
}

void FakeServiceBrowser::scheduleSilence(Clock::Duration after) {
    if (silence_) {
        silence_->invalidate();
    }
    silence_ = loop_->scheduleTimer(after, [this] {
        scheduleSilence(6s);
        report(nullptr, false);
    });
}

void FakeServiceBrowser::show(std::vector<std::shared_ptr<NetService>> batch) {
    if (!searching_) {
        return;
    }
    if (!batch.empty() && silence_) {
        silence_->invalidate();
    }
    for (std::size_t i = 0; i < batch.size() && searching_; ++i) {
        report(batch[i], i + 1 < batch.size());
    }
}

void FakeServiceBrowser::report(const std::shared_ptr<NetService>& service, bool moreComing) {
    silent_ = !service;
    if (const auto delegate = delegate_.lock()) {
        delegate->didFindService(shared_from_this(), service, moreComing);
    }
}

}  // namespace krv
