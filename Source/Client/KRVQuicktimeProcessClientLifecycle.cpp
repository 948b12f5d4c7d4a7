// Creation and destruction of clients, and the process's shared client.
//
// defaultClient() returns the proxy, and clientWithTransport() the client itself, so clean-up differs. A proxy that is
// cleaned up only releases its client, which its runner keeps alive and working. A client without a proxy is cleaned
// up itself.
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/FreeDescriptors.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

namespace krv {
namespace {

constexpr float kProgressTimeout = 60.0F;
/// More than the main run loop, the search and the first request need together.
constexpr int kDescriptorsOfAClient = 24;

constexpr LogSite site(std::string_view function) {
    return {"Source/Client/KRVQuicktimeProcessClient", Selector(function)};
}

// Neither is ever destroyed, because an application's threads may use the client until the process exits.

RecursiveMutex& classLock() {
    static auto* instance = new RecursiveMutex;
    return *instance;
}

std::shared_ptr<KRVQTProcessOperations>& sharedClient() {
    static auto* instance = new std::shared_ptr<KRVQTProcessOperations>;
    return *instance;
}

}  // namespace

extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier)
std::shared_ptr<KRVQTProcessOperations>& __default_krv_quicktime_process_client = sharedClient();
}

std::shared_ptr<KRVQTProcessClientOperations> KRVQuicktimeProcessClient::defaultClient() {
    const LockGuard lock(classLock());
    if (!sharedClient()) {
        if (!RunLoop::isMainThread()) {
            throw Exception(std::string(kNotMainThreadException), "Please start this object on the main thread first");
        }
        requireFreeDescriptors(kDescriptorsOfAClient, "the client");
        (void)RunLoop::main();
        auto transport = std::make_shared<KRVHTTPClientTransport>(HTTPServerDiscovery::defaultInstance());
        sharedClient() = ReliabilityProxy::proxyForOperations(initWithTransport(std::move(transport), true));
    }
    // The variable takes only proxies and clients.
    return std::dynamic_pointer_cast<KRVQTProcessClientOperations>(sharedClient());
}

std::shared_ptr<KRVQuicktimeProcessClient>
KRVQuicktimeProcessClient::clientWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer) {
    const LockGuard lock(classLock());
    sharedClient().reset();
    auto client = initWithTransport(std::move(transport), monitorServer);
    sharedClient() = client;
    return client;
}

std::shared_ptr<KRVQuicktimeProcessClient>
KRVQuicktimeProcessClient::clientWithTransport(std::shared_ptr<KRVTransport> transport) {
    return clientWithTransport(std::move(transport), true);
}

void KRVQuicktimeProcessClient::destroySingleton() {
    std::shared_ptr<KRVQTProcessOperations> old;  // destroyed after the lock is released
    const LockGuard lock(classLock());
    old = sharedClient();
    if (auto* const proxy = dynamic_cast<ReliabilityProxy*>(old.get())) {
        proxy->cleanUp();
    } else if (auto* const client = dynamic_cast<KRVQuicktimeProcessClient*>(old.get())) {
        client->cleanUp();
    }
    sharedClient().reset();
}

std::shared_ptr<KRVQuicktimeProcessClient> KRVQuicktimeProcessClient::init() {
    throw Exception(std::string(kInvalidArgumentException),
                    "KRVQuicktimeProcessClient does not recognise init: a client is made with a transport");
}

std::shared_ptr<KRVQuicktimeProcessClient>
KRVQuicktimeProcessClient::initWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer) {
    return initWithTransport(std::move(transport), monitorServer, ServerRunner::Environment{});
}

std::shared_ptr<KRVQuicktimeProcessClient>
KRVQuicktimeProcessClient::initWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer,
                                             ServerRunner::Environment environment) {
    std::shared_ptr<KRVQuicktimeProcessClient> client(new KRVQuicktimeProcessClient(Clock::steady()));
    client->initWithMonitor(monitorServer, std::move(environment));
    client->setTransport(std::move(transport));
    return client;
}

KRVQuicktimeProcessClient::KRVQuicktimeProcessClient(Clock& clock)
    : clock_(clock) {}

KRVQuicktimeProcessClient::KRVQuicktimeProcessClient(std::shared_ptr<KRVTransport> transport, Clock& clock)
    : KRVQuicktimeProcessClient(clock) {
    initWithMonitor(false, {});
    setTransport(std::move(transport));
}

KRVQuicktimeProcessClient::~KRVQuicktimeProcessClient() {
    cleanUp();
}

void KRVQuicktimeProcessClient::initWithMonitor(bool monitorServer, ServerRunner::Environment environment) {
    auto monitor = std::make_shared<KRVProcessMonitor>();
    std::shared_ptr<ServerRunner> runner;
    if (monitorServer) {
        // Its first step runs a second later, when the transport is set.
        runner = ServerRunner::initWithProcessMonitor(monitor, shared_from_this(), std::move(environment));
    }
    {
        const LockGuard lock(mutex_);
        procMonitor_ = std::move(monitor);
        serverRunner_ = std::move(runner);
    }
    setProgressTimeoutDuration(kProgressTimeout);
    KRV_LOG(kLogFlagInfo, site("initWithMonitor:"), "KRVQuicktimeProcessClient started");
}

void KRVQuicktimeProcessClient::cleanUp() {
    if (inCleanup_.exchange(true)) {
        return;
    }
    const auto self = weak_from_this().lock();  // the runner may have the only other reference
    std::shared_ptr<ServerRunner> runner;
    std::shared_ptr<KRVProcessMonitor> monitor;
    {
        const LockGuard lock(mutex_);
        monitor.swap(procMonitor_);
        runner.swap(serverRunner_);
    }
    monitor.reset();
    if (runner) {
        runner->cleanUp();
    }
    setTransport(nullptr);
}

std::shared_ptr<ServerRunner> KRVQuicktimeProcessClient::serverRunner() const {
    const LockGuard lock(mutex_);
    return serverRunner_;
}

std::shared_ptr<KRVProcessMonitor> KRVQuicktimeProcessClient::procMonitor() const {
    const LockGuard lock(mutex_);
    return procMonitor_;
}

std::shared_ptr<KRVTransport> KRVQuicktimeProcessClient::transport() const {
    return transport_.get();
}

void KRVQuicktimeProcessClient::setTransport(std::shared_ptr<KRVTransport> transport) {
    transport_.set(std::move(transport));
}

std::string KRVQuicktimeProcessClient::description() const {
    return fmt::format("<KRVQuicktimeProcessClient: {}>", static_cast<const void*>(this));
}

}  // namespace krv
