#include <algorithm>
#include <utility>

#include <sys/auxv.h>

#include <KRVQTProcessClient/Foundation/AtomTable.h>
#include <KRVQTProcessClient/Foundation/BinaryPropertyList.h>
#include <KRVQTProcessClient/Foundation/Exception.h>

namespace krv::plist {

void cannotArchive(std::string why) {
    throw Exception(std::string(kInvalidArgumentException), std::move(why));
}

std::uint64_t hashSeed() noexcept {
    static const std::uint64_t seed = [] {
        std::uint64_t bits = 0;
        // AT_RANDOM: sixteen random bytes that the kernel gives each process.
        if (const auto* random = reinterpret_cast<const void*>(::getauxval(AT_RANDOM))) {
            std::memcpy(&bits, random, sizeof bits);
        }
        constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15U;
        return ((bits ^ kMultiplier) * kMultiplier) | 1U;
    }();
    return seed;
}

AtomTable::AtomTable()
    : atoms_(kFewAtoms) {
    constexpr std::array<std::string_view, kKnownAtoms> kTexts{"$null",
                                                               "$version",
                                                               "",
                                                               "$objects",
                                                               "$archiver",
                                                               "NSKeyedArchiver",
                                                               "$top",
                                                               "root",
                                                               "$class",
                                                               "$classname",
                                                               "$classes",
                                                               "NSObject",
                                                               "NS.keys",
                                                               "NS.objects",
                                                               "NSDictionary",
                                                               "NSMutableDictionary"};
    for (const std::string_view text : kTexts) {
        if (text.empty()) {
            constexpr std::uint64_t kVersion = 100000;
            scalar(Atom::Kind::Integer, kVersion);
        } else {
            this->text(text);
        }
        atoms_[count_ - 1].used = false;
    }
    knownAtoms_.assign(atoms_.begin(), atoms_.begin() + count_);
    knownTable_ = table_;
    knownBound_ = bound_;
}

void AtomTable::clear() {
    std::copy(knownAtoms_.begin(), knownAtoms_.end(), atoms_.begin());
    count_ = kKnownAtoms;
    table_ = knownTable_;
    booleans_ = {kNone, kNone};
    bound_ = knownBound_;
    longBytes_ = 0;
    used_ = 0;
}

std::size_t AtomTable::capacity() const noexcept {
    return std::max(atoms_.capacity(), table_.capacity());
}

std::uint32_t AtomTable::addUtf16(std::string_view text, std::uint32_t hash) {
    const std::int64_t units = utf16Length(text);
    if (units < 0) {
        cannotArchive("text that is not UTF-8 cannot be archived");
    }
    const auto count = static_cast<std::uint64_t>(units);
    bound_ += 2 * count;
    return add({Atom::Kind::Utf16, true, kNone, 0, hash, count, text});
}

}  // namespace krv::plist
