#include <string>

#include <fmt/format.h>

#include <KRVQTProcessClient/Operations/OperationKeys.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Paths.h"
#include "Question.h"

namespace krvqt {

ExitStatus showTimes(const TimesOptions& options, const CommonOptions& common) {
    const auto times =
        media(common)
            .interestingTimes({.source = options.movie, .track = options.track, .control = untilInterrupted()})
            .wait();
    if (!times) {
        return questionFailed("times", times.error(), common);
    }
    if (common.json) {
        nlohmann::json json{{"operation", "times"}, {"status", "done"}, {"source", absolutePath(options.movie)}};
        json[std::string(krv::kResultInterestingTimeTimescale)] = times->timescale;
        json[std::string(krv::kResultInterestingTimeValues)] = times->values;
        printJSON(json);
        return kDone;
    }
    for (const krv::Seconds time : times->seconds()) {
        fmt::print("{:.6f}\n", time.count());
    }
    return kDone;
}

}  // namespace krvqt
