#pragma once

namespace krvqt {

enum ExitStatus : int {
    kDone = 0,
    /// The operation failed; the message says what, which file, why and what to try.
    kFailed = 1,
    /// Wrong usage; nothing was begun.
    kUsage = 2,
    /// The server could not be reached or started.
    kNoServer = 3,
    kCancelled = 130
};

}  // namespace krvqt
