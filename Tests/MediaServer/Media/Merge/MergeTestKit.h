#pragma once

#include <string>
#include <vector>

#include "MediaTestKit.h"
#include <MediaServer/Media/Merge/Merge.h>

namespace krv::media::test {

/// Join movies, given by their names in scripts/make-test-media or by their paths. Throw what merge() throws.
OutputPath join(const std::vector<std::string>& sources, const std::string& extension, bool useShortest,
                ProgressSink& sink);
OutputPath join(const std::vector<std::string>& sources, const std::string& extension = "mov",
                bool useShortest = false);

/// As join(), with the frame rate and size of a request.
OutputPath joinAs(const MergeRequest& wishes, const std::vector<std::string>& sources, const std::string& extension);

/// Returns a list of hashes, repeated.
std::vector<std::string> repeated(const std::vector<std::string>& hashes, std::size_t times);

}  // namespace krv::media::test
