#include "Paths.h"

#include <filesystem>

#include <fmt/format.h>

#include "Output.h"

namespace krvqt {
ExitStatus usage(std::string_view text) {
    say("krvqt: {}\n", text);
    return kUsage;
}

std::string absolutePath(const std::string& file) {
    std::error_code failure;
    const auto whole = std::filesystem::absolute(file, failure);
    return failure ? file : whole.string();
}

void printPath(const std::string& file) {
    print("{}\n", file);
}

void printJSON(const nlohmann::json& object) {
    print("{}\n", object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

ExitStatus checkDestination(const std::string& destination, bool force) {
    std::error_code failure;
    if (!force && std::filesystem::exists(std::filesystem::symlink_status(destination, failure))) {
        return usage(fmt::format("{} exists; use --force to replace it", destination));
    }
    return kDone;
}

}  // namespace krvqt
