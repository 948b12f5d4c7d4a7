#include "FailureText.h"

#include <string_view>

#include <fmt/format.h>

namespace krvqt {
namespace {

constexpr std::string_view kServerDomain = "KRVQuicktimeProcess";
constexpr std::string_view kTimeoutDomain = "TransportCheck";
constexpr std::string_view kFilePathKey = "KRVFilePath";

/// What a person can do about an error of the server.
std::string_view advice(const krv::Error& error) {
    if (error.domain() == kTimeoutDomain) {
        return "the server has been asked to give up; try again, and look at its log if it happens again";
    }
    if (error.domain() != kServerDomain) {
        return {};
    }
    switch (error.code()) {
    case 3:
        return "check the path and that you may read the file";
    case 4:
        return "check that the file plays; a download may have been cut short";
    case 5:
        return "check that the folder exists, that you may write to it, and that there is space";
    case 6:
        return "choose another container, codec or setting; 'krvqt types' lists the encoding types";
    case 7:
        return "the file is probably damaged; the server itself goes on";
    case 10:
        return "give another destination";
    default:
        return {};
    }
}

std::string path(const krv::Error& error) {
    return error.userInfo() ? (*error.userInfo())[kFilePathKey].stringValue() : std::string();
}

}  // namespace

std::string failureText(const krv::Error& error) {
    std::string text = error.localizedDescription();
    const std::string file = path(error);
    if (!file.empty() && text.find(file) == std::string::npos) {
        text += fmt::format("\n  file:  {}", file);
    }
    if (const std::string reason = error.localizedFailureReason(); !reason.empty()) {
        text += fmt::format("\n  cause: {}", reason);
    }
    if (const std::string_view hint = advice(error); !hint.empty()) {
        text += fmt::format("\n  try:   {}", hint);
    }
    return text;
}

nlohmann::json failureJSON(const krv::Error& error) {
    nlohmann::json json{{"domain", error.domain()},
                        {"code", error.code()},
                        {"description", error.localizedDescription()},
                        {"reason", error.localizedFailureReason()}};
    if (const std::string file = path(error); !file.empty()) {
        json["path"] = file;
    }
    return json;
}

}  // namespace krvqt
