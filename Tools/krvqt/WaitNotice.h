#pragma once

#include <optional>
#include <string>

#include <KRVQTProcessClient/Media.h>

namespace krvqt {

/// Decides when a wait for the media server is worth a message: after some seconds, and once for each reason.
class WaitNotice {
public:
    /// Takes the reason for the wait; empty if there is none.
    void setReason(const std::string& reason) { reason_ = reason; }
    /// Returns the message, if one is due this long after the start.
    [[nodiscard]] std::optional<std::string> due(krv::Seconds elapsed);

private:
    std::string reason_;
    std::string told_;
};

}  // namespace krvqt
