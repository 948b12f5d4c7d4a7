#include "Question.h"

#include <fmt/format.h>

#include "FailureText.h"
#include "Output.h"
#include "Paths.h"

namespace krvqt {

ExitStatus questionFailed(std::string_view what, const krv::Failure& failure, const CommonOptions& common,
                          const std::string& path) {
    const bool cancelled = failure.kind() == krv::Failure::Kind::Cancelled;
    if (common.json) {
        nlohmann::json json{{"operation", what}, {"status", cancelled ? "cancelled" : "failed"}};
        if (!path.empty()) {
            json["path"] = path;
        }
        if (!cancelled) {
            json["error"] = failureJSON(failure);
        }
        printJSON(json);
    }
    say("krvqt: {}\n", cancelled ? "cancelled" : failureText(failure));
    return statusOf(failure);
}

}  // namespace krvqt
