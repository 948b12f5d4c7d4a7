#pragma once

#include <KRVQTProcessClient/Client/Invocation.h>
#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// An object that decides which of its calls are worth retrying.
class KRV_EXPORT ReliabilityDecision {
public:
    virtual ~ReliabilityDecision();
    [[nodiscard]] virtual bool doesOperationNeedToBeReliable(const Invocation& invocation) const = 0;
};

}  // namespace krv
