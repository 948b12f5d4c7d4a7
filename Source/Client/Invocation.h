#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Selector.h>

namespace krv {

class KRVQTProcessOperations;

/// One call of an operation, packaged: its selector, and what performs it on a target and stores the result. The
/// callable holds the arguments for as long as the record lives, so it may be performed more than once.
struct Invocation {
    std::optional<Selector> selector;
    std::function<void(KRVQTProcessOperations& target)> perform;
    /// The object that the call is aimed at.
    std::shared_ptr<KRVQTProcessOperations> target;

    void invoke() const { perform(*target); }
};

/// Whether every object answers the selector, such as "description": such calls are never worth retrying.
[[nodiscard]] KRV_EXPORT bool isBaseObjectSelector(Selector selector) noexcept;

}  // namespace krv
