#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Platform/HTTPClient.h>

#include "Commands.h"
#include "FailureText.h"
#include "OperationThread.h"
#include "OwnRecord.h"
#include "ServerAccess.h"

namespace krvqt {
namespace {

using krv::KRVOperationBase;

/// Returns the object that the server reports at /status. Throws if there is none.
nlohmann::json statusPage(const ServerAccess& access) {
    constexpr std::chrono::seconds kTimeout{5};
    const auto response = krv::HTTPClient::shared().send(
        {.url = fmt::format("http://localhost:{}/status", access.discovery->servicePortNumber()),
         .body = std::nullopt,
         .timeout = kTimeout});
    nlohmann::json page;
    if (response.body && !response.error) {
        const auto* p = reinterpret_cast<const char*>(response.body->data());
        page = nlohmann::json::parse(p, p + response.body->size(), nullptr, false);
    }
    if (!page.is_object() || !page.contains("clients")) {
        throw krv::Exception(std::string(krv::kHTTPServerNSURLConnectionError),
                             response.error.value_or("its status page is not a status object"));
    }
    return page;
}

ExitStatus withServer(const CommonOptions& common, const std::function<ExitStatus(const ServerAccess&)>& work) {
    const ServerAccess access = ServerAccess::looking();
    return runBesideMainLoop([&] {
        if (const ExitStatus status = reachServer(access, common); status != kDone) {
            return status;
        }
        try {
            return work(access);
        } catch (const krv::Exception& exception) {
            fmt::print(stderr, "krvqt: the media server does not respond: {}\n", exception.reason());
            return kNoServer;
        }
    });
}

}  // namespace

ExitStatus showStatus(const CommonOptions& common) {
    return withServer(common, [&common](const ServerAccess& access) {
        const auto reply = sendRecord(access, KRVOperationBase::numberOfOperationsOperation());
        auto status = statusPage(access);
        status["names"] = nlohmann::json::array();
        if (const auto list = reply->numOpsNames()) {
            for (const krv::Value& name : *list) {
                status["names"].push_back(name.description());
            }
        }
        if (common.json) {
            fmt::print("{}\n", status.dump());
            return kDone;
        }
        for (const char* key :
             {"version", "pid", "port", "uptime", "clients", "queued", "running", "finished", "workers"}) {
            fmt::print("{:<9} {}\n", key, status[key].dump());
        }
        for (const auto& name : status["names"]) {
            fmt::print("          {}\n", name.get<std::string>());
        }
        return kDone;
    });
}

ExitStatus cancelAll(const CommonOptions& common) {
    return withServer(common, [&common](const ServerAccess& access) {
        // The operation cancels the work of one client, so it is sent once on behalf of each.
        const auto page = statusPage(access);
        for (const auto& pid : page["clients"]) {
            const auto operation = KRVOperationBase::cancelAllOperationsOperation();
            operation->setRegInfoPID(pid.get<std::int64_t>());
            const auto error = sendRecord(access, operation)->error();
            // A client that has exited since has nothing left to cancel.
            if (error && krv::KRVProcessMonitor::doesProcessExist(pid.get<std::int32_t>(), "")) {
                fmt::print(stderr, "krvqt: {}\n", failureText(*error));
                return kFailed;
            }
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
            fmt::print(stderr, "krvqt: the media server refused to shut down\n");
            return kFailed;
        }
        if (common.json) {
            fmt::print("{}\n", nlohmann::json{{"operation", "shutdown"}, {"status", "done"}}.dump());
        } else if (!common.quiet) {
            fmt::print(stderr, "krvqt: the media server exits when it has finished its work\n");
        }
        return kDone;
    });
}

}  // namespace krvqt
