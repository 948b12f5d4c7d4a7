#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Media.h>

#include "Commands.h"
#include "Output.h"
#include "Paths.h"

namespace krvqt {
namespace {

/// Prints one check, with what to do about it below what was found.
void printCheck(const krv::Check& check) {
    constexpr int kWidthOfState = 7;
    constexpr int kWidthOfName = 14;
    printOut("{:<{}}  {:<{}}  {}\n", krv::Check::nameOf(check.state), kWidthOfState, check.name, kWidthOfName,
             check.finding);
    if (!check.suggestion.empty()) {
        printOut("{:<{}}  {:<{}}  {}\n", "", kWidthOfState, "", kWidthOfName, check.suggestion);
    }
}

ExitStatus examine(const CommonOptions& common) {
    const krv::Diagnosis diagnosis = krv::diagnose(krv::Seconds(common.wait));
    const ExitStatus status = diagnosis.works ? kDone : kFailed;
    if (common.json) {
        nlohmann::json checks = nlohmann::json::array();
        for (const krv::Check& check : diagnosis.checks) {
            checks.push_back({{"name", check.name},
                              {"state", krv::Check::nameOf(check.state)},
                              {"finding", check.finding},
                              {"suggestion", check.suggestion}});
        }
        printJSON({{"operation", "doctor"}, {"works", diagnosis.works}, {"checks", std::move(checks)}});
        return status;
    }
    for (const krv::Check& check : diagnosis.checks) {
        printCheck(check);
    }
    printOut("{}\n", diagnosis.works ? "Conversions work." : "Conversions do not work.");
    return status;
}

}  // namespace

void addDoctor(CommandLine& line) {
    line.add("doctor", "find out whether conversions work here, and what is missing", examine);
}

}  // namespace krvqt
