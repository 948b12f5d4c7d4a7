// Publishes one service on the loopback interface like the media server, and listens on its port.
//
//   ServiceAnnouncer NAME PORT [--no-listener]
//
// PORT 0 chooses a free port. Prints "established NAME PORT" when the service is published, with the name that it was
// given. Exits when its standard input is closed. With "--no-listener" nothing listens on the port.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/publish.h>

#include <KRVQTProcessClient/Platform/MulticastDNS/MulticastResponder.h>

namespace {

struct Announcer {
    AvahiSimplePoll* poll = nullptr;
    AvahiServer* server = nullptr;
    AvahiSEntryGroup* group = nullptr;
    std::string name;
    std::uint16_t port = 0;
};

void publish(Announcer& announcer);

void groupChanged(AvahiServer*, AvahiSEntryGroup* group, AvahiEntryGroupState state, void* userdata) {
    auto& announcer = *static_cast<Announcer*>(userdata);
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
        std::printf("established %s %d\n", announcer.name.c_str(), announcer.port);
        std::fflush(stdout);
    } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
        char* next = avahi_alternative_service_name(announcer.name.c_str());
        announcer.name = next;
        avahi_free(next);
        avahi_s_entry_group_reset(group);
        publish(announcer);
    }
}

void publish(Announcer& announcer) {
    if (!announcer.group) {
        announcer.group = avahi_s_entry_group_new(announcer.server, &groupChanged, &announcer);
    }
    const int result = avahi_server_add_service(announcer.server, announcer.group, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET,
                                                static_cast<AvahiPublishFlags>(0), announcer.name.c_str(), "_http._tcp",
                                                "local", nullptr, announcer.port, nullptr);
    if (result == AVAHI_ERR_COLLISION) {
        groupChanged(announcer.server, announcer.group, AVAHI_ENTRY_GROUP_COLLISION, &announcer);
        return;
    }
    if (result < 0 || avahi_s_entry_group_commit(announcer.group) < 0) {
        std::fprintf(stderr, "cannot publish: %s\n", avahi_strerror(result));
        std::exit(1);
    }
}

void serverChanged(AvahiServer* server, AvahiServerState state, void* userdata) {
    auto& announcer = *static_cast<Announcer*>(userdata);
    announcer.server = server;
    if (state == AVAHI_SERVER_RUNNING) {
        publish(announcer);
    }
}

std::uint16_t listenOn(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(fd, 8) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        std::perror("cannot listen");
        std::exit(1);
    }
    return ntohs(address.sin_port);
}

void inputChanged(AvahiWatch*, int fd, AvahiWatchEvent, void* userdata) {
    char c = 0;
    if (::read(fd, &c, 1) <= 0) {
        avahi_simple_poll_quit(static_cast<Announcer*>(userdata)->poll);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    Announcer announcer;
    announcer.name = argv[1];
    announcer.port = static_cast<std::uint16_t>(std::atoi(argv[2]));
    if (argc < 4 || std::strcmp(argv[3], "--no-listener") != 0) {
        announcer.port = listenOn(announcer.port);
    }
    announcer.poll = avahi_simple_poll_new();
    const AvahiPoll* api = avahi_simple_poll_get(announcer.poll);
    int failure = 0;
    announcer.server =
        krv::newMulticastResponder(api, "announcer-" + std::to_string(::getpid()), &serverChanged, &announcer, failure);
    if (!announcer.server) {
        std::fprintf(stderr, "cannot start: %s\n", avahi_strerror(failure));
        return 1;
    }
    api->watch_new(api, STDIN_FILENO, static_cast<AvahiWatchEvent>(AVAHI_WATCH_IN | AVAHI_WATCH_HUP), &inputChanged,
                   &announcer);
    avahi_simple_poll_loop(announcer.poll);
    avahi_server_free(announcer.server);  // says goodbye
    avahi_simple_poll_free(announcer.poll);
    return 0;
}
