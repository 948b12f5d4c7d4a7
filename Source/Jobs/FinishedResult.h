#pragma once

#include <memory>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

/// Makes the typed results of finished records. What a record lacks stays at its default. The records come from our own
/// server, but are not trusted: no value of another kind or size does harm.
namespace krv {

/// Returns a Converted.
[[nodiscard]] std::shared_ptr<const void> converted(const KRVOperationBase::Ref& finished);
/// Returns a Merged.
[[nodiscard]] std::shared_ptr<const void> merged(const KRVOperationBase::Ref& finished);
/// Returns Thumbnails.
[[nodiscard]] std::shared_ptr<const void> thumbnails(const KRVOperationBase::Ref& finished);
/// Returns a MovieInfo.
[[nodiscard]] std::shared_ptr<const void> movieInfo(const KRVOperationBase::Ref& finished);
/// Returns InterestingTimes.
[[nodiscard]] std::shared_ptr<const void> interestingTimes(const KRVOperationBase::Ref& finished);

}  // namespace krv
