#include "FailureText.h"

#include <string_view>

#include <fmt/format.h>

namespace krvqt {

std::string failureText(const krv::Failure& failure) {
    const std::string& sentence = failure.message();
    std::string text = sentence;
    const auto line = [&text, &sentence](std::string_view heading, const std::string& content) {
        if (!content.empty() && sentence.find(content) == std::string::npos) {
            text += fmt::format("\n  {:<6} {}", heading, content);
        }
    };
    line("file:", failure.file().string());
    line("cause:", failure.cause());
    line("try:", failure.suggestion());
    return text;
}

nlohmann::json failureJSON(const krv::Failure& failure) {
    nlohmann::json json{{"kind", krv::Failure::nameOf(failure.kind())},
                        {"code", failure.code()},
                        {"description", failure.message()},
                        {"reason", failure.cause()}};
    if (!failure.file().empty()) {
        json["path"] = failure.file().string();
    }
    if (!failure.suggestion().empty()) {
        json["suggestion"] = failure.suggestion();
    }
    return json;
}

ExitStatus statusOf(const krv::Failure& failure) {
    switch (failure.kind()) {
    case krv::Failure::Kind::Cancelled:
        return kCancelled;
    case krv::Failure::Kind::Unreachable:
    case krv::Failure::Kind::ServerLost:
        return kNoServer;
    case krv::Failure::Kind::BadArgument:
        // What the library refuses by itself is wrong on the command line. What the server refuses has a code.
        return failure.code() == 0 ? kUsage : kFailed;
    default:
        return kFailed;
    }
}

}  // namespace krvqt
