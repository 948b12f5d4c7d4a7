#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Selector.h>

namespace krv {

class KRVQTProcessOperations;

/// One packaged call: its selector, and a callable that performs it on a target and stores the result. The callable
/// keeps the arguments, so it may be performed more than once.
struct Invocation {
    std::optional<Selector> selector;
    std::function<void(KRVQTProcessOperations& target)> perform;
    /// The object that performs the call.
    std::shared_ptr<KRVQTProcessOperations> target;

    void invoke() const { perform(*target); }
};

/// Returns whether every object has the operation, such as "description". Such calls are never retried.
[[nodiscard]] KRV_EXPORT bool isBaseObjectSelector(Selector selector) noexcept;

}  // namespace krv
