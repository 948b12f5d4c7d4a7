#include "FileOperation.h"

#include <chrono>
#include <filesystem>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "DroppedTracks.h"
#include "FailureText.h"
#include "Interruption.h"
#include "OperationThread.h"
#include "OwnRecord.h"
#include "ProgressDisplay.h"

namespace krvqt {
namespace {

using Json = nlohmann::json;

/// How often an operation is sent to a server, as the reliable calls of the library do.
constexpr int kAttempts = 3;

void print(const Json& json) {
    fmt::print("{}\n", json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

class Report {
public:
    Report(const FileOperation& operation, const CommonOptions& common)
        : operation_(operation)
        , common_(common) {}

    ExitStatus done(const krv::KRVOperationBase::Ref& finished) const {
        const auto dropped = droppedTracks(finished);
        std::error_code failure;
        const bool isFile = std::filesystem::is_regular_file(operation_.destination, failure);
        const auto bytes = isFile ? std::filesystem::file_size(operation_.destination, failure) : 0;
        if (common_.json) {
            auto json = result("done");
            json["seconds"] = elapsed();
            if (isFile) {
                json["bytes"] = bytes;
            }
            if (dropped) {
                json[std::string(krv::kResultDroppedTracks)] = droppedJSON(*dropped);
            }
            if (operation_.describe) {
                operation_.describe(json);
            }
            print(json);
            return kDone;
        }
        if (dropped) {
            printDropped(*dropped, operation_.sources);
        }
        if (operation_.print) {
            operation_.print();
        } else {
            fmt::print("{}\n", operation_.destination);
        }
        if (!common_.quiet) {
            fmt::print(stderr, "krvqt: done, {}{:.1f} s\n",
                       isFile ? fmt::format("{:.1f} MB in ", static_cast<double>(bytes) / 1e6) : std::string(),
                       elapsed());
        }
        return kDone;
    }

    ExitStatus cancelled() const {
        if (common_.json) {
            print(result("cancelled"));
        }
        fmt::print(stderr, "krvqt: cancelled; {} was not written\n", operation_.destination);
        return kCancelled;
    }

    ExitStatus failed(const krv::Error& error) const {
        if (common_.json) {
            auto json = result("failed");
            json["error"] = failureJSON(error);
            print(json);
        }
        fmt::print(stderr, "krvqt: {}\n", failureText(error));
        return kFailed;
    }

    ExitStatus serverWentAway(const krv::Exception& exception) const {
        if (common_.json) {
            auto json = result("failed");
            json["error"] = {{"description", "The media server exited or stopped responding."},
                             {"reason", exception.reason()}};
            print(json);
        }
        fmt::print(
            stderr,
            "krvqt: the media server exited or stopped responding while it was working on {}\n  cause: {}\n  try:   "
            "run the command again; {} was not written\n",
            operation_.sources.front(), exception.reason(), operation_.destination);
        return kNoServer;
    }

private:
    Json result(std::string_view status) const {
        Json json{{"operation", operation_.operation}, {"status", status}, {"destination", operation_.destination}};
        if (operation_.sources.size() == 1) {
            json["source"] = operation_.sources.front();
        } else {
            json["sources"] = operation_.sources;
        }
        return json;
    }
    double elapsed() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

    const FileOperation& operation_;
    const CommonOptions& common_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

ExitStatus make(const FileOperation& operation, const FileCall& call, const ServerAccess& access,
                const CommonOptions& common) {
    if (const ExitStatus status = reachServer(access, common); status != kDone) {
        return status;
    }
    const Report report(operation, common);
    const auto display = std::make_shared<ProgressDisplay>(
        common.quiet, [&access](const krv::KRVOperationBase& each) { return queuePosition(access, each); });
    std::shared_ptr<const krv::Error> error;
    krv::KRVOperationBase::Ref finished;
    for (int attempt = 1;; ++attempt) {
        try {
            finished = call(access, display, &error);
            break;
        } catch (const krv::Exception& exception) {
            if (attempt == kAttempts || Interruption::requested()) {
                display->finish(false);
                return report.serverWentAway(exception);
            }
        }
        if (const ExitStatus status = reachServer(access, common); status != kDone) {
            display->finish(false);
            return status;
        }
        display->startOver();
    }
    const bool cancelled = display->operationWasCancelled() && !error;
    display->finish(!error && !cancelled);
    if (error) {
        return report.failed(*error);
    }
    return cancelled ? report.cancelled() : report.done(finished);
}

ExitStatus ask(std::string_view what, const QuestionCall& call, const ServerAccess& access,
               const CommonOptions& common) {
    if (const ExitStatus status = reachServer(access, common); status != kDone) {
        return status;
    }
    Interruption::onRequest([client = access.client] {
        std::shared_ptr<const krv::Error> ignored;
        client->cancelAllOperations(&ignored);
    });
    std::shared_ptr<const krv::Error> error;
    ExitStatus status = kFailed;
    for (int attempt = 1;; ++attempt) {
        try {
            status = call(access, &error);
            break;
        } catch (const krv::Exception& exception) {
            if (Interruption::requested()) {
                return kCancelled;
            }
            if (attempt == kAttempts) {
                fmt::print(stderr,
                           "krvqt: the media server exited or stopped responding\n  cause: {}\n  try:   run the "
                           "command again\n",
                           exception.reason());
                return kNoServer;
            }
        }
        if (const ExitStatus reached = reachServer(access, common); reached != kDone) {
            return reached;
        }
    }
    if (Interruption::requested() || status == kCancelled) {
        fmt::print(stderr, "krvqt: cancelled\n");
        return kCancelled;
    }
    if (error) {
        if (common.json) {
            print({{"operation", what}, {"status", "failed"}, {"error", failureJSON(*error)}});
        }
        fmt::print(stderr, "krvqt: {}\n", failureText(*error));
        return kFailed;
    }
    return status;
}

}  // namespace

ExitStatus makeFile(const FileOperation& operation, const FileCall& call, const CommonOptions& common) {
    const ServerAccess access = ServerAccess::launching();
    return runBesideMainLoop([&] { return make(operation, call, access, common); });
}

ExitStatus askQuestion(std::string_view what, const QuestionCall& call, const CommonOptions& common) {
    const ServerAccess access = ServerAccess::launching();
    return runBesideMainLoop([&] { return ask(what, call, access, common); });
}

}  // namespace krvqt
