#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include <KRVQTProcessClient/Operations/OperationKeys.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Numbers.h"
#include "Output.h"
#include "OutputNames.h"
#include "Paths.h"
#include "Question.h"

namespace krvqt {
namespace {

constexpr double kMostTracks = std::numeric_limits<std::int32_t>::max();

struct TimesOptions {
    std::string movie;
    std::optional<std::int32_t> track;
};

ExitStatus showTimes(const TimesOptions& options, const CommonOptions& common) {
    checkSource(options.movie);
    ProgressDisplay display(common.quiet);
    const auto times = media(common)
                           .interestingTimes({.source = options.movie,
                                              .track = options.track,
                                              .onProgress = [&](const krv::Progress& p) { display.showWaiting(p); },
                                              .control = untilInterrupted()})
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
        printOut("{:.6f}\n", time.count());
    }
    return kDone;
}

}  // namespace

void addTimes(CommandLine& line) {
    const auto options = std::make_shared<TimesOptions>();
    CLI::App& command = line.add("times", "list the times in seconds that are worth seeking to",
                                 [options](const CommonOptions& common) { return showTimes(*options, common); });
    command.add_option("movie", options->movie, "the movie to read")->required()->type_name("MOVIE");
    addNumber(command, "--track", options->track, {.least = 0, .most = kMostTracks, .whole = true},
              "index of a track, from 0; lists the times of that track only");
}

}  // namespace krvqt
