#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <set>
#include <type_traits>
#include <utility>
#include <variant>

#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv::test {

/// Compares what was archived with what was read back: objects by their fields, floats by their bits. Two shared objects
/// are compared once, so the time is linear, however often they are referred to.
class Sameness {
public:
    [[nodiscard]] bool same(const Value& a, const Value& b) {
        return a.kind() == b.kind() && std::visit(
                                           [&](const auto& x) {
                                               using T = std::decay_t<decltype(x)>;
                                               return sameContents(x, *std::get_if<T>(&b.storage()));
                                           },
                                           a.storage());
    }

    /// A record is read back with mutable dictionaries, and with empty ones for null.
    [[nodiscard]] bool same(const KRVOperationBase& a, const KRVOperationBase& b) {
        return a.operationType() == b.operationType() && a.uniqueID() == b.uniqueID() &&
               sameBits(a.progress(), b.progress()) && a.completed() == b.completed() &&
               a.cancelled() == b.cancelled() && a.isClientRegistered() == b.isClientRegistered() &&
               *a.testInfo() == *b.testInfo() && same(Value(a.error()), Value(b.error())) &&
               sameEntries(a.result().get(), b.result().get()) && sameEntries(a.arguments().get(), b.arguments().get());
    }

private:
    template <typename T>
    static bool sameBits(T a, T b) {
        using Bits = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
        return std::bit_cast<Bits>(a) == std::bit_cast<Bits>(b);
    }
    /// A side of a size is archived as text, which has one NaN only.
    static bool sameSide(double a, double b) { return (std::isnan(a) && std::isnan(b)) || sameBits(a, b); }

    static bool sameContents(std::monostate, std::monostate) { return true; }
    static bool sameContents(bool a, bool b) { return a == b; }
    static bool sameContents(std::int64_t a, std::int64_t b) { return a == b; }
    static bool sameContents(float a, float b) { return sameBits(a, b); }
    static bool sameContents(double a, double b) { return sameBits(a, b); }
    static bool sameContents(const Value::StringRef& a, const Value::StringRef& b) { return *a == *b; }
    static bool sameContents(const Value::DataRef& a, const Value::DataRef& b) { return *a == *b; }
    static bool sameContents(Date a, Date b) { return sameBits(a.secondsSinceReference, b.secondsSinceReference); }
    static bool sameContents(Size a, Size b) { return sameSide(a.width, b.width) && sameSide(a.height, b.height); }

    bool sameContents(const Value::ArrayRef& a, const Value::ArrayRef& b) {
        if (known(a.get(), b.get())) {
            return true;
        }
        if (a->size() != b->size()) {
            return false;
        }
        for (std::size_t i = 0; i < a->size(); ++i) {
            if (!same((*a)[i], (*b)[i])) {
                return false;
            }
        }
        return true;
    }

    bool sameContents(const Value::DictionaryRef& a, const Value::DictionaryRef& b) {
        return a->mutability() == b->mutability() && sameEntries(a.get(), b.get());
    }

    bool sameEntries(const Dictionary* a, const Dictionary* b) {
        static const Dictionary kEmpty;
        const Dictionary& x = a ? *a : kEmpty;
        const Dictionary& y = b ? *b : kEmpty;
        if (known(&x, &y)) {
            return true;
        }
        if (x.size() != y.size()) {
            return false;
        }
        auto other = y.begin();
        for (const auto& [key, value] : x) {
            if (*key != *other->first || !same(value, other->second)) {
                return false;
            }
            ++other;
        }
        return true;
    }

    bool sameContents(const Value::ErrorRef& a, const Value::ErrorRef& b) {
        return known(a.get(), b.get()) || (a->domain() == b->domain() && a->code() == b->code() &&
                                           same(Value(a->userInfo()), Value(b->userInfo())));
    }

    bool sameContents(const Value::ObjectRef& a, const Value::ObjectRef& b) {
        if (known(a.get(), b.get())) {
            return true;
        }
        if (a->className() != b->className()) {
            return false;
        }
        const auto* const record = dynamic_cast<const KRVOperationBase*>(a.get());
        if (record) {
            return same(*record, dynamic_cast<const KRVOperationBase&>(*b));
        }
        const auto* const video = dynamic_cast<const VideoEncodingParameters*>(a.get());
        if (video && !sameBits(video->fps(), dynamic_cast<const VideoEncodingParameters&>(*b).fps())) {
            return false;
        }
        const auto& x = dynamic_cast<const EncodingParameters&>(*a);
        const auto& y = dynamic_cast<const EncodingParameters&>(*b);
        return x.codec() == y.codec() && sameBits(x.quality(), y.quality()) &&
               same(Value(x.settingsBlob()), Value(y.settingsBlob()));
    }

    /// Whether the comparison of these two has begun. If it fails, it fails as a whole.
    bool known(const void* a, const void* b) { return !compared_.emplace(a, b).second; }

    std::set<std::pair<const void*, const void*>> compared_;
};

}  // namespace krv::test
