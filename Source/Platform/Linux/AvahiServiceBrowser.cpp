// Service browsing with two sources: the service record of a server that shares this user's runtime folder, and an
// embedded multicast-DNS responder for all others.
//
// The record is read when a search starts and, if it shows no server, whenever one is moved into the folder, so that a
// new server is found within milliseconds. Multicast DNS needs a second to establish a service, and may not repeat an answer within one.
// Where it works, it reports the same service later; a search reports it once.
//
// libavahi-core has one lock. Our calls take it, and its callbacks run on its own thread with it held. A search's
// events are passed to the main run loop, whichever thread started the search, so that its owner has one thread to deal
// with. There they are dropped if the search is no longer the current one, so the main thread delivers nothing
// after stop().
//
// A name that is found means little. Its publisher may be dead (records stay in caches for minutes) or belong to
// another user. So a service is resolved before it is reported. It is reported only if a process of this user listens
// on its port, and under the name with which it was published. The resolver is kept until the search ends, because a
// stale record may be replaced by the right one a moment later. The port alone does not prove that the publisher is
// alive: another program may have taken the port since. So publishers also name their process (see PublisherRecord.h).
//
// Batches. The services that are being resolved at the same time form a batch. Each is reported as soon as it is
// resolved, with "more coming" while others are pending. If something was reported and the last service of the batch
// turns out not to be ours, the end of the batch is reported separately.
//
// Silence. A search that finds nothing would leave its owner waiting indefinitely. As long as a search has reported no
// service, it reports an ended batch without a match, first after two seconds and then every six. Six is longer than
// the five seconds after which the owner falls back to polling ports, so that the fallback gets its turn. The owner
// starts a new search after each report. Therefore the six seconds apply across searches; otherwise every report would
// postpone the fallback again.
#include <atomic>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <avahi-common/strlst.h>
#include <avahi-core/core.h>
#include <avahi-core/lookup.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/MulticastDNS/PublisherRecord.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>
#include <KRVQTProcessClient/Platform/ServiceBrowser.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

#include "FolderWatch.h"
#include "LoopReach.h"
#include "LoopbackResponder.h"
#include "PublishedName.h"
#include "SocketDiagnostics.h"

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr auto kFirstSilence = 2s;
constexpr auto kNextSilence = 6s;
/// The service type and domain of every server that writes a record.
constexpr std::string_view kRecordedType = "_http._tcp";
constexpr std::string_view kRecordedDomain = "local";

std::vector<std::string> entriesOf(AvahiStringList* text) {
    std::vector<std::string> entries;
    for (; text; text = avahi_string_list_get_next(text)) {
        entries.emplace_back(reinterpret_cast<const char*>(avahi_string_list_get_text(text)),
                             avahi_string_list_get_size(text));
    }
    return entries;
}

/// Returns whether a process of this user offers the service now, and offers it to us: it sees our processes, and is of
/// our major version.
bool isOffered(std::uint16_t port, const std::vector<std::string>& text) {
    const std::string_view version = publisherVersion(text);
    return port != 0 && !publisherIsElsewhere(text, pidNamespace()) &&
           (version.empty() || isCompatibleVersion(version)) && userListensOnPort(port) &&
           !publisherIsDead(text, ProcessTable::ofThisUser());
}

class FoundService final : public NetService, public std::enable_shared_from_this<FoundService> {
public:
    FoundService(std::string name, std::uint16_t port, std::vector<std::string> text)
        : name_(std::move(name))
        , foundPort_(port)
        , text_(std::move(text)) {}

    [[nodiscard]] const std::string& name() const override { return name_; }
    [[nodiscard]] long port() const override {
        const LockGuard lock(mutex_);
        return port_;
    }
    void setDelegate(std::weak_ptr<NetServiceDelegate> delegate) override {
        const LockGuard lock(mutex_);
        delegate_ = std::move(delegate);
    }

    /// The port is known since the service was found a moment ago, so this only checks that it is still offered.
    void resolveWithTimeout(Clock::Duration /*timeout*/) override {
        LoopReach::current()->perform([self = shared_from_this()] { self->resolve(); });
    }

private:
    void resolve() {
        const bool held = isOffered(foundPort_, text_);
        std::shared_ptr<NetServiceDelegate> delegate;
        {
            const LockGuard lock(mutex_);
            port_ = held ? foundPort_ : -1;
            delegate = delegate_.lock();
        }
        if (!delegate) {
            return;
        }
        if (held) {
            delegate->netServiceDidResolveAddress(shared_from_this());
        } else {
            delegate->didNotResolve(shared_from_this());
        }
    }

    const std::string name_;
    const std::uint16_t foundPort_;
    const std::vector<std::string> text_;
    mutable Mutex mutex_;
    long port_ KRV_GUARDED_BY(mutex_) = -1;
    std::weak_ptr<NetServiceDelegate> delegate_ KRV_GUARDED_BY(mutex_);
};

class AvahiServiceBrowser;

/// One search. It uses the responder's objects under the responder's lock only.
class Search final : public std::enable_shared_from_this<Search> {
public:
    explicit Search(std::weak_ptr<AvahiServiceBrowser> owner)
        : owner_(std::move(owner)) {}
    ~Search() { end(nullptr); }

    /// Reads the service record and starts the timer. Returns whether the record's server was reported.
    [[nodiscard]] bool begin(const std::string& type, const std::string& domain, Clock::Duration firstSilence);
    /// Begins to browse with multicast DNS.
    void browse(LoopbackResponder& responder, const std::string& type, const std::string& domain);
    /// responder: the one given to browse; null if there was none or it is already destroyed.
    void end(LoopbackResponder* responder);
    /// Reads the service record and reports its server, if it is offered. Returns whether it is. Thread-safe.
    bool readRecord();

private:
    enum class Resolution : std::uint8_t { Open, NotOurs, Reported };
    struct Candidate {
        Search* search;
        std::string name;
        AvahiSServiceResolver* resolver;
        Resolution resolution;
    };

    static void browserEvent(AvahiSServiceBrowser*, AvahiIfIndex, AvahiProtocol, AvahiBrowserEvent, const char*,
                             const char*, const char*, AvahiLookupResultFlags, void*);
    static void resolverEvent(AvahiSServiceResolver*, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent, const char*,
                              const char*, const char*, const char*, const AvahiAddress*, std::uint16_t,
                              AvahiStringList*, AvahiLookupResultFlags, void*);
    void found(AvahiIfIndex interface, AvahiProtocol protocol, const char* name, const char* type, const char* domain);
    void lost(const std::string& name);
    void settled(Candidate& candidate, Resolution resolution, std::uint16_t port = 0,
                 std::vector<std::string> text = {});
    [[nodiscard]] bool someOpen() const;
    /// Returns whether this search has not reported that service yet, and notes it.
    [[nodiscard]] bool noteShown(const std::string& name, std::uint16_t port);
    void report(std::shared_ptr<NetService> service, bool moreComing);
    void reportSilence();
    void deliver(const std::shared_ptr<NetService>& service, bool moreComing);
    void startSilenceTimer(Clock::Duration interval);

    const std::weak_ptr<AvahiServiceBrowser> owner_;
    const std::shared_ptr<LoopReach> loop_ = LoopReach::main();
    AvahiServer* server_ = nullptr;
    AvahiSServiceBrowser* browser_ = nullptr;
    std::map<std::string, Candidate> candidates_;
    bool batchHasReports_ = false;
    bool wantsRecord_ = false;

    Mutex mutex_;
    bool ended_ KRV_GUARDED_BY(mutex_) = false;
    bool shownAny_ KRV_GUARDED_BY(mutex_) = false;
    /// What has been reported, so that two sources of one service report it once.
    std::set<std::pair<std::string, std::uint16_t>> shown_ KRV_GUARDED_BY(mutex_);
    std::shared_ptr<RunLoop::Timer> silence_ KRV_GUARDED_BY(mutex_);
};

/// The search that the folder's watch informs. The watch must not refer to the browser, whose destructor joins it.
struct Informed {
    Mutex mutex;
    std::weak_ptr<Search> search KRV_GUARDED_BY(mutex);

    std::shared_ptr<Search> current() {
        const LockGuard lock(mutex);
        return search.lock();
    }
};

class AvahiServiceBrowser final : public ServiceBrowser {
public:
    ~AvahiServiceBrowser() override {
        watch_.reset();
        endSearch();
        responder_.reset();
    }

    void setDelegate(std::weak_ptr<ServiceBrowserDelegate> delegate) override {
        const LockGuard lock(mutex_);
        delegate_ = std::move(delegate);
    }

    void searchForServicesOfType(std::string_view type, std::string_view inDomain) override {
        const LockGuard searching(searchMutex_);
        endSearchLocked();
        const auto search = std::make_shared<Search>(std::static_pointer_cast<AvahiServiceBrowser>(shared_from_this()));
        {
            const LockGuard lock(mutex_);
            current_ = search;
        }
        {
            const LockGuard lock(informed_->mutex);
            informed_->search = search;
        }
        const std::string plainType = withoutFinalDot(type);
        const std::string plainDomain = withoutFinalDot(inDomain);
        if (!search->begin(plainType, plainDomain, silent_ ? kNextSilence : kFirstSilence)) {
            watchRecord();
            (void)search->readRecord();  // it may have been written before the watch began
        }
        // After the record, which usually has the answer: starting a responder takes several milliseconds.
        if (!responder_ || responder_->hasFailed()) {
            responder_ = LoopbackResponder::start();
        }
        if (responder_) {
            search->browse(*responder_, plainType, plainDomain);
        }
    }

    void stop() override { endSearch(); }

    [[nodiscard]] std::string description() const override {
        return fmt::format("<ServiceBrowser {}>", static_cast<const void*>(this));
    }

    /// Passes an event to the delegate if the search is still the current one. Called on the main loop.
    void deliver(const Search* search, const std::shared_ptr<NetService>& service, bool moreComing) {
        std::shared_ptr<ServiceBrowserDelegate> delegate;
        {
            const LockGuard lock(mutex_);
            if (current_.get() == search) {
                delegate = delegate_.lock();
                silent_ = !service;
            }
        }
        if (delegate) {
            delegate->didFindService(shared_from_this(), service, moreComing);
        }
    }

private:
    static std::string withoutFinalDot(std::string_view text) {
        if (!text.empty() && text.back() == '.') {
            text.remove_suffix(1);
        }
        return std::string(text);
    }

    /// Watches the folder of the service record. Only where there was no server: the kernel takes many milliseconds to
    /// end a watch, and so would a short process that has found its server.
    void watchRecord() KRV_REQUIRES(searchMutex_) {
        if (watch_ && !watch_->hasEnded()) {
            return;
        }
        watch_ = FolderWatch::start(runtimeFolder(kMediaServerName), [informed = informed_](const std::string& name) {
            const auto search = informed->current();
            if (search && (name.empty() || name == serviceRecordFileName())) {
                (void)search->readRecord();
            }
        });
    }

    void endSearch() {
        const LockGuard searching(searchMutex_);
        endSearchLocked();
    }

    void endSearchLocked() KRV_REQUIRES(searchMutex_) {
        std::shared_ptr<Search> search;
        {
            const LockGuard lock(mutex_);
            search.swap(current_);
        }
        if (search) {
            search->end(responder_.get());
        }
    }

    /// Serialises the starting and stopping of searches. The responder's thread never takes it.
    Mutex searchMutex_;
    std::unique_ptr<LoopbackResponder> responder_;
    const std::shared_ptr<Informed> informed_ = std::make_shared<Informed>();
    std::unique_ptr<FolderWatch> watch_;

    Mutex mutex_;
    std::weak_ptr<ServiceBrowserDelegate> delegate_ KRV_GUARDED_BY(mutex_);
    std::shared_ptr<Search> current_ KRV_GUARDED_BY(mutex_);
    /// Whether the last report was an ended batch without a match.
    std::atomic<bool> silent_{false};
};

bool Search::begin(const std::string& type, const std::string& domain, Clock::Duration firstSilence) {
    wantsRecord_ = type == kRecordedType && domain == kRecordedDomain;
    startSilenceTimer(firstSilence);
    return readRecord();
}

void Search::browse(LoopbackResponder& responder, const std::string& type, const std::string& domain) {
    const LoopbackResponder::Lock lock(responder);
    server_ = responder.server();
    browser_ = avahi_s_service_browser_new(server_, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, type.c_str(), domain.c_str(),
                                           static_cast<AvahiLookupFlags>(0), &Search::browserEvent, this);
}

void Search::end(LoopbackResponder* responder) {
    if (responder) {
        const LoopbackResponder::Lock lock(*responder);
        for (auto& [name, candidate] : candidates_) {
            avahi_s_service_resolver_free(candidate.resolver);
        }
        candidates_.clear();
        if (browser_) {
            avahi_s_service_browser_free(std::exchange(browser_, nullptr));
        }
    }
    const LockGuard lock(mutex_);
    ended_ = true;
    if (silence_) {
        silence_->invalidate();
        silence_.reset();
    }
}

void Search::browserEvent(AvahiSServiceBrowser* /*browser*/, AvahiIfIndex interface, AvahiProtocol protocol,
                          AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                          AvahiLookupResultFlags /*flags*/, void* userdata) {
    auto* const search = static_cast<Search*>(userdata);
    if (event == AVAHI_BROWSER_NEW) {
        search->found(interface, protocol, name, type, domain);
    } else if (event == AVAHI_BROWSER_REMOVE) {
        search->lost(name);
    }
}

void Search::found(AvahiIfIndex interface, AvahiProtocol protocol, const char* name, const char* type,
                   const char* domain) {
    const auto [place, isNew] = candidates_.try_emplace(name, Candidate{this, name, nullptr, Resolution::Open});
    if (!isNew) {
        return;
    }
    Candidate& candidate = place->second;
    candidate.resolver =
        avahi_s_service_resolver_new(server_, interface, protocol, name, type, domain, AVAHI_PROTO_UNSPEC,
                                     AVAHI_LOOKUP_NO_ADDRESS, &Search::resolverEvent, &candidate);
    if (!candidate.resolver) {
        candidates_.erase(place);
    }
}

void Search::lost(const std::string& name) {
    const auto place = candidates_.find(name);
    if (place == candidates_.end()) {
        return;
    }
    if (place->second.resolution == Resolution::Open) {
        settled(place->second, Resolution::NotOurs);
    }
    avahi_s_service_resolver_free(place->second.resolver);
    candidates_.erase(place);
}

void Search::resolverEvent(AvahiSServiceResolver* /*resolver*/, AvahiIfIndex /*interface*/, AvahiProtocol /*protocol*/,
                           AvahiResolverEvent event, const char* /*name*/, const char* /*type*/, const char* /*domain*/,
                           const char* /*host*/, const AvahiAddress* /*address*/, std::uint16_t port,
                           AvahiStringList* text, AvahiLookupResultFlags /*flags*/, void* userdata) {
    auto& candidate = *static_cast<Candidate*>(userdata);
    if (candidate.resolution == Resolution::Reported) {
        return;
    }
    auto entries = entriesOf(text);
    const bool ours = event == AVAHI_RESOLVER_FOUND && isOffered(port, entries);
    candidate.search->settled(candidate, ours ? Resolution::Reported : Resolution::NotOurs, port, std::move(entries));
}

bool Search::someOpen() const {
    for (const auto& [name, candidate] : candidates_) {
        if (candidate.resolution == Resolution::Open) {
            return true;
        }
    }
    return false;
}

void Search::settled(Candidate& candidate, Resolution resolution, std::uint16_t port, std::vector<std::string> text) {
    candidate.resolution = resolution;
    const bool more = someOpen();
    std::string name = publishedName(candidate.name);
    if (resolution == Resolution::Reported && noteShown(name, port)) {
        batchHasReports_ = more;
        report(std::make_shared<FoundService>(std::move(name), port, std::move(text)), more);
    } else if (!more && std::exchange(batchHasReports_, false)) {
        report(nullptr, false);
    }
}

bool Search::noteShown(const std::string& name, std::uint16_t port) {
    const LockGuard lock(mutex_);
    return shown_.emplace(name, port).second;
}

bool Search::readRecord() {
    const auto record = wantsRecord_ ? readServiceRecord(runtimeFolder(kMediaServerName)) : std::nullopt;
    if (!record) {
        return false;
    }
    auto text = publisherRecord(*record);
    if (!isOffered(record->port, text)) {
        return false;
    }
    if (noteShown(record->name, record->port)) {
        report(std::make_shared<FoundService>(record->name, record->port, std::move(text)), false);
    }
    return true;
}

void Search::report(std::shared_ptr<NetService> service, bool moreComing) {
    {
        const LockGuard lock(mutex_);
        if (ended_) {
            return;
        }
        shownAny_ = true;
    }
    loop_->perform([weak = weak_from_this(), service = std::move(service), moreComing] {
        if (const auto self = weak.lock()) {
            self->deliver(service, moreComing);
        }
    });
}

void Search::deliver(const std::shared_ptr<NetService>& service, bool moreComing) {
    if (const auto owner = owner_.lock()) {
        owner->deliver(this, service, moreComing);
    }
}

void Search::startSilenceTimer(Clock::Duration interval) {
    const LockGuard lock(mutex_);
    if (ended_) {
        return;
    }
    if (silence_) {
        silence_->invalidate();
    }
    silence_ = loop_->scheduleTimer(interval, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) {
            self->reportSilence();
        }
    });
}

void Search::reportSilence() {
    {
        const LockGuard lock(mutex_);
        if (ended_ || shownAny_) {
            return;
        }
    }
    startSilenceTimer(kNextSilence);
    deliver(nullptr, false);
}

}  // namespace

std::shared_ptr<ServiceBrowser> ServiceBrowser::make() {
    return std::make_shared<AvahiServiceBrowser>();
}

}  // namespace krv
