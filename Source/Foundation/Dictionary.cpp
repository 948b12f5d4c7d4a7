#include <algorithm>

#include <KRVQTProcessClient/Foundation/Description.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Exception.h>

namespace krv {
namespace {

/// Above this number of entries std::stable_sort is faster than insertion.
constexpr std::size_t kInsertionSortLimit = 12;

// Dictionaries of one archive share their keys, so most comparisons need not read the text.
bool keyLess(const Dictionary::Entry& a, const Dictionary::Entry& b) noexcept {
    return a.first != b.first && *a.first < *b.first;
}

bool sameKey(const Dictionary::Entry& a, const Dictionary::Entry& b) noexcept {
    return a.first == b.first || *a.first == *b.first;
}

}  // namespace

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries)
    : mutability_(Mutability::Mutable) {
    entries_.reserve(entries.size());
    for (const auto& [key, value] : entries) {
        set(key, value);
    }
}

Dictionary Dictionary::fromEntries(std::vector<Entry> entries, Mutability mutability) {
    Dictionary result(mutability);
    // The entries of an archive that we wrote are already sorted.
    const auto disorder = std::adjacent_find(entries.begin(), entries.end(),
                                             [](const Entry& a, const Entry& b) { return !keyLess(a, b); });
    if (disorder == entries.end()) {
        result.entries_ = std::move(entries);
        return result;
    }
    if (entries.size() <= kInsertionSortLimit) {
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            std::rotate(std::upper_bound(entries.begin(), it, *it, keyLess), it, it + 1);
        }
    } else {
        std::stable_sort(entries.begin(), entries.end(), keyLess);
    }
    // The sort is stable, so the last of each run of equal keys is the one to keep.
    const auto last = std::unique(entries.rbegin(), entries.rend(), sameKey);
    entries.erase(entries.begin(), last.base());
    result.entries_ = std::move(entries);
    return result;
}

Dictionary Dictionary::mutableCopy() const& {
    Dictionary copy(Mutability::Mutable);
    copy.entries_ = entries_;
    return copy;
}

Dictionary Dictionary::mutableCopy() && noexcept {
    Dictionary same(Mutability::Mutable);
    same.entries_.swap(entries_);
    return same;
}

std::vector<Dictionary::Entry>::iterator Dictionary::position(std::string_view key) noexcept {
    return std::lower_bound(entries_.begin(), entries_.end(), key,
                            [](const Entry& entry, std::string_view k) { return *entry.first < k; });
}

const Value* Dictionary::find(std::string_view key) const noexcept {
    const auto it = const_cast<Dictionary*>(this)->position(key);
    return it != entries_.end() && *it->first == key ? &it->second : nullptr;
}

Value Dictionary::operator[](std::string_view key) const {
    const Value* value = find(key);
    return value ? *value : Value();
}

void Dictionary::requireMutable() const {
    if (mutability_ == Mutability::Immutable) {
        throw Exception(std::string(kInvalidArgumentException), "mutating method sent to an immutable dictionary");
    }
}

void Dictionary::set(std::string_view key, Value value) {
    requireMutable();
    const auto it = position(key);
    if (it != entries_.end() && *it->first == key) {
        it->second = std::move(value);
    } else {
        entries_.emplace(it, std::make_shared<const std::string>(key), std::move(value));
    }
}

void Dictionary::remove(std::string_view key) {
    requireMutable();
    const auto it = position(key);
    if (it != entries_.end() && *it->first == key) {
        entries_.erase(it);
    }
}

std::string Dictionary::description() const {
    return describe(*this);
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const auto& x, const auto& y) { return sameKey(x, y) && x.second == y.second; });
}

}  // namespace krv
