// Hostile archives. The tests build the files by hand, object by object.
#include <functional>
#include <random>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "HandmadeArchive.h"

namespace krv {
namespace {

using test::Archive;
using test::argument;
using test::bigEndian;
using test::Bytes;
using test::dataOf;
using test::File;
using test::read;
using test::readArgument;
using test::readRecord;

TEST(ArchiveReader, ReadsAHandmadeArchive) {
    const auto record = readRecord([](Archive& a) -> std::vector<Archive::Field> {
        return {{"opType", a.file.integer(6)}, {"completed", a.file.boolean(true)}};
    });
    ASSERT_TRUE(record);
    EXPECT_EQ(record->operationType(), 6);
    EXPECT_TRUE(record->completed());
    EXPECT_TRUE(record->arguments()->empty());
}

TEST(ArchiveReader, AcceptsAnyReferenceAndOffsetSize) {
    for (const int size : {1, 2, 3, 4, 5, 8}) {
        Archive archive(size);
        archive.file.offsetSize = size == 1 ? 2 : size;
        archive.number(0);
        const auto recordClass = archive.classNamed("KRVOperationBase");
        archive.numbered[1] = archive.object({{"opType", archive.file.integer(9)}}, recordClass);
        const auto record = read(archive.bytes());
        ASSERT_TRUE(record) << size;
        EXPECT_EQ(record->operationType(), 9);
    }
}

TEST(ArchiveReader, RefusesMissingEmptyAndRandomBytes) {
    EXPECT_EQ(KRVOperationBase::operationFromData(nullptr), nullptr);
    EXPECT_EQ(read(""), nullptr);
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        Bytes bytes(random() % 400, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random());
        }
        EXPECT_EQ(read(bytes), nullptr);
        EXPECT_EQ(read("bplist00" + bytes), nullptr);
    }
}

TEST(ArchiveReader, RefusesEveryTruncationAndEveryAddedByte) {
    const Data good = KRVOperationBase::encodeVideoOperation("/s", "/d")->convertToData();
    const Bytes bytes(reinterpret_cast<const char*>(good.data()), good.size());
    ASSERT_TRUE(read(bytes));
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        EXPECT_EQ(read(bytes.substr(0, n)), nullptr) << n;
    }
    EXPECT_EQ(read(bytes + '\0'), nullptr);
    EXPECT_EQ(read('\0' + bytes), nullptr);
}

TEST(ArchiveReader, SurvivesEverySingleDamagedByte) {
    const Data good = KRVOperationBase::mergeSourcesOperation(Array{"/a", "/b"}, "/d", true)->convertToData();
    for (std::size_t i = 0; i < good.size(); ++i) {
        for (const int flip : {0x01, 0x80, 0xFF}) {
            Data damaged = good;
            damaged[i] ^= static_cast<std::byte>(flip);
            const auto record = KRVOperationBase::operationFromData(std::make_shared<const Data>(std::move(damaged)));
            if (record) {
                EXPECT_FALSE(record->description().empty());
            }
        }
    }
}

TEST(ArchiveReader, RefusesSizesOutOfRangeInTheTrailer) {
    const Data good = KRVOperationBase().convertToData();
    const Bytes bytes(reinterpret_cast<const char*>(good.data()), good.size());
    for (const std::size_t position : {std::size_t{26}, std::size_t{25}}) {
        for (const int size : {0, 9, 255}) {
            Bytes damaged = bytes;
            damaged[bytes.size() - position] = static_cast<char>(size);
            EXPECT_EQ(read(damaged), nullptr);
        }
    }
    for (const std::size_t position : {24U, 16U, 8U}) {  // object count, top object, table offset
        for (const std::uint64_t huge : {std::uint64_t{1} << 32, std::uint64_t{1} << 61, ~std::uint64_t{0}}) {
            Bytes damaged = bytes;
            damaged.replace(bytes.size() - position, 8, bigEndian(huge, 8));
            EXPECT_EQ(read(damaged), nullptr);
        }
    }
}

TEST(ArchiveReader, RefusesRootsThatAreNotARecord) {
    for (const char* name : {"NSDictionary", "NSNull", "NSArray"}) {
        Archive archive;
        archive.number(0);
        const auto c = archive.classNamed(name);
        archive.numbered[1] = archive.object({{"NS.keys", archive.uids({})}, {"NS.objects", archive.uids({})}}, c);
        const Bytes bytes = archive.bytes();
        EXPECT_EQ(read(bytes), nullptr);
    }
    Archive archive;
    archive.number(archive.file.text("only text"));
    const Bytes bytes = archive.bytes();
    EXPECT_EQ(read(bytes), nullptr);
    EXPECT_EQ(KRVOperationBase::valueFromData(dataOf(bytes)), Value("only text"));
}

TEST(ArchiveReader, RefusesUnknownClasses) {
    for (const char* name : {"NSTask", "KRVOperationBase2", "", "EncodingParameters2", "NSObject"}) {
        EXPECT_EQ(argument(readArgument([&](Archive& a) { return a.number(a.object({}, a.classNamed(name))); })),
                  Value("refused"))
            << name;
    }
}

TEST(ArchiveReader, TheClassNameAloneDecides) {
    // The class list names a known class for an unknown class name, and vice versa.
    const auto withNames = [](const char* name, const char* listed) {
        return argument(readArgument([&](Archive& a) {
            const auto names = a.file.array({a.file.text(listed), a.file.text("NSObject")});
            const auto c = a.number(
                a.file.dictionary({{a.file.text("$classname"), a.file.text(name)}, {a.file.text("$classes"), names}}));
            return a.number(a.object({}, c));
        }));
    };
    EXPECT_EQ(withNames("Wolf", "NSNull"), Value("refused"));
    EXPECT_EQ(withNames("NSNull", "Wolf"), Value());
}

TEST(ArchiveReader, RefusesObjectsWithoutAProperClass) {
    const auto refused = [](const std::function<std::uint64_t(Archive&)>& classPlace) {
        return argument(readArgument([&](Archive& a) {
                   const auto place = classPlace(a);
                   return a.number(a.file.dictionary({{a.file.text("$class"), place}}));
               })) == Value("refused");
    };
    EXPECT_TRUE(refused([](Archive& a) { return a.file.uid(0); }));
    EXPECT_TRUE(refused([](Archive& a) { return a.file.uid(9999); }));
    EXPECT_TRUE(refused([](Archive& a) { return a.file.text("NSNull"); }));
    EXPECT_TRUE(refused([](Archive& a) { return a.file.uid(a.number(a.file.text("NSNull"))); }));
    EXPECT_TRUE(refused([](Archive& a) { return a.file.uid(a.number(a.file.dictionary({}))); }));
    EXPECT_EQ(argument(readArgument([](Archive& a) { return a.number(a.file.dictionary({})); })), Value("refused"));
    EXPECT_EQ(argument(readArgument([](Archive& a) { return a.classNamed("NSNull"); })), Value("refused"));
}

TEST(ArchiveReader, RefusesOtherArchiversAndVersions) {
    const auto with = [](const std::function<void(Archive&)>& change) {
        Archive archive;
        archive.number(0);
        archive.numbered[1] = archive.object({}, archive.classNamed("KRVOperationBase"));
        change(archive);
        return read(archive.bytes());
    };
    EXPECT_TRUE(with([](Archive&) {}));
    EXPECT_FALSE(with([](Archive& a) { a.version = 100001; }));
    EXPECT_FALSE(with([](Archive& a) { a.archiver = "NSArchiver"; }));
    EXPECT_FALSE(with([](Archive& a) { a.root = 0; }));
    EXPECT_FALSE(with([](Archive& a) { a.root = 77; }));
    EXPECT_FALSE(with([](Archive& a) { a.numbered[0] = a.file.text("null"); }));
}

TEST(ArchiveReader, RefusesCycles) {
    EXPECT_EQ(argument(readArgument([](Archive& a) {
                  const auto self = a.number(0);
                  const auto arrayClass = a.classNamed("NSArray");
                  a.numbered[self] = a.object({{"NS.objects", a.uids({self})}}, arrayClass);
                  return self;
              })),
              Value("refused"));
    // A reference back to the root record.
    EXPECT_EQ(argument(readArgument([](Archive&) { return std::uint64_t{1}; })), Value("refused"));
}

TEST(ArchiveReader, RefusesPropertyListContainersThatContainThemselves) {
    File file;
    file.objects = {file.dictionaryBytes({{1, 0}}), File::head(0x50, 8) + "$objects"};
    EXPECT_EQ(read(file.bytes()), nullptr);
    File array;
    array.objects = {Bytes("\xA1") + bigEndian(0, 2)};
    EXPECT_EQ(read(array.bytes()), nullptr);
}

TEST(ArchiveReader, RefusesTwoHundredThousandNestedObjects) {
    Archive archive(4);
    const auto root = archive.number(0);
    const auto recordClass = archive.classNamed("KRVOperationBase");
    const auto arrayClass = archive.classNamed("NSArray");
    const auto objectsKey = archive.file.text("NS.objects");
    const auto classKey = archive.file.text("$class");
    const auto classUid = archive.file.uid(arrayClass);
    auto inner = archive.number(archive.file.text("leaf"));
    for (int i = 0; i < 200000; ++i) {
        const auto list = archive.file.array({archive.file.uid(inner)});
        inner = archive.number(archive.file.dictionary({{objectsKey, list}, {classKey, classUid}}));
    }
    archive.numbered[root] = archive.object({{"result", archive.file.uid(inner)}}, recordClass);
    EXPECT_EQ(read(archive.bytes()), nullptr);

    File file;  // and as bare property-list arrays
    file.referenceSize = 4;
    for (std::uint64_t i = 0; i < 200000; ++i) {
        file.objects.push_back(Bytes("\xA1") + bigEndian(i + 1, 4));
    }
    file.text("leaf");
    EXPECT_EQ(read(file.bytes()), nullptr);
}

TEST(ArchiveReader, RefusesCountsBeyondTheRemainingBytes) {
    const std::vector<Bytes> hostile{
        Bytes("\x5F\x13") + bigEndian(1ULL << 62, 8), Bytes("\x6F\x13") + bigEndian(1ULL << 63, 8),
        Bytes("\x4F\x12") + bigEndian(0xFFFFFFFF, 4), Bytes("\xAF\x13") + bigEndian(1ULL << 61, 8),
        Bytes("\xDF\x13") + bigEndian(~0ULL, 8),      Bytes("\x5F\x50"),
        Bytes("\x5F\x14") + Bytes(16, '\x01'),        Bytes("\x5F")};
    for (const Bytes& object : hostile) {
        EXPECT_EQ(argument(readArgument([&](Archive& a) { return a.number(a.file.add(object)); })), Value("refused"));
    }
}

TEST(ArchiveReader, WorkForSharedListsIsBounded) {
    // Five thousand dictionaries that share one list of as many keys: decoding them would take 25 million steps.
    constexpr int kMany = 5000;
    Archive archive(4);
    const auto root = archive.number(0);
    const auto recordClass = archive.classNamed("KRVOperationBase");
    const auto dictionaryClass = archive.classNamed("NSDictionary");
    const auto arrayClass = archive.classNamed("NSArray");
    const auto text = archive.number(archive.file.text("k"));
    const auto list = archive.uids(std::vector<std::uint64_t>(kMany, text));
    const auto keysKey = archive.file.text("NS.keys");
    const auto objectsKey = archive.file.text("NS.objects");
    const auto classKey = archive.file.text("$class");
    const auto classUid = archive.file.uid(dictionaryClass);
    std::vector<std::uint64_t> dictionaries;
    for (int i = 0; i < kMany; ++i) {
        dictionaries.push_back(
            archive.number(archive.file.dictionary({{keysKey, list}, {objectsKey, list}, {classKey, classUid}})));
    }
    const auto all = archive.number(archive.object({{"NS.objects", archive.uids(dictionaries)}}, arrayClass));
    const auto outer = archive.number(
        archive.object({{"NS.keys", archive.uids({text})}, {"NS.objects", archive.uids({all})}}, dictionaryClass));
    archive.numbered[root] = archive.object({{"result", archive.file.uid(outer)}}, recordClass);
    EXPECT_EQ(read(archive.bytes()), nullptr);
}

TEST(ArchiveReader, RefusesInconsistentContainers) {
    const auto dictionary = [](const std::function<std::vector<Archive::Field>(Archive&, std::uint64_t)>& fields) {
        return argument(readArgument([&](Archive& a) {
                   const auto text = a.number(a.file.text("x"));
                   const auto made = fields(a, text);
                   return a.number(a.object(made, a.classNamed("NSDictionary")));
               })) != Value("refused");
    };
    using Fields = std::vector<Archive::Field>;
    EXPECT_TRUE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.uids({t})}, {"NS.objects", a.uids({t})}};
    }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.uids({t})}, {"NS.objects", a.uids({})}};
    }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields { return {{"NS.keys", a.uids({t})}}; }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.uids({0})}, {"NS.objects", a.uids({t})}};
    }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.uids({t})}, {"NS.objects", a.uids({0})}};
    }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.uids({a.number(a.file.integer(1))})}, {"NS.objects", a.uids({t})}};
    }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.file.array({a.file.text("inline")})}, {"NS.objects", a.uids({t})}};
    }));
    EXPECT_FALSE(dictionary([](Archive& a, auto t) -> Fields {
        return {{"NS.keys", a.uids({t})}, {"NS.objects", a.file.array({a.file.integer(1)})}};
    }));
}

TEST(ArchiveReader, AStoredNullObjectIsAValue) {
    const auto record = readArgument([](Archive& a) { return a.number(a.object({}, a.classNamed("NSNull"))); });
    ASSERT_TRUE(record);
    ASSERT_NE(record->arguments()->find("value"), nullptr);
    EXPECT_TRUE(record->arguments()->find("value")->isNull());
}

TEST(ArchiveReader, RefusesFieldsOfTheWrongKind) {
    using Fields = std::vector<Archive::Field>;
    const auto reads = [](const char* key, const std::function<std::uint64_t(Archive&)>& place) {
        return readRecord([&](Archive& a) -> Fields { return {{key, place(a)}}; }) != nullptr;
    };
    const auto text = [](Archive& a) { return a.file.text("x"); };
    const auto textObject = [](Archive& a) { return a.file.uid(a.number(a.file.text("x"))); };
    const auto nothing = [](Archive& a) { return a.file.uid(0); };
    for (const char* key : {"opType", "cancelled", "progress", "testInfo.timeToLive", "testInfo.shouldCrash"}) {
        EXPECT_FALSE(reads(key, text)) << key;
        EXPECT_FALSE(reads(key, textObject)) << key;
        EXPECT_TRUE(reads(key, nothing)) << key;
    }
    for (const char* key : {"arguments", "result", "error"}) {
        EXPECT_FALSE(reads(key, text)) << key;
        EXPECT_FALSE(reads(key, textObject)) << key;
        EXPECT_TRUE(reads(key, nothing)) << key;
    }
    EXPECT_TRUE(reads("uniqueID", textObject));
    EXPECT_FALSE(reads("uniqueID", text));
    EXPECT_FALSE(reads("uniqueID", [](Archive& a) { return a.file.uid(a.number(a.file.integer(1))); }));
    EXPECT_FALSE(reads("opType", [](Archive& a) { return a.file.integer(1LL << 40); }));
    EXPECT_FALSE(reads("cancelled", [](Archive& a) { return a.file.integer(2); }));
    EXPECT_FALSE(reads("progress", [](Archive& a) { return a.file.boolean(true); }));
}

TEST(ArchiveReader, ConvertsNumbers) {
    using Fields = std::vector<Archive::Field>;
    const auto record = readRecord([](Archive& a) -> Fields {
        return {{"opType", a.file.integer(0xDEADBEEF)},
                {"cancelled", a.file.integer(1)},
                {"completed", a.file.integer(0)},
                {"progress", a.file.add('\x23' + bigEndian(0x3FE0000000000000, 8))},
                {"testInfo.timeToLive", a.file.add('\x14' + Bytes(16, '\xFF'))}};
    });
    ASSERT_TRUE(record);
    EXPECT_EQ(record->operationType(), OpHTTPServerTesting);
    EXPECT_TRUE(record->cancelled());
    EXPECT_FALSE(record->completed());
    EXPECT_EQ(record->progress(), 0.5F);
    EXPECT_EQ(record->testInfo()->timeToLive, -1);
    EXPECT_EQ(readRecord([](Archive& a) -> Fields { return {{"progress", a.file.integer(1)}}; })->progress(), 1.0F);
}

TEST(ArchiveReader, ReadsTheMutableKindsAndInlineDates) {
    EXPECT_EQ(argument(readArgument([](Archive& a) {
                  return a.number(a.object({{"NS.string", a.file.text("m")}}, a.classNamed("NSMutableString")));
              })),
              Value("m"));
    EXPECT_EQ(argument(readArgument([](Archive& a) {
                  return a.number(a.object({{"NS.data", a.file.add("\x42zz")}}, a.classNamed("NSMutableData")));
              })),
              Value(Data{std::byte{'z'}, std::byte{'z'}}));
    EXPECT_EQ(argument(readArgument([](Archive& a) {
                  return a.number(a.object({{"NS.objects", a.uids({})}}, a.classNamed("NSMutableArray")));
              })),
              Value(Array{}));
    EXPECT_EQ(argument(readArgument(
                  [](Archive& a) { return a.number(a.file.add('\x33' + bigEndian(0x3FF0000000000000, 8))); })),
              Value(Date{1.0}));
}

TEST(ArchiveReader, ReadsUidsOfAnyWidthUpTo32BitsOfValue) {
    const auto withUid = [](const std::function<Bytes(std::uint64_t)>& uidBytes) {
        return readRecord([&](Archive& a) -> std::vector<Archive::Field> {
            const auto text = a.number(a.file.text("u"));
            return {{"uniqueID", a.file.add(uidBytes(text))}};
        });
    };
    EXPECT_EQ(withUid([](auto v) { return '\x80' + bigEndian(v, 1); })->uniqueID(), "u");
    EXPECT_EQ(withUid([](auto v) { return '\x82' + bigEndian(v, 3); })->uniqueID(), "u");
    EXPECT_EQ(withUid([](auto v) { return '\x8F' + Bytes(8, '\0') + bigEndian(v, 8); })->uniqueID(), "u");
    EXPECT_FALSE(withUid([](auto v) { return '\x87' + bigEndian(v + (1ULL << 32), 8); }));
    EXPECT_FALSE(withUid([](auto v) { return '\x8F' + Bytes(8, '\1') + bigEndian(v, 8); }));
}

TEST(ArchiveReader, LoneSurrogatesBecomeReplacementCharacters) {
    const auto text = [](std::vector<int> units) {
        return argument(readArgument([&](Archive& a) { return a.number(a.file.utf16(units)); })).stringValue();
    };
    EXPECT_EQ(text({0xD83C, 0xDFAC}), "\xF0\x9F\x8E\xAC");
    EXPECT_EQ(text({'a', 0xD83C}), "a\xEF\xBF\xBD");
    EXPECT_EQ(text({0xDFAC, 'b'}), "\xEF\xBF\xBD"
                                   "b");
    EXPECT_EQ(text({0xD83C, 0xD83C, 0xDFAC}), "\xEF\xBF\xBD\xF0\x9F\x8E\xAC");
    EXPECT_EQ(text({0xE9, 0x4E2D}), "\xC3\xA9\xE4\xB8\xAD");
}

TEST(ArchiveReader, RefusesAsciiTextWithOtherBytes) {
    EXPECT_EQ(argument(readArgument([](Archive& a) { return a.number(a.file.text("caf\xE9")); })), Value("refused"));
    EXPECT_EQ(argument(readArgument([](Archive& a) { return a.number(a.file.text("\x7F")); })), Value("\x7F"));
}

TEST(ArchiveReader, RefusesSizesThatDoNotParse) {
    const auto size = [](const char* text, std::int64_t special) {
        return argument(readArgument([&](Archive& a) {
            const auto t = a.file.uid(a.number(a.file.text(text)));
            return a.number(
                a.object({{"NS.special", a.file.integer(special)}, {"NS.sizeval", t}}, a.classNamed("NSValue")));
        }));
    };
    EXPECT_EQ(size("{160, 120}", 2), Value(Size{160, 120}));
    EXPECT_EQ(size("{-1.5e3,0.25}", 2), Value(Size{-1500, 0.25}));
    for (const char* text : {"", "{160, 120", "{160}", "160, 120", "{a, b}", "{1, 2}x"}) {
        EXPECT_EQ(size(text, 2), Value("refused")) << text;
    }
    EXPECT_EQ(size("{160, 120}", 1), Value("refused"));
}

}  // namespace
}  // namespace krv
