#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>

#include <KRVQTProcessClient/Platform/MulticastDNS/MulticastResponder.h>

namespace krv {

AvahiServer* newMulticastResponder(const AvahiPoll* poll, const std::string& hostName, AvahiServerCallback stateChanged,
                                   void* userdata, int& failure) {
    AvahiServerConfig config;
    avahi_server_config_init(&config);
    avahi_free(config.host_name);
    config.host_name = avahi_strdup(hostName.c_str());
    config.use_ipv4 = 1;
    config.use_ipv6 = 0;
    config.allow_interfaces = avahi_string_list_new("lo", nullptr);
    config.publish_hinfo = 0;
    config.publish_addresses = 0;
    config.publish_workstation = 0;
    config.publish_domain = 0;
    config.enable_wide_area = 0;
    AvahiServer* const server = avahi_server_new(poll, &config, stateChanged, userdata, &failure);
    avahi_server_config_free(&config);
    return server;
}

}  // namespace krv
