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

AtomTable::AtomTable() {
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
        atoms_.back().used = false;
    }
    knownAtoms_ = atoms_;
    knownTable_ = table_;
    knownBound_ = bound_;
}

void AtomTable::clear() {
    atoms_ = knownAtoms_;
    table_ = knownTable_;
    booleans_ = {kNone, kNone};
    bound_ = knownBound_;
    used_ = 0;
}

std::size_t AtomTable::capacity() const noexcept {
    return std::max(atoms_.capacity(), table_.capacity());
}

void AtomTable::makeUtf16(Atom& atom) {
    const std::int64_t units = utf16Length(atom.bytes);
    if (units < 0) {
        cannotArchive("text that is not UTF-8 cannot be archived");
    }
    atom.kind = Atom::Kind::Utf16;
    atom.bits = static_cast<std::uint64_t>(units);
}

}  // namespace krv::plist
