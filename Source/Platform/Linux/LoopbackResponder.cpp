#include "LoopbackResponder.h"

#include <atomic>
#include <mutex>
#include <string>

#include <unistd.h>

#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <fmt/format.h>
#include <pthread.h>

#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/MulticastDNS/MulticastResponder.h>

namespace krv {
namespace {

constexpr LogSite kSite{"Source/Platform/Linux/LoopbackResponder", Selector("start"), kLoggingHTTPDiscovery};

void toOurLog(AvahiLogLevel /*level*/, const char* text) {
    KRV_LOG(kLogFlagVerbose, kSite, "avahi: {}", text);
}

/// State changes concern records of the host name, and none are published.
void stateChanged(AvahiServer* /*server*/, AvahiServerState /*state*/, void* /*userdata*/) {}

/// Gives the thread of a poll, which libavahi-common starts, a name as soon as it runs.
void nameThreadOf(const AvahiPoll* poll) {
    const timeval now{};
    poll->timeout_new(
        poll, &now,
        [](AvahiTimeout* timeout, void* itsPoll) {
            ::pthread_setname_np(::pthread_self(), "KRVMulticast");
            static_cast<const AvahiPoll*>(itsPoll)->timeout_free(timeout);
        },
        const_cast<AvahiPoll*>(poll));  // which the callback does not change
}

}  // namespace

std::unique_ptr<LoopbackResponder> LoopbackResponder::start() {
    // Without a log function libavahi-core writes to standard error.
    static std::once_flag once;
    std::call_once(once, [] { avahi_set_log_function(&toOurLog); });

    std::unique_ptr<LoopbackResponder> responder(new LoopbackResponder);
    responder->poll_ = avahi_threaded_poll_new();
    if (!responder->poll_) {
        return nullptr;
    }
    // Several responders share the interface, so each needs its own name.
    static std::atomic<unsigned> number{0};
    int failure = 0;
    responder->server_ =
        newMulticastResponder(avahi_threaded_poll_get(responder->poll_), fmt::format("krv-{}-{}", ::getpid(), ++number),
                              &stateChanged, nullptr, failure);
    nameThreadOf(avahi_threaded_poll_get(responder->poll_));
    if (!responder->server_ || avahi_threaded_poll_start(responder->poll_) != 0) {
        KRV_LOG(kLogFlagInfo, kSite, "Service discovery is not available: {}", avahi_strerror(failure));
        return nullptr;
    }
    return responder;
}

LoopbackResponder::~LoopbackResponder() {
    if (poll_) {
        avahi_threaded_poll_stop(poll_);
    }
    if (server_) {
        avahi_server_free(server_);
    }
    if (poll_) {
        avahi_threaded_poll_free(poll_);
    }
}

bool LoopbackResponder::hasFailed() {
    const Lock lock(*this);
    return avahi_server_get_state(server_) == AVAHI_SERVER_FAILURE;
}

LoopbackResponder::Lock::Lock(LoopbackResponder& responder)
    : responder_(responder) {
    avahi_threaded_poll_lock(responder_.poll_);
}

LoopbackResponder::Lock::~Lock() {
    avahi_threaded_poll_unlock(responder_.poll_);
}

}  // namespace krv
