#include "FailureText.h"

#include <cerrno>
#include <filesystem>
#include <string_view>

#include <unistd.h>

#include <fmt/format.h>

namespace krvqt {
namespace {

using Code = krv::OperationErrorCode;

/// Domain of the error that ends a wait for progress.
constexpr std::string_view kTimeoutDomain = "TransportCheck";

std::string path(const krv::Error& error) {
    return error.userInfo() ? (*error.userInfo())[krv::kErrorFilePath].stringValue() : std::string();
}

/// The server runs on this machine as this user, so what stops it from reading the file shows here as well.
std::string adviceForSource(const std::string& file) {
    if (::access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
        return "check the path";
    }
    if (::access(file.c_str(), R_OK) != 0) {
        return "change the permissions, so that you may read the file";
    }
    return {};
}

std::string adviceForDestination(const std::string& file) {
    const std::string folder = std::filesystem::path(file).parent_path();
    if (::access(folder.c_str(), F_OK) != 0) {
        return fmt::format("create the folder {}", folder);
    }
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        return "choose a folder that you may write to";
    }
    return "choose another destination, or make space for it";
}

/// Returns what a person can do about an error. Empty if nothing is known to help.
std::string advice(const krv::Error& error) {
    if (error.domain() == kTimeoutDomain) {
        return "run the command again; if it fails again, look at the media server's log";
    }
    if (error.domain() != krv::kMediaServerErrorDomain) {
        return {};
    }
    switch (static_cast<Code>(error.code())) {
    case Code::CannotAcceptWork:
        return "run the command again when the media server has less to do";
    case Code::UnreadableSource:
        return adviceForSource(path(error));
    case Code::UnwritableDestination:
        return adviceForDestination(path(error));
    case Code::Unsupported:
        return "choose another container, codec or setting; 'krvqt types' lists the encoding types";
    case Code::WorkerFailed:
        return "run the command again; if it fails again, the file is probably damaged";
    case Code::SameFile:
        return "choose another destination";
    case Code::UnusableSource:  // the message says what the file lacks
    case Code::UnknownOperation:
    case Code::Internal:
    case Code::InvalidArgument:
        return {};
    }
    return {};
}

}  // namespace

std::string failureText(const krv::Error& error) {
    std::string text = error.localizedDescription();
    const auto line = [&text](std::string_view heading, const std::string& content) {
        if (!content.empty()) {
            text += fmt::format("\n  {:<6} {}", heading, content);
        }
    };
    const std::string sentence = text;
    const auto isSaid = [&sentence](const std::string& content) { return sentence.find(content) != std::string::npos; };
    if (const std::string file = path(error); !isSaid(file)) {
        line("file:", file);
    }
    if (const std::string reason = error.localizedFailureReason(); !isSaid(reason)) {
        line("cause:", reason);
    }
    line("try:", advice(error));
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
