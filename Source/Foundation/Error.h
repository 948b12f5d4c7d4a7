#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

/// Keys of an error's user-info: a sentence for people, and the cause.
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";

/// An error record: a domain, a code within that domain, and details by key. Immutable. Threads share it as
/// std::shared_ptr<const Error>.
class KRV_EXPORT Error {
public:
    /// userInfo may be null, and is archived as null then.
    Error(std::string domain, std::int64_t code, std::shared_ptr<const Dictionary> userInfo = nullptr);
    /// The same, sharing the text of the domain, which must not be null.
    Error(Value::StringRef domain, std::int64_t code, std::shared_ptr<const Dictionary> userInfo);
    [[nodiscard]] static std::shared_ptr<const Error> make(std::string domain, std::int64_t code, Dictionary userInfo);

    [[nodiscard]] const std::string& domain() const noexcept { return *domain_; }
    /// The same, for sharing. Never null.
    [[nodiscard]] const Value::StringRef& sharedDomain() const noexcept { return domain_; }
    [[nodiscard]] std::int64_t code() const noexcept { return code_; }
    [[nodiscard]] const std::shared_ptr<const Dictionary>& userInfo() const noexcept { return userInfo_; }

    /// Returns the sentence under NSLocalizedDescriptionKey, or one made of domain and code.
    [[nodiscard]] std::string localizedDescription() const;
    /// Returns the cause under NSLocalizedFailureReasonErrorKey, or an empty string.
    [[nodiscard]] std::string localizedFailureReason() const;
    /// Returns domain, code, sentence and user-info in one line.
    [[nodiscard]] std::string description() const;

    friend KRV_EXPORT bool operator==(const Error& a, const Error& b);

private:
    Value::StringRef domain_;
    std::int64_t code_;
    std::shared_ptr<const Dictionary> userInfo_;
};

/// The out-parameter for an error. Points to the caller's reference, which is written only on failure. If it is null,
/// the error is discarded.
using ErrorOut = std::shared_ptr<const Error>*;

}  // namespace krv
