#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

/// A string-keyed collection of values, kept in ascending order of its keys (by UTF-8 bytes).
///
/// Whether it was made as the mutable or the immutable kind is remembered, because the two have different names
/// in an archive. The immutable kind is what a holder shares and must not change: set and remove raise
/// Exception "NSInvalidArgumentException" on it.
class KRV_EXPORT Dictionary {
public:
    enum class Mutability : bool { Immutable, Mutable };
    using Key = Value::StringRef;
    using Entry = std::pair<Key, Value>;

    /// An empty mutable dictionary.
    Dictionary() noexcept
        : Dictionary(Mutability::Mutable) {}
    /// An empty dictionary of the given kind.
    explicit Dictionary(Mutability mutability) noexcept
        : mutability_(mutability) {}
    /// A mutable dictionary with the given entries; of two with the same key the later one stays.
    Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);

    /// Takes the entries over and sorts them, n log n in their number; of two with the same key the later stays.
    /// Keys must not be empty references.
    [[nodiscard]] static Dictionary fromEntries(std::vector<Entry> entries, Mutability mutability);

    /// A mutable copy that shares the values.
    [[nodiscard]] Dictionary mutableCopy() const;

    [[nodiscard]] Mutability mutability() const noexcept { return mutability_; }
    [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }

    /// The value under the key, or nullptr. The pointer is good until the dictionary changes.
    [[nodiscard]] const Value* find(std::string_view key) const noexcept;
    /// The value under the key, or null.
    [[nodiscard]] Value operator[](std::string_view key) const;

    /// Stores or replaces. A null value is stored like any other; it travels as a null object.
    void set(std::string_view key, Value value);
    void remove(std::string_view key);

    [[nodiscard]] auto begin() const noexcept { return entries_.begin(); }
    [[nodiscard]] auto end() const noexcept { return entries_.end(); }

    [[nodiscard]] std::string description() const;

    /// Same keys and values; the two kinds of dictionary compare equal.
    friend KRV_EXPORT bool operator==(const Dictionary& a, const Dictionary& b);

private:
    [[nodiscard]] std::vector<Entry>::iterator position(std::string_view key) noexcept;
    void requireMutable() const;

    std::vector<Entry> entries_;
    Mutability mutability_;
};

}  // namespace krv
