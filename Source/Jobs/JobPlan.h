#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <KRVQTProcessClient/Jobs/JobOptions.h>
#include <KRVQTProcessClient/Jobs/Result.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {

/// One media operation, as the engine carries it out.
struct JobPlan {
    /// The beginning of a sentence for a person, such as "Converting holiday.mov".
    std::string activity{};
    /// The source, or the first of several.
    std::filesystem::path source{};
    /// Makes a new record for each attempt.
    std::function<KRVOperationBase::Ref()> makeRecord{};
    /// Makes the job's result of the finished record.
    std::function<std::shared_ptr<const void>(const KRVOperationBase::Ref&)> makeResult{};
    /// Whether the server carries it out beside long work.
    bool isShort = false;
};

// Check the options, and make relative paths absolute. Return Failure::Kind::BadArgument for options that no server can
// take.

[[nodiscard]] Result<JobPlan> planOf(const ConvertOptions& options);
[[nodiscard]] Result<JobPlan> planOf(const FlattenOptions& options);
[[nodiscard]] Result<JobPlan> planOf(const MixToStereoOptions& options);
[[nodiscard]] Result<JobPlan> planOf(const MergeOptions& options);
[[nodiscard]] Result<JobPlan> planOf(const ThumbnailOptions& options);
[[nodiscard]] Result<JobPlan> planOf(const InfoOptions& options);
[[nodiscard]] Result<JobPlan> planOf(const InterestingTimesOptions& options);

}  // namespace krv
