#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Error.h>

namespace krv {

Error::Error(std::string domain, std::int64_t code, std::shared_ptr<const Dictionary> userInfo)
    : Error(std::make_shared<const std::string>(std::move(domain)), code, std::move(userInfo)) {}

Error::Error(Value::StringRef domain, std::int64_t code, std::shared_ptr<const Dictionary> userInfo)
    : domain_(std::move(domain))
    , code_(code)
    , userInfo_(std::move(userInfo)) {}

std::shared_ptr<const Error> Error::make(std::string domain, std::int64_t code, Dictionary userInfo) {
    return std::make_shared<const Error>(std::move(domain), code,
                                         std::make_shared<const Dictionary>(std::move(userInfo)));
}

std::string Error::localizedDescription() const {
    if (userInfo_) {
        if (const Value* text = userInfo_->find(NSLocalizedDescriptionKey);
            text && text->kind() == Value::Kind::String) {
            return text->stringValue();
        }
    }
    return fmt::format("The operation couldn't be completed. ({} error {}.)", domain(), code_);
}

std::string Error::localizedFailureReason() const {
    return userInfo_ ? (*userInfo_)[NSLocalizedFailureReasonErrorKey].stringValue() : std::string();
}

std::string Error::description() const {
    return fmt::format("Error Domain={} Code={} \"{}\" UserInfo={}", domain(), code_, localizedDescription(),
                       userInfo_ ? userInfo_->description() : "(null)");
}

bool operator==(const Error& a, const Error& b) {
    const bool sameInfo = a.userInfo_ == b.userInfo_ || (a.userInfo_ && b.userInfo_ && *a.userInfo_ == *b.userInfo_);
    return a.domain() == b.domain() && a.code_ == b.code_ && sameInfo;
}

}  // namespace krv
