#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "FailureText.h"
#include "OperationThread.h"
#include "ServerAccess.h"

namespace krvqt {
namespace {

using krv::KRVOperationBase;

/// One operation of our own over the client's transport.
KRVOperationBase::Ref ask(const ServerAccess& access, const KRVOperationBase::Ref& operation) {
    return krv::TransportInvocation::throwExceptionBasedOnResponse(
        operation, krv::TransportInvocation::invocationWith(operation)->invokeOverTransport(access.transport, nullptr));
}

ExitStatus withServer(const CommonOptions& common, const std::function<ExitStatus(const ServerAccess&)>& work) {
    return runBesideMainLoop([&] {
        ServerAccess access;
        if (const ExitStatus status = reachServer(access, common, WhenAbsent::GiveUp); status != kDone) {
            return status;
        }
        try {
            return work(access);
        } catch (const krv::Exception& exception) {
            fmt::print(stderr, "krvqt: the media server does not answer: {}\n", exception.reason());
            return kNoServer;
        }
    });
}

}  // namespace

ExitStatus showStatus(const CommonOptions& common) {
    return withServer(common, [&common](const ServerAccess& access) {
        const auto reply = ask(access, KRVOperationBase::numberOfOperationsOperation());
        const long port = access.discovery->servicePortNumber();
        const auto count = reply->numOpsNumberOfOperations().integerValue();
        std::vector<std::string> names;
        if (const auto list = reply->numOpsNames()) {
            for (const krv::Value& name : *list) {
                names.push_back(name.description());
            }
        }
        if (common.json) {
            const nlohmann::json json{{"port", port}, {"operations", count}, {"names", names}};
            fmt::print("{}\n", json.dump());
            return kDone;
        }
        fmt::print("port:        {}\noperations:  {}\n", port, count);
        for (const std::string& name : names) {
            fmt::print("  {}\n", name);
        }
        return kDone;
    });
}

ExitStatus cancelAll(const CommonOptions& common) {
    return withServer(common, [&common](const ServerAccess& access) {
        const auto reply = ask(access, KRVOperationBase::cancelAllOperationsOperation());
        if (const auto error = reply->error()) {
            fmt::print(stderr, "krvqt: {}\n", failureText(*error));
            return kFailed;
        }
        if (common.json) {
            fmt::print("{}\n", nlohmann::json{{"operation", "cancel-all"}, {"status", "done"}}.dump());
        }
        return kDone;
    });
}

ExitStatus shutDown(const CommonOptions& common) {
    return withServer(common, [&common](const ServerAccess& access) {
        if (!access.client->queueShutdownOfCurrentServer()) {
            fmt::print(stderr, "krvqt: the media server did not take the request to end\n");
            return kFailed;
        }
        if (common.json) {
            fmt::print("{}\n", nlohmann::json{{"operation", "shutdown"}, {"status", "done"}}.dump());
        } else if (!common.quiet) {
            fmt::print(stderr, "krvqt: the media server ends when it has finished what it is doing\n");
        }
        return kDone;
    });
}

}  // namespace krvqt
