#pragma once

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// Copies what a worker has found in a movie, its tracks, tags and chapters, from its result to that of the reply:
/// known keys only, each with a value of the right kind, and at most as much as MediaRequest.h allows. Throws Lie if
/// something is missing or not as OperationKeys.h says.
void copyMovieContents(const Dictionary& reported, Dictionary& result);

}  // namespace krv::server
