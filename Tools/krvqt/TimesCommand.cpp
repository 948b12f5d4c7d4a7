#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "FileOperation.h"
#include "OwnRecord.h"
#include "Paths.h"

namespace krvqt {

ExitStatus showTimes(const TimesOptions& options, const CommonOptions& common) {
    std::string movie = options.movie;
    if (const ExitStatus status = makeAbsolute({&movie}); status != kDone) {
        return status;
    }
    const auto call = [&](const ServerAccess& access, krv::ErrorOut error) {
        const auto record = krv::KRVOperationBase::getInterestingTimesOperation(movie, options.track.has_value(),
                                                                                options.track.value_or(0));
        const auto finished = runRecord(access, record, nullptr, error);
        if (!finished && !*error) {
            return kCancelled;
        }
        const auto result = finished ? finished->result() : nullptr;
        const auto times = result ? (*result)[krv::kResultInterestingTimes].dictionary() : nullptr;
        const auto values = times ? (*times)[krv::kResultInterestingTimeValues].array() : nullptr;
        if (!values) {
            return kFailed;
        }
        const auto timescale = (*times)[krv::kResultInterestingTimeTimescale].integerValue();
        if (common.json) {
            nlohmann::json json{{"operation", "times"}, {"status", "done"}, {"source", movie}};
            json[std::string(krv::kResultInterestingTimeTimescale)] = timescale;
            auto& list = json[std::string(krv::kResultInterestingTimeValues)] = nlohmann::json::array();
            for (const krv::Value& value : *values) {
                list.push_back(value.integerValue());
            }
            fmt::print("{}\n", json.dump());
            return kDone;
        }
        for (const krv::Value& value : *values) {
            fmt::print("{:.6f}\n", static_cast<double>(value.integerValue()) / static_cast<double>(timescale));
        }
        return kDone;
    };
    return askQuestion("times", call, common);
}

}  // namespace krvqt
