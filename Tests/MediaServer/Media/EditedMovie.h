#pragma once

#include <string>
#include <vector>

#include "MediaTestKit.h"

namespace krv::media::test {

/// A part of a recording that its owner left in, in seconds of the recording.
struct Part {
    double from;
    double to;
};

/// Copies a recording and gives every track an edit list that plays these parts, in their order, as an editor for
/// QuickTime movies does. The recording is a mov or mp4 file with its index at the end.
OutputPath editedMovie(const std::string& recording, const std::vector<Part>& parts);

}  // namespace krv::media::test
