#pragma once

#include <string>

#include <avahi-core/core.h>

namespace krv {

/// A multicast-DNS server of libavahi-core, turned by the given poll, that hears and speaks on the loopback interface
/// only.
///
/// It publishes nothing by itself: no addresses (which would collide with a daemon on the same machine), no host
/// information, no workstation. hostName is never looked up, but must be that of no other responder on the machine.
/// stateChanged is called for the first time before this returns. Freed with avahi_server_free; null, and the
/// library's error number in failure, when the machine does not let it run.
[[nodiscard]] AvahiServer* newMulticastResponder(const AvahiPoll* poll, const std::string& hostName,
                                                 AvahiServerCallback stateChanged, void* userdata, int& failure);

}  // namespace krv
