#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Keys of an error's user-info: a sentence for a person, and its cause.
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";

/// An error record: the domain that made it, a code within that domain, and details by key. Immutable, and
/// shared between threads as std::shared_ptr<const Error>.
class KRV_EXPORT Error {
public:
    /// userInfo may be empty (null); it travels as null then.
    Error(std::string domain, std::int64_t code, std::shared_ptr<const Dictionary> userInfo = nullptr);
    [[nodiscard]] static std::shared_ptr<const Error> make(std::string domain, std::int64_t code, Dictionary userInfo);

    [[nodiscard]] const std::string& domain() const noexcept { return domain_; }
    [[nodiscard]] std::int64_t code() const noexcept { return code_; }
    [[nodiscard]] const std::shared_ptr<const Dictionary>& userInfo() const noexcept { return userInfo_; }

    /// The sentence under NSLocalizedDescriptionKey, or one made of domain and code.
    [[nodiscard]] std::string localizedDescription() const;
    /// The cause under NSLocalizedFailureReasonErrorKey, or an empty string.
    [[nodiscard]] std::string localizedFailureReason() const;
    /// Domain, code, sentence and user-info in one line.
    [[nodiscard]] std::string description() const;

    friend KRV_EXPORT bool operator==(const Error& a, const Error& b);

private:
    std::string domain_;
    std::int64_t code_;
    std::shared_ptr<const Dictionary> userInfo_;
};

/// Where an operation leaves its error: null when the caller does not want it, in which case it is dropped
/// silently. Otherwise it points to the caller's reference, which is written only when there is an error.
using ErrorOut = std::shared_ptr<const Error>*;

}  // namespace krv
