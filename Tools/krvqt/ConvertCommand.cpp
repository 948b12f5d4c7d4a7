#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string_view>

#include <fmt/format.h>

#include "CodecCode.h"
#include "Commands.h"
#include "FailureText.h"
#include "Interruption.h"
#include "OperationThread.h"
#include "ProgressDisplay.h"
#include "ServerAccess.h"

namespace krvqt {
namespace {

ExitStatus usage(std::string_view text) {
    fmt::print(stderr, "krvqt: {}\n", text);
    return kUsage;
}

bool canTravel(const std::string& path) {
    try {
        (void)krv::KRVOperationBase::provideMetadataFor(path)->convertToData();
        return true;
    } catch (const krv::Exception&) {
        return false;
    }
}

/// What the call carries, worked out before anything is begun.
struct Request {
    std::string source;
    std::string destination;
    std::int32_t type = krv::VideoConversion::H264;
    bool flatten = false;
    bool withSettings = false;
    std::shared_ptr<krv::VideoEncodingParameters> video;
    std::shared_ptr<krv::AudioEncodingParameters> audio;
};

template <typename Parameters>
bool fill(std::shared_ptr<Parameters>& parameters, const TrackOptions& options, std::string_view which) {
    if (!parameters) {
        std::shared_ptr<const krv::Data> blob;
        if (options.settings) {
            const auto* p = reinterpret_cast<const std::byte*>(options.settings->data());
            blob = std::make_shared<const krv::Data>(p, p + options.settings->size());
        }
        parameters = Parameters::encodingParametersWithData(std::move(blob));
    }
    if (options.codec) {
        const auto code = codecCode(*options.codec);
        if (!code) {
            usage(fmt::format("--{}-codec takes a code of up to four characters, such as avc1", which));
            return false;
        }
        parameters->setCodec(*code);
    }
    if (options.quality) {
        parameters->setQuality(*options.quality);
    }
    return true;
}

ExitStatus prepare(const ConvertOptions& options, Request& request) {
    request.source = std::filesystem::absolute(options.source).string();
    request.destination = std::filesystem::absolute(options.destination).string();
    for (const std::string& path : {request.source, request.destination}) {
        if (!canTravel(path)) {
            return usage("a file name that is not UTF-8 cannot be sent to the media server; rename the file");
        }
    }
    std::error_code failure;
    if (!options.force && std::filesystem::exists(std::filesystem::symlink_status(request.destination, failure))) {
        return usage(fmt::format("{} exists; use --force to replace it", options.destination));
    }
    if (options.type) {
        const auto type = encodingType(*options.type);
        if (!type) {
            return usage(fmt::format("'{}' is no encoding type; see 'krvqt types'", *options.type));
        }
        request.type = *type;
    } else {
        request.type = defaultEncodingType(request.destination);
    }
    request.flatten = options.flatten;
    request.withSettings = options.withSettings();
    if (request.withSettings && (options.type || options.flatten)) {
        return usage("video and audio options make a conversion of type Custom; leave out --type and --flatten");
    }
    if (options.video.any() || options.fps) {
        if (!fill(request.video, options.video, "video")) {
            return kUsage;
        }
        request.video->setFps(options.fps.value_or(0.0F));
    }
    if (options.audio.any() && !fill(request.audio, options.audio, "audio")) {
        return kUsage;
    }
    return kDone;
}

class Report {
public:
    Report(const Request& request, const CommonOptions& common)
        : request_(request)
        , common_(common) {}

    ExitStatus done() const {
        std::error_code failure;
        const auto bytes = std::filesystem::file_size(request_.destination, failure);
        if (common_.json) {
            auto json = result("done");
            json["bytes"] = bytes;
            json["seconds"] = elapsed();
            print(json);
        } else {
            fmt::print("{}\n", request_.destination);
            if (!common_.quiet) {
                fmt::print(stderr, "krvqt: done, {:.1f} MB in {:.1f} s\n", static_cast<double>(bytes) / 1e6, elapsed());
            }
        }
        return kDone;
    }

    ExitStatus cancelled() const {
        if (common_.json) {
            print(result("cancelled"));
        }
        fmt::print(stderr, "krvqt: cancelled; {} was not written\n", request_.destination);
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
            json["error"] = {{"description", "The media server went away."}, {"reason", exception.reason()}};
            print(json);
        }
        fmt::print(
            stderr,
            "krvqt: the media server went away while it was working on {}\n  cause: {}\n  try:   run the command "
            "again; {} was not written\n",
            request_.source, exception.reason(), request_.destination);
        return kNoServer;
    }

private:
    nlohmann::json result(std::string_view status) const {
        return {{"operation", "convert"},
                {"status", status},
                {"source", request_.source},
                {"destination", request_.destination}};
    }
    static void print(const nlohmann::json& json) { fmt::print("{}\n", json.dump()); }
    double elapsed() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

    const Request& request_;
    const CommonOptions& common_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

ExitStatus run(const Request& request, const ServerAccess& access, const CommonOptions& common) {
    if (const ExitStatus status = reachServer(access, common); status != kDone) {
        return status;
    }
    const Report report(request, common);
    const auto display = std::make_shared<ProgressDisplay>(common.quiet);
    std::shared_ptr<const krv::Error> error;
    try {
        if (request.withSettings) {
            access.client->convertMovie(request.source, request.destination, request.video, request.audio, display,
                                        &error);
        } else {
            access.client->convertMovie(request.source, request.destination, request.type, request.flatten, display,
                                        &error);
        }
    } catch (const krv::Exception& exception) {
        display->finish(false);
        return report.serverWentAway(exception);
    }
    const bool cancelled = display->operationWasCancelled() && !error;
    display->finish(!error && !cancelled);
    if (error) {
        return report.failed(*error);
    }
    return cancelled ? report.cancelled() : report.done();
}

}  // namespace

ExitStatus convert(const ConvertOptions& options, const CommonOptions& common) {
    Request request;
    if (const ExitStatus status = prepare(options, request); status != kDone) {
        return status;
    }
    const ServerAccess access = ServerAccess::launching();
    return runBesideMainLoop([&] { return run(request, access, common); });
}

}  // namespace krvqt
