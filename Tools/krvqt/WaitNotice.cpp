#include "WaitNotice.h"

namespace krvqt {

std::optional<std::string> WaitNotice::due(krv::Seconds elapsed) {
    // A server usually responds within this time.
    constexpr krv::Seconds kSilentWait{3};
    if (reason_.empty() || reason_ == told_ || elapsed < kSilentWait) {
        return std::nullopt;
    }
    told_ = reason_;
    return "waiting for the media server: " + told_;
}

}  // namespace krvqt
