#include "FileOperation.h"

#include <filesystem>

#include <fmt/format.h>

#include "FailureText.h"
#include "Output.h"
#include "TextValues.h"

namespace krvqt {

using Json = nlohmann::json;

FileReport::FileReport(const FileOperation& operation, const CommonOptions& common)
    : operation_(operation)
    , common_(common) {}

ExitStatus FileReport::done(const Describe& describe, const Print& print) const {
    std::error_code failure;
    const bool isFile = std::filesystem::is_regular_file(operation_.destination, failure);
    const auto bytes = isFile ? std::filesystem::file_size(operation_.destination, failure) : 0;
    if (common_.json) {
        auto json = result("done");
        json["seconds"] = elapsed();
        if (isFile) {
            json["bytes"] = bytes;
        }
        describe(json);
        printJSON(json);
        return kDone;
    }
    print();
    if (!common_.quiet) {
        say("krvqt: done, {}{:.1f} s\n", isFile ? fmt::format("{} in ", bytesText(bytes)) : std::string(), elapsed());
    }
    return kDone;
}

ExitStatus FileReport::failed(const krv::Failure& failure) const {
    const bool cancelled = failure.kind() == krv::Failure::Kind::Cancelled;
    if (common_.json) {
        auto json = result(cancelled ? "cancelled" : "failed");
        if (!cancelled) {
            json["error"] = failureJSON(failure);
        }
        printJSON(json);
    }
    if (cancelled) {
        say("krvqt: cancelled; {} was not written\n", operation_.destination);
    } else {
        say("krvqt: {}\n", failureText(failure));
    }
    return statusOf(failure);
}

Json FileReport::result(std::string_view status) const {
    Json json{{"operation", operation_.operation}, {"status", status}, {"destination", operation_.destination}};
    if (operation_.sources.size() == 1) {
        json["source"] = operation_.sources.front();
    } else {
        json["sources"] = operation_.sources;
    }
    return json;
}

double FileReport::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

krv::JobControl untilInterrupted() {
    krv::JobControl control;
    control.stop = Interruption::token();
    return control;
}

krv::Media media(const CommonOptions& common) {
    return krv::Media({.launch = krv::Media::Launch::IfMissing, .patience = common.wait});
}

}  // namespace krvqt
