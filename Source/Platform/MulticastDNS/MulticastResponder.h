#pragma once

#include <string>

#include <avahi-core/core.h>

namespace krv {

/// Creates a multicast-DNS responder of libavahi-core on the loopback interface only, driven by the given poll.
///
/// It publishes nothing by itself: no addresses (which would collide with a daemon on the same machine), no host
/// information, no workstation. hostName is never resolved, but must be unique among the machine's responders.
/// stateChanged is called once before this returns. The caller frees the responder with avahi_server_free. Returns
/// null and stores libavahi's error number in failure if the machine does not permit it.
[[nodiscard]] AvahiServer* newMulticastResponder(const AvahiPoll* poll, const std::string& hostName,
                                                 AvahiServerCallback stateChanged, void* userdata, int& failure);

}  // namespace krv
