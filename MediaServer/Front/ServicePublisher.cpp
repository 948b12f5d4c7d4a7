#include <atomic>

#include <unistd.h>

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>
#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <avahi-core/publish.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Platform/MulticastDNS/MulticastResponder.h>
#include <KRVQTProcessClient/Platform/MulticastDNS/PublisherRecord.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>

#include <MediaServer/Front/ServicePublisher.h>
#include <MediaServer/Operations/ServerLog.h>

namespace krv::server {
namespace {

constexpr const char* kType = "_http._tcp";
constexpr const char* kDomain = "local";
constexpr std::uint32_t kNoFlags = 0;

void toOurLog(AvahiLogLevel /*level*/, const char* text) {
    serverLog(kLogFlagVerbose, "publish", text);
}

}  // namespace

/// An embedded multicast-DNS responder with one service. Its callbacks arrive on its own thread, under its own lock.
class ServicePublisher::Responder {
public:
    Responder(std::string name, std::uint16_t port)
        : name_(std::move(name))
        , port_(port) {
        avahi_set_log_function(&toOurLog);  // which otherwise writes to standard error
        poll_ = avahi_threaded_poll_new();
        if (!poll_) {
            failed_ = true;
            return;
        }
        int failure = 0;
        server_ = newMulticastResponder(avahi_threaded_poll_get(poll_), fmt::format("krv-server-{}", ::getpid()),
                                        &serverChanged, this, failure);
        if (!server_ || avahi_threaded_poll_start(poll_) != 0) {
            fail(failure);
        }
    }
    ~Responder() {
        if (poll_) {
            avahi_threaded_poll_stop(poll_);
        }
        if (server_) {
            avahi_server_free(server_);  // withdraws the service
        }
        if (poll_) {
            avahi_threaded_poll_free(poll_);
        }
    }
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    [[nodiscard]] bool hasFailed() const { return failed_; }

private:
    static void serverChanged(AvahiServer* server, AvahiServerState state, void* userdata) {
        auto& self = *static_cast<Responder*>(userdata);
        self.server_ = server;  // the first call precedes the return of avahi_server_new
        if (state == AVAHI_SERVER_RUNNING) {
            self.publish();
        } else if (state == AVAHI_SERVER_FAILURE) {
            self.fail(avahi_server_errno(server));
        }
    }
    static void groupChanged(AvahiServer* server, AvahiSEntryGroup* /*group*/, AvahiEntryGroupState state,
                             void* userdata) {
        auto& self = *static_cast<Responder*>(userdata);
        if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
            serverLog(kLogFlagInfo, "publish", fmt::format("published as {} on port {}", self.name_, self.port_));
        } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
            self.takeAnotherName();
            avahi_s_entry_group_reset(self.group_);
            self.publish();
        } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
            self.fail(avahi_server_errno(server));
        }
    }

    void publish() {
        if (!group_) {
            group_ = avahi_s_entry_group_new(server_, &groupChanged, this);
        }
        if (!group_ || !avahi_s_entry_group_is_empty(group_)) {
            return;
        }
        AvahiStringList* text = nullptr;
        if (const auto self = serviceRecordOfThisProcess(name_, port_)) {
            for (const std::string& entry : publisherRecord(*self)) {
                text = avahi_string_list_add(text, entry.c_str());
            }
        }
        int result = AVAHI_ERR_COLLISION;
        while (result == AVAHI_ERR_COLLISION) {
            result = avahi_server_add_service_strlst(server_, group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET,
                                                     static_cast<AvahiPublishFlags>(kNoFlags), name_.c_str(), kType,
                                                     kDomain, nullptr, port_, text);
            if (result == AVAHI_ERR_COLLISION) {
                takeAnotherName();
            }
        }
        avahi_string_list_free(text);
        if (result < 0 || (result = avahi_s_entry_group_commit(group_)) < 0) {
            fail(result);
        }
    }

    void takeAnotherName() {
        char* const next = avahi_alternative_service_name(name_.c_str());
        name_ = next;
        avahi_free(next);
    }

    void fail(int reason) {
        failed_ = true;
        serverLog(kLogFlagWarning, "publish", fmt::format("cannot publish: {}", avahi_strerror(reason)));
    }

    std::string name_;
    const std::uint16_t port_;
    std::atomic<bool> failed_{false};
    AvahiThreadedPoll* poll_ = nullptr;
    AvahiServer* server_ = nullptr;
    AvahiSEntryGroup* group_ = nullptr;
};

ServicePublisher::ServicePublisher(std::string name, std::uint16_t port)
    : name_(std::move(name))
    , port_(port) {
    writeRecord();  // first, because clients that wait for it find the server at once
    responder_ = std::make_unique<Responder>(name_, port_);
}

ServicePublisher::~ServicePublisher() = default;

void ServicePublisher::writeRecord() {
    const auto record = serviceRecordOfThisProcess(name_, port_);
    if (record) {
        record_.reset();
        record_ = std::make_unique<ServiceRecordFile>(runtimeFolder(kMediaServerName), *record);
    }
}

void ServicePublisher::restartIfFailed() {
    if (!record_ || !record_->isInPlace()) {
        writeRecord();
    }
    if (responder_->hasFailed()) {
        responder_.reset();
        responder_ = std::make_unique<Responder>(name_, port_);
    }
}

}  // namespace krv::server
