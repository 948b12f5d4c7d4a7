#pragma once

#include <string>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Value.h>

/// The texts that %@ prints. Not installed: applications call description().
namespace krv {

/// Returns the text of a value. Containers nested deeper than 16 are abbreviated, and so are those that make the text
/// longer than 64 KiB. Strings are not.
[[nodiscard]] std::string describe(const Value& value);
[[nodiscard]] std::string describe(const Dictionary& dictionary);

}  // namespace krv
