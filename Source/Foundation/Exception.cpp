#include <utility>

#include <KRVQTProcessClient/Foundation/Exception.h>

namespace krv {

Exception::Exception(std::string name, std::string reason)
    : name_(std::move(name))
    , reason_(std::move(reason))
    , what_(name_ + ": " + reason_) {}

Exception::~Exception() = default;

}  // namespace krv
