#include "Paths.h"

#include <filesystem>

#include <fmt/format.h>

#include "Output.h"
#include "Usage.h"

namespace krvqt {

std::string absolutePath(const std::string& file) {
    std::error_code failure;
    const auto whole = std::filesystem::absolute(file, failure);
    return failure ? file : whole.string();
}

void printPath(const std::string& file) {
    printOut("{}\n", file);
}

void printJSON(const nlohmann::json& object) {
    printOut("{}\n", object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace krvqt
