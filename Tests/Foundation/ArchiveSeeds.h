#pragma once

#include <string>
#include <vector>

#include "HostileArchives.h"

/// The archives from which the fuzz target starts, in Fuzz/Seeds/archive: those that once cost too much, at a size that
/// is read and at one that is refused.
namespace krv::test {

struct ArchiveSeed {
    std::string name;
    Bytes bytes;
    bool isRead;
};

/// A date of the property list, inside arrays. It counts as an object, because it is written as one.
inline Bytes nestedDate(int arrays) {
    return argumentsArchive([&](Archive& a) -> std::vector<std::uint64_t> {
        ArrayMaker maker(a);
        auto inner = a.number(a.file.add('\x33' + bigEndian(0x3FF0000000000000, 8)));
        for (int i = 0; i < arrays; ++i) {
            inner = maker.of({inner});
        }
        return {inner};
    });
}

/// Dictionaries that share one key.
inline Bytes sharedKey(std::size_t dictionaries, std::size_t length) {
    return argumentsArchive([&](Archive& a) {
        const auto list = a.uids({a.number(a.file.text(Bytes(length, 'k')))});
        const auto dictionaryClass = a.file.uid(a.classNamed("NSDictionary"));
        const auto keysKey = a.file.text("NS.keys");
        const auto objectsKey = a.file.text("NS.objects");
        const auto classKey = a.file.text("$class");
        std::vector<std::uint64_t> all;
        while (all.size() < dictionaries) {
            all.push_back(
                a.number(a.file.dictionary({{keysKey, list}, {objectsKey, list}, {classKey, dictionaryClass}})));
        }
        return all;
    });
}

/// A size with this text.
inline Bytes sizeWithText(const char* text) {
    return argumentsArchive([&](Archive& a) -> std::vector<std::uint64_t> {
        const auto place = a.file.uid(a.number(a.file.text(text)));
        return {
            a.number(a.object({{"NS.special", a.file.integer(2)}, {"NS.sizeval", place}}, a.classNamed("NSValue")))};
    });
}

/// Parameters of the class that is neither for video nor for audio.
inline Bytes plainParameters() {
    return argumentsArchive([](Archive& a) -> std::vector<std::uint64_t> {
        return {a.number(a.object({{"codec", a.file.integer(1)}}, a.classNamed("EncodingParameters")))};
    });
}

/// An object of no known kind, to which nothing refers.
inline Bytes unreachedGarbage() {
    return argumentsArchive([](Archive& a) -> std::vector<std::uint64_t> {
        a.file.add("\x7F");
        return {a.number(a.file.text("x"))};
    });
}

inline std::vector<ArchiveSeed> archiveSeeds() {
    return {
        {"ladder", ladder(61), true},
        {"ladder-too-high", ladder(600), false},
        {"two-chains", twoChains(20), true},
        {"two-chains-too-long", twoChains(40), false},
        {"nested-date", nestedDate(60), true},
        {"nested-date-too-deep", nestedDate(61), false},
        {"shared-list", sharedLists(10, 100), true},
        {"shared-list-too-long", sharedLists(150, 3000), false},
        {"fan-out", fanOut(12), true},
        {"long-text", longText(200, 1500), true},
        {"shared-key", sharedKey(200, 4000), true},
        {"shared-arguments", sharedArguments(10, 10), true},
        {"shared-arguments-too-many", sharedArguments(300, 300), false},
        {"shared-domain", sharedDomain(20, 1000), true},
        {"overlapping-data", overlappingTexts(30), true},
        {"overlapping-data-too-long", overlappingTexts(1000), false},
        {"plain-parameters", plainParameters(), true},
        {"size-out-of-range", sizeWithText("{1e999, 1}"), false},
        {"size-too-small", sizeWithText("{1, -1e-400}"), false},
        {"unreached-garbage", unreachedGarbage(), true},
    };
}

}  // namespace krv::test
