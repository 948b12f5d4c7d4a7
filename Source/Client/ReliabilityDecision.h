#pragma once

#include <KRVQTProcessClient/Client/Invocation.h>
#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// An object that decides which of its calls must be reliable.
class KRV_EXPORT ReliabilityDecision {
public:
    virtual ~ReliabilityDecision();
    /// Returns whether the call may be repeated and must succeed if the server comes back in time.
    [[nodiscard]] virtual bool doesOperationNeedToBeReliable(const Invocation& invocation) const = 0;
};

}  // namespace krv
