#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

/// Values by string key, in ascending order of the keys (by UTF-8 bytes).
///
/// A dictionary is of the mutable or the immutable kind; the two have different names in an archive. On the immutable
/// kind, set and remove throw Exception "NSInvalidArgumentException".
class KRV_EXPORT Dictionary {
public:
    enum class Mutability : bool { Immutable, Mutable };
    using Key = Value::StringRef;
    using Entry = std::pair<Key, Value>;

    /// Creates an empty mutable dictionary.
    Dictionary() noexcept
        : Dictionary(Mutability::Mutable) {}
    /// Creates an empty dictionary of the given kind.
    explicit Dictionary(Mutability mutability) noexcept
        : mutability_(mutability) {}
    /// Creates a mutable dictionary with the given entries. The last of several entries with the same key is kept.
    Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);

    /// Creates a dictionary from entries and sorts them in O(n log n). The last of several entries with the same key is
    /// kept. Keys must not be null.
    [[nodiscard]] static Dictionary fromEntries(std::vector<Entry> entries, Mutability mutability);

    /// Returns a mutable copy that shares the values.
    [[nodiscard]] Dictionary mutableCopy() const&;
    /// Returns the same entries as a mutable dictionary, and leaves this one empty.
    [[nodiscard]] Dictionary mutableCopy() && noexcept;

    [[nodiscard]] Mutability mutability() const noexcept { return mutability_; }
    [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }

    /// Returns the value of the key, or nullptr. The pointer is valid until the dictionary changes.
    [[nodiscard]] const Value* find(std::string_view key) const noexcept;
    /// Returns the value of the key, or the null value.
    [[nodiscard]] Value operator[](std::string_view key) const;

    /// Adds or replaces an entry. A null value is stored too, and archived as a null object.
    void set(std::string_view key, Value value);
    void remove(std::string_view key);

    [[nodiscard]] auto begin() const noexcept { return entries_.begin(); }
    [[nodiscard]] auto end() const noexcept { return entries_.end(); }

    [[nodiscard]] std::string description() const;

    /// Compares keys and values, but not the kind.
    friend KRV_EXPORT bool operator==(const Dictionary& a, const Dictionary& b);

private:
    [[nodiscard]] std::vector<Entry>::iterator position(std::string_view key) noexcept;
    void requireMutable() const;

    std::vector<Entry> entries_;
    Mutability mutability_;
};

}  // namespace krv
