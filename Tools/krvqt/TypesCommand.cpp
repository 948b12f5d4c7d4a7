#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "Commands.h"
#include "Output.h"

namespace krvqt {
namespace {

ExitStatus showTypes(const CommonOptions& common) {
    for (const auto& type : krv::VideoConversion::types()) {
        if (common.json) {
            const nlohmann::json json{
                {"type", static_cast<std::int32_t>(type.type)}, {"name", type.name}, {"meaning", type.meaning}};
            printOut("{}\n", json.dump());
        } else {
            printOut("{}  {:<12}  {}\n", static_cast<std::int32_t>(type.type), type.name, type.meaning);
        }
    }
    return kDone;
}

}  // namespace

void addTypes(CommandLine& line) {
    line.add("types", "list the encoding types and what they mean", showTypes);
}

}  // namespace krvqt
