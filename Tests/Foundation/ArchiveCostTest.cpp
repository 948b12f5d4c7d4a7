// What an archive may cost: memory and work while it is read, and afterwards.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>
#include <malloc.h>

#include <KRVQTProcessClient/Foundation/Description.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "ArchiveSeeds.h"

namespace {

std::atomic<std::size_t> liveBytes{0};
std::atomic<std::size_t> peakBytes{0};

void* counted(void* memory) {
    if (!memory) {
        throw std::bad_alloc();
    }
    const std::size_t now = liveBytes += ::malloc_usable_size(memory);
    std::size_t peak = peakBytes;
    while (now > peak && !peakBytes.compare_exchange_weak(peak, now)) {
    }
    return memory;
}

void uncounted(void* memory) noexcept {
    liveBytes -= ::malloc_usable_size(memory);
    std::free(memory);
}

}  // namespace

// Every allocation of this program is counted.
void* operator new(std::size_t size) {
    return counted(std::malloc(size));
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    void* const memory = std::malloc(size);
    return memory ? counted(memory) : nullptr;
}
void operator delete(void* memory) noexcept {
    uncounted(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    uncounted(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    uncounted(memory);
}

namespace krv {
namespace {

using test::Archive;
using test::Bytes;
using test::dataOf;

constexpr std::size_t kMiB = std::size_t{1} << 20;
/// The longest request that the server accepts, and what decoding it may take.
constexpr std::size_t kLongestRequest = 16 * kMiB;
constexpr std::size_t kMostMemory = 64 * kMiB;

/// Returns the most memory that the work needed at one time.
template <typename Work>
std::size_t peakOf(const Work& work) {
    const std::size_t before = liveBytes;
    peakBytes = before;
    work();
    return peakBytes - before;
}

/// Decodes the bytes within the limit of memory. If they are a record, does everything with it that the server and an
/// application do.
bool readsCheaply(const Bytes& bytes) {
    const auto data = dataOf(bytes);
    KRVOperationBase::Ref record;
    const std::size_t peak = peakOf([&] { record = KRVOperationBase::operationFromData(data); });
    EXPECT_LE(peak, kMostMemory);
    EXPECT_LE(peak, 64 * 1024 + 64 * bytes.size());
    if (!record) {
        return false;
    }
    const Data again = record->convertToData();
    EXPECT_TRUE(KRVOperationBase::operationFromData(std::make_shared<const Data>(again)));
    KRVOperationBase copy;
    copy.copyFrom(record);
    EXPECT_LE(record->arguments()->description().size(), 128 * 1024 + bytes.size());
    return true;
}

TEST(ArchiveCost, ALadderIsRefusedBeyondTheBound) {
    // The record, its arguments and the outermost array are three levels.
    EXPECT_TRUE(readsCheaply(test::ladder(kMaximumArchiveDepth - 3)));
    EXPECT_FALSE(readsCheaply(test::ladder(kMaximumArchiveDepth - 2)));
    EXPECT_FALSE(readsCheaply(test::ladder(200'000)));
}

TEST(ArchiveCost, ALadderOfTheWriterIsRefusedToo) {
    const auto rungs = [](int count) {
        Array all{Value(Array{})};
        for (int i = 1; i < count; ++i) {
            all.push_back(Value(Array{all.back()}));
        }
        return KeyedArchiver::archivedData(Value(std::move(all)));
    };
    const Data good = rungs(kMaximumArchiveDepth - 1);
    EXPECT_FALSE(KRVOperationBase::valueFromData(std::make_shared<const Data>(good)).isNull());
    EXPECT_THROW((void)rungs(kMaximumArchiveDepth), Exception);
}

TEST(ArchiveCost, WhatIsReadCanBeWrittenInAnyOrder) {
    EXPECT_TRUE(readsCheaply(test::twoChains(20)));
    EXPECT_FALSE(readsCheaply(test::twoChains(40)));
}

TEST(ArchiveCost, ADateOfThePropertyListCountsAsAnObject) {
    EXPECT_TRUE(readsCheaply(test::nestedDate(kMaximumArchiveDepth - 4)));
    EXPECT_FALSE(readsCheaply(test::nestedDate(kMaximumArchiveDepth - 3)));
}

TEST(ArchiveCost, ARecordWithoutArgumentsCountsTheOnesItIsGiven) {
    const auto nestedRecord = [](int arrays) {
        return test::argumentsArchive([&](Archive& a) -> std::vector<std::uint64_t> {
            test::ArrayMaker maker(a);
            auto inner = a.number(a.object({}, a.classNamed("KRVOperationBase")));
            for (int i = 0; i < arrays; ++i) {
                inner = maker.of({inner});
            }
            return {inner};
        });
    };
    EXPECT_TRUE(readsCheaply(nestedRecord(kMaximumArchiveDepth - 5)));
    EXPECT_FALSE(readsCheaply(nestedRecord(kMaximumArchiveDepth - 4)));
}

TEST(ArchiveCost, SharedListsArePaidForByEachArray) {
    EXPECT_TRUE(readsCheaply(test::sharedLists(10, 100)));
    EXPECT_FALSE(readsCheaply(test::sharedLists(500, 6'000)));
    EXPECT_FALSE(readsCheaply(test::sharedLists(120, 400'000)));
    EXPECT_FALSE(readsCheaply(test::sharedLists(200, 800'000)));
}

TEST(ArchiveCost, TextsWhoseBytesOverlapArePaidForByEachText) {
    EXPECT_FALSE(readsCheaply(test::overlappingTexts(50'000)));
}

TEST(ArchiveCost, CopiesOfASharedDictionaryArePaidFor) {
    EXPECT_TRUE(readsCheaply(test::sharedArguments(10, 10)));
    EXPECT_FALSE(readsCheaply(test::sharedArguments(10'000, 10'000)));
}

TEST(ArchiveCost, ErrorsShareTheirDomain) {
    EXPECT_TRUE(readsCheaply(test::sharedDomain(10, 1000)));
    EXPECT_TRUE(readsCheaply(test::sharedDomain(10'000, 400'000)));
}

TEST(ArchiveCost, TheSharedTextOfASizeIsShort) {
    const auto sizes = [](std::size_t digits) {
        return test::argumentsArchive([&](Archive& a) {
            const auto text = a.file.uid(a.number(a.file.text("{1." + Bytes(digits, '0') + ", 1}")));
            const auto sizeClass = a.classNamed("NSValue");
            std::vector<std::uint64_t> all;
            for (int i = 0; i < 1000; ++i) {
                all.push_back(a.number(a.object({{"NS.special", a.file.integer(2)}, {"NS.sizeval", text}}, sizeClass)));
            }
            return all;
        });
    };
    EXPECT_TRUE(readsCheaply(sizes(17)));
    EXPECT_FALSE(readsCheaply(sizes(1'000'000)));
}

TEST(ArchiveCost, ALongTextIsWrittenOnceForAllReferences) {
    EXPECT_TRUE(readsCheaply(test::longText(20'000, 4'000'000)));
}

TEST(ArchiveCost, DictionariesMayShareLongKeys) {
    const auto record = KRVOperationBase::mergeSourcesOperation(Array{}, "/d", false);
    Array dictionaries;
    for (int i = 0; i < 2000; ++i) {
        const auto dictionary = std::make_shared<Dictionary>();
        dictionary->set(std::string(4000, 'k'), i);
        dictionary->set(std::string(4000, 'k') + "2", i);
        dictionaries.push_back(dictionary);
    }
    record->arguments()->set("dictionaries", Value(std::move(dictionaries)));
    const auto back = KRVOperationBase::operationFromData(std::make_shared<const Data>(record->convertToData()));
    ASSERT_TRUE(back);
    EXPECT_EQ(*back->arguments(), *record->arguments());
}

TEST(ArchiveCost, SharedKeysWithACommonBeginningArePaidFor) {
    // Each dictionary compares the two keys, a megabyte.
    EXPECT_FALSE(readsCheaply(test::argumentsArchive([](Archive& a) {
        const Bytes start(1'000'000, 'k');
        const auto keys = a.uids({a.number(a.file.text(start + "1")), a.number(a.file.text(start + "2"))});
        const auto dictionaryClass = a.file.uid(a.classNamed("NSDictionary"));
        const auto keysKey = a.file.text("NS.keys");
        const auto objectsKey = a.file.text("NS.objects");
        const auto classKey = a.file.text("$class");
        std::vector<std::uint64_t> all;
        for (int i = 0; i < 100'000; ++i) {
            all.push_back(
                a.number(a.file.dictionary({{keysKey, keys}, {objectsKey, keys}, {classKey, dictionaryClass}})));
        }
        return all;
    })));
}

TEST(ArchiveCost, AnOffsetTableNeedsAsManyObjects) {
    // All entries of the table have the same offset.
    Bytes bytes = "bplist00" + Bytes(100, '\x08') + Bytes(kLongestRequest, '\x08') + Bytes(6, '\0') + '\1' + '\4' +
                  test::bigEndian(kLongestRequest, 8) + test::bigEndian(0, 8) + test::bigEndian(108, 8);
    const auto data = dataOf(bytes);
    EXPECT_LT(peakOf([&] { EXPECT_FALSE(KRVOperationBase::operationFromData(data)); }), kMiB);
}

TEST(ArchiveCost, TheLongestRequestsAreReadOrRefusedWithinTheLimit) {
    // Elements of one byte each, texts and numbers.
    for (const std::size_t count : {std::size_t{1} << 20, kLongestRequest - 2000}) {
        const Bytes bytes = test::argumentsArchive(
            [&](Archive& a) {
                test::ArrayMaker maker(a);
                const auto place = a.file.uid(a.number(a.file.text("x")));
                return std::vector{maker.withList(a.file.array(std::vector<std::uint64_t>(count, place)))};
            },
            1);
        EXPECT_EQ(readsCheaply(bytes), count == std::size_t{1} << 20);
    }
    for (const bool texts : {true, false}) {
        KRVOperationBase record;
        Array values;
        for (int i = 0; i < 340'000; ++i) {
            values.push_back(texts ? Value("/Movies/part " + std::to_string(i)) : Value(i * 1001));
        }
        record.arguments()->set("values", Value(std::move(values)));
        const Data data = record.convertToData();
        ASSERT_LE(data.size(), kLongestRequest);
        EXPECT_TRUE(readsCheaply(Bytes(reinterpret_cast<const char*>(data.data()), data.size())));
    }
}

TEST(ArchiveCost, DescriptionsOfSharedContainersEnd) {
    EXPECT_TRUE(readsCheaply(test::fanOut(4)));
    EXPECT_TRUE(readsCheaply(test::fanOut(12)));
    Value value("leaf");
    for (int i = 0; i < 12; ++i) {
        value = Value(Array(10, value));
    }
    EXPECT_LE(value.description().size(), 128 * 1024);
    EXPECT_NE(value.description().find("..."), std::string::npos);
}

TEST(ArchiveCost, DescriptionsOfNestedErrorsAndRecordsEnd) {
    Value error("leaf");
    Value record("leaf");
    for (int i = 0; i < 20; ++i) {
        Dictionary info{{"first", Array(10, error)}, {"second", error}};
        error = Value(Error::make("D", i, std::move(info)));
        record = Value(KRVOperationBase::mergeSourcesOperation(Array(10, record), "/d", false));
    }
    EXPECT_LE(error.description().size(), 256 * 1024);
    EXPECT_LE(record.description().size(), 256 * 1024);
}

}  // namespace
}  // namespace krv
