#pragma once

namespace krvqt {

enum ExitStatus : int {
    kDone = 0,
    /// The operation failed. The message names the file, the cause and what to try.
    kFailed = 1,
    /// Wrong usage. No work was started.
    kUsage = 2,
    /// The media server could not be reached or started.
    kNoServer = 3,
    kCancelled = 130
};

}  // namespace krvqt
