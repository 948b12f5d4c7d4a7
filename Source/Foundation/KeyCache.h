#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/AtomTable.h>
#include <KRVQTProcessClient/Foundation/Value.h>

/// The keys of decoded dictionaries. Not installed.
namespace krv {

/// Keeps the keys that were decoded last. The dictionaries of a client and its server have a few dozen different keys,
/// so most keys of an archive need not be allocated again.
class KeyCache {
public:
    /// A longer text is not kept.
    static constexpr std::size_t kLongest = 32;

    /// Returns the text, which must be ASCII and no longer than kLongest, as a string that other dictionaries may share.
    [[nodiscard]] Value::StringRef shared(std::string_view text, const plist::TextScan& scanned) {
        Value::StringRef& place = keys_[scanned.hash >> (64 - kBits)];
        if (!place || *place != text) {
            place = std::make_shared<const std::string>(text);
        }
        return place;
    }

private:
    static constexpr unsigned kBits = 8;
    std::array<Value::StringRef, std::size_t{1} << kBits> keys_;
};

}  // namespace krv
