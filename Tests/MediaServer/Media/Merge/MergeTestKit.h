#pragma once

#include <string>
#include <vector>

#include "MediaTestKit.h"
#include <MediaServer/Media/Merge/Merge.h>

namespace krv::media::test {

/// Joins movies: names of those that scripts/make-test-media has made, or paths. Throws what merge() throws.
OutputPath join(const std::vector<std::string>& sources, const std::string& extension, bool useShortest,
                ProgressSink& sink);
OutputPath join(const std::vector<std::string>& sources, const std::string& extension = "mov",
                bool useShortest = false);

/// The hashes of a source's packets, so many times.
std::vector<std::string> repeated(const std::vector<std::string>& hashes, std::size_t times);

}  // namespace krv::media::test
