#include "LoopbackResponder.h"

#include <mutex>
#include <string>

#include <unistd.h>

#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>
#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Shared/Log.h>

namespace krv {
namespace {

constexpr LogSite kSite{"Source/Platform/Linux/LoopbackResponder", Selector("start"), kLoggingHTTPDiscovery};

void toOurLog(AvahiLogLevel /*level*/, const char* text) {
    KRV_LOG(kLogFlagVerbose, kSite, "avahi: {}", text);
}

/// The state changes concern what is published under the host name, and nothing is.
void stateChanged(AvahiServer* /*server*/, AvahiServerState /*state*/, void* /*userdata*/) {}

}  // namespace

std::unique_ptr<LoopbackResponder> LoopbackResponder::start() {
    // Without a function of our own the library writes to standard error.
    static std::once_flag once;
    std::call_once(once, [] { avahi_set_log_function(&toOurLog); });

    std::unique_ptr<LoopbackResponder> responder(new LoopbackResponder);
    responder->poll_ = avahi_threaded_poll_new();
    if (!responder->poll_) {
        return nullptr;
    }
    AvahiServerConfig config;
    avahi_server_config_init(&config);
    avahi_free(config.host_name);
    // Several responders share the interface, so each has a name of its own.
    static std::atomic<unsigned> number{0};
    config.host_name = avahi_strdup(fmt::format("krv-{}-{}", ::getpid(), ++number).c_str());
    config.use_ipv4 = 1;
    config.use_ipv6 = 0;
    config.allow_interfaces = avahi_string_list_new("lo", nullptr);
    config.publish_hinfo = 0;
    config.publish_addresses = 0;
    config.publish_workstation = 0;
    config.publish_domain = 0;
    config.enable_wide_area = 0;
    int failure = 0;
    responder->server_ =
        avahi_server_new(avahi_threaded_poll_get(responder->poll_), &config, &stateChanged, nullptr, &failure);
    avahi_server_config_free(&config);
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
