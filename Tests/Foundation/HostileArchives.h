#pragma once

#include "HandmadeArchive.h"

/// Small archives of a record that would cost much if each reference were paid for by the reader.
namespace krv::test {

/// Builds an archive of a record whose argument "value" is an array of the given objects.
inline Bytes argumentsArchive(const std::function<std::vector<std::uint64_t>(Archive&)>& make, int referenceSize = 4) {
    Archive a(referenceSize);
    const auto root = a.number(0);
    const auto recordClass = a.classNamed("KRVOperationBase");
    const auto dictionaryClass = a.classNamed("NSDictionary");
    const auto arrayClass = a.classNamed("NSArray");
    const auto elements = make(a);
    const auto key = a.number(a.file.text("value"));
    const auto array = a.number(a.object({{"NS.objects", a.uids(elements)}}, arrayClass));
    const auto arguments =
        a.number(a.object({{"NS.keys", a.uids({key})}, {"NS.objects", a.uids({array})}}, dictionaryClass));
    a.numbered[root] = a.object({{"opType", a.file.integer(8)}, {"arguments", a.file.uid(arguments)}}, recordClass);
    return a.bytes();
}

/// Makes arrays with few bytes each: they share the key "NS.objects" and their class.
class ArrayMaker {
public:
    explicit ArrayMaker(Archive& archive)
        : archive_(archive)
        , objectsKey_(archive.file.text("NS.objects"))
        , classKey_(archive.file.text("$class"))
        , classUid_(archive.file.uid(archive.classNamed("NSArray"))) {}

    /// Returns the number of a new array with the list that is stored there.
    std::uint64_t withList(std::uint64_t list) {
        return archive_.number(archive_.file.dictionary({{objectsKey_, list}, {classKey_, classUid_}}));
    }
    std::uint64_t of(const std::vector<std::uint64_t>& elements) { return withList(archive_.uids(elements)); }

private:
    Archive& archive_;
    std::uint64_t objectsKey_;
    std::uint64_t classKey_;
    std::uint64_t classUid_;
};

/// Each array contains the one before it, and the outermost array lists all of them from the inside out. So each is
/// reached at a small depth, but the last one is `rungs` deep.
inline Bytes ladder(int rungs) {
    return argumentsArchive([&](Archive& a) {
        ArrayMaker arrays(a);
        std::vector<std::uint64_t> all{arrays.of({})};
        while (all.size() < static_cast<std::size_t>(rungs)) {
            all.push_back(arrays.of({all.back()}));
        }
        return all;
    });
}

/// A chain of arrays under the key "b" comes first; one of the same length under "a" ends in it. Read in this order,
/// neither is nested too deeply. Written in the order of the keys, "a" is.
inline Bytes twoChains(int length) {
    return argumentsArchive([&](Archive& a) -> std::vector<std::uint64_t> {
        ArrayMaker arrays(a);
        const auto chain = [&](std::uint64_t end) {
            for (int i = 0; i < length; ++i) {
                end = arrays.of({end});
            }
            return end;
        };
        const auto b = chain(arrays.of({}));
        const auto aEnd = chain(b);
        const auto keys = a.uids({a.number(a.file.text("b")), a.number(a.file.text("a"))});
        return {
            a.number(a.object({{"NS.keys", keys}, {"NS.objects", a.uids({b, aEnd})}}, a.classNamed("NSDictionary")))};
    });
}

/// Arrays that share one list of elements.
inline Bytes sharedLists(std::size_t arrays, std::size_t elements) {
    return argumentsArchive([&](Archive& a) {
        ArrayMaker maker(a);
        const auto list = a.uids(std::vector<std::uint64_t>(elements, a.number(a.file.text("x"))));
        std::vector<std::uint64_t> all;
        while (all.size() < arrays) {
            all.push_back(maker.withList(list));
        }
        return all;
    });
}

/// Arrays of ten times the same array: 10^levels leaves in a few hundred bytes.
inline Bytes fanOut(int levels) {
    return argumentsArchive([&](Archive& a) -> std::vector<std::uint64_t> {
        ArrayMaker arrays(a);
        auto inner = a.number(a.file.text("leaf"));
        for (int i = 0; i < levels; ++i) {
            inner = arrays.of(std::vector<std::uint64_t>(10, inner));
        }
        return {inner};
    });
}

/// Texts of which each contains all that follow it: their bytes overlap.
inline Bytes overlappingTexts(std::size_t texts) {
    return argumentsArchive([&](Archive& a) {
        std::vector<std::uint64_t> all;
        constexpr std::size_t kHead = 6;  // marker, marker of the count, four bytes of count
        for (std::size_t i = 0; i < texts; ++i) {
            // Data, because the heads that follow are not ASCII.
            all.push_back(a.number(a.file.add(Bytes("\x4F\x12") + bigEndian((texts - i - 1) * kHead, 4))));
        }
        return all;
    });
}

/// Records that share one dictionary as their arguments.
inline Bytes sharedArguments(std::size_t records, std::size_t entries) {
    return argumentsArchive([&](Archive& a) {
        std::vector<std::uint64_t> keys;
        for (std::size_t i = 0; i < entries; ++i) {
            keys.push_back(a.number(a.file.text(std::to_string(i))));
        }
        const auto list = a.uids(keys);
        const auto dictionary =
            a.file.uid(a.number(a.object({{"NS.keys", list}, {"NS.objects", list}}, a.classNamed("NSDictionary"))));
        const auto recordClass = a.file.uid(a.classNamed("KRVOperationBase"));
        const auto argumentsKey = a.file.text("arguments");
        const auto classKey = a.file.text("$class");
        std::vector<std::uint64_t> all;
        while (all.size() < records) {
            all.push_back(a.number(a.file.dictionary({{argumentsKey, dictionary}, {classKey, recordClass}})));
        }
        return all;
    });
}

/// Errors that share one long domain.
inline Bytes sharedDomain(std::size_t errors, std::size_t length) {
    return argumentsArchive([&](Archive& a) {
        const auto domain = a.file.uid(a.number(a.file.text(Bytes(length, 'd'))));
        const auto code = a.file.integer(1);
        const auto errorClass = a.file.uid(a.classNamed("NSError"));
        const auto domainKey = a.file.text("NSDomain");
        const auto codeKey = a.file.text("NSCode");
        const auto classKey = a.file.text("$class");
        std::vector<std::uint64_t> all;
        while (all.size() < errors) {
            all.push_back(a.number(a.file.dictionary({{domainKey, domain}, {codeKey, code}, {classKey, errorClass}})));
        }
        return all;
    });
}

/// An array that refers many times to one long text.
inline Bytes longText(std::size_t references, std::size_t length) {
    return argumentsArchive(
        [&](Archive& a) { return std::vector<std::uint64_t>(references, a.number(a.file.text(Bytes(length, 't')))); });
}

/// Inserts bytes to which nothing refers before the offset table, so that the archive may cost more.
inline Bytes padded(Bytes archive, std::size_t count) {
    constexpr std::size_t kNumber = 8;
    std::uint64_t table = 0;
    for (std::size_t i = archive.size() - kNumber; i < archive.size(); ++i) {
        table = table << 8 | static_cast<unsigned char>(archive[i]);
    }
    const Bytes rest = archive.substr(table, archive.size() - table - kNumber);
    archive.resize(table);
    return archive + Bytes(count, '\0') + rest + bigEndian(table + count, kNumber);
}

}  // namespace krv::test
