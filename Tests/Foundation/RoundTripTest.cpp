// What is written is read back the same, and what is read is written so that it reads the same.
#include <cstddef>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "HostileArchives.h"
#include "RandomRecords.h"
#include "SameValue.h"

namespace krv {
namespace {

using test::Bytes;
using test::dataOf;
using test::RandomRecords;
using test::Sameness;

Value reread(const Value& value) {
    return KRVOperationBase::valueFromData(std::make_shared<const Data>(KeyedArchiver::archivedData(value)));
}

KRVOperationBase::Ref reread(const KRVOperationBase& record) {
    return KRVOperationBase::operationFromData(std::make_shared<const Data>(record.convertToData()));
}

/// Collects the kinds and classes of which a value consists.
void collect(const Value& value, std::set<std::string>& kinds) {
    kinds.insert(std::to_string(static_cast<int>(value.kind())));
    if (const auto array = value.array()) {
        for (const Value& element : *array) {
            collect(element, kinds);
        }
    }
    if (const auto object = value.object()) {
        kinds.insert(std::string(object->className()));
    }
}

TEST(RoundTrip, EveryRecordThatIsWrittenIsReadBack) {
    constexpr int kRecords = 2500;
    std::set<std::string> kinds;
    int large = 0;
    for (int seed = 0; seed < kRecords; ++seed) {
        RandomRecords random(static_cast<std::uint32_t>(seed));
        const auto record = random.record();
        const Data data = record->convertToData();
        const auto back = KRVOperationBase::operationFromData(std::make_shared<const Data>(data));
        ASSERT_TRUE(back) << seed;
        ASSERT_TRUE(Sameness().same(*record, *back)) << seed;
        for (const auto& [key, value] : *record->arguments()) {
            collect(value, kinds);
        }
        large += data.size() > 65536 ? 1 : 0;
    }
    // Thirteen kinds of value, four classes.
    EXPECT_EQ(kinds.size(), 17U);
    EXPECT_GT(large, 0);
}

TEST(RoundTrip, EveryValueThatIsWrittenIsReadBack) {
    RandomRecords random(1);
    for (int i = 0; i < 10'000; ++i) {
        const Value value = random.value(3);
        if (!value.isNull()) {
            ASSERT_TRUE(Sameness().same(value, reread(value))) << i;
        }
    }
}

TEST(RoundTrip, ContainersMayGrowOutOfEachOther) {
    // Each value contains earlier ones, until the nesting is too deep to be written.
    int refused = 0;
    for (std::uint32_t seed = 0; seed < 20; ++seed) {
        RandomRecords random(seed);
        std::vector<Value> made{random.value(1)};
        for (int i = 0; i < 150; ++i) {
            Array array;
            for (std::size_t left = 1 + random.below(3); left > 0; --left) {
                array.push_back(random.chance(10) ? made[random.below(made.size())] : made.back());
            }
            made.emplace_back(random.chance(2) ? Value(std::move(array))
                                               : Value(Dictionary{{"a", array.front()}, {"b", array.back()}}));
            Value back;
            try {
                back = reread(made.back());
            } catch (const Exception& exception) {
                ASSERT_EQ(exception.name(), kInvalidArgumentException);
                ++refused;
                continue;
            }
            ASSERT_TRUE(Sameness().same(made.back(), back)) << seed << ' ' << i;
        }
    }
    EXPECT_GT(refused, 0);
}

/// Whether the value is written and then read back the same. What would cost the reader too much must not be written.
bool isWritten(const Value& value) {
    Data data;
    try {
        data = KeyedArchiver::archivedData(value);
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), kInvalidArgumentException);
        return false;
    }
    EXPECT_TRUE(Sameness().same(value, KRVOperationBase::valueFromData(std::make_shared<const Data>(std::move(data)))));
    return true;
}

/// Returns an array of count values that make(index) returns.
template <typename Make>
Value arrayOf(int count, const Make& make) {
    Array array;
    for (int i = 0; i < count; ++i) {
        array.push_back(make(i));
    }
    return Value(std::move(array));
}

TEST(RoundTrip, WhatWouldCostTheReaderTooMuchIsNotWritten) {
    const Value text("text");
    EXPECT_TRUE(isWritten(Value(Array(1'000'000, text))));
    EXPECT_FALSE(isWritten(Value(Array(2'000'000, text))));

    // Each dictionary's keys are compared.
    const auto dictionaries = [](int count, std::size_t length) {
        const std::string start(length, 'k');
        const auto key1 = std::make_shared<const std::string>(start + "1");
        const auto key2 = std::make_shared<const std::string>(start + "2");
        return arrayOf(count, [&](int i) {
            return Value(
                Dictionary::fromEntries({{key1, Value(i)}, {key2, Value(i)}}, Dictionary::Mutability::Mutable));
        });
    };
    EXPECT_TRUE(isWritten(dictionaries(1000, 4000)));
    EXPECT_FALSE(isWritten(dictionaries(3000, 100'000)));

    // Each record gets a copy of its arguments.
    const auto records = [](int count, int entries) {
        Dictionary arguments;
        for (int i = 0; i < entries; ++i) {
            arguments.set(std::to_string(i), i);
        }
        const auto shared = std::make_shared<Dictionary>(std::move(arguments));
        return arrayOf(count, [&](int) {
            const auto record = std::make_shared<KRVOperationBase>();
            record->setArguments(shared);
            return Value(Value::ObjectRef(record));
        });
    };
    EXPECT_TRUE(isWritten(records(100, 10)));
    EXPECT_FALSE(isWritten(records(1000, 2'000)));
}

TEST(RoundTrip, ManySmallObjectsOfEachKindAreWritten) {
    RandomRecords random(3);
    std::set<std::string> kinds;
    while (kinds.size() < 16) {
        const Value value = random.value(1);
        const std::size_t before = kinds.size();
        collect(value, kinds);
        if (kinds.size() == before || value.isNull()) {
            continue;
        }
        for (const int count : {1, 50, 63, 300, 5'000}) {
            // The same object many times, and as many objects.
            EXPECT_TRUE(isWritten(Value(Array(static_cast<std::size_t>(count), value)))) << value.description();
        }
    }
    using Audio = AudioEncodingParameters;
    for (const int count : {1, 30, 50, 63, 64, 65, 100, 300, 5'000}) {
        EXPECT_TRUE(isWritten(arrayOf(count, [](int i) { return Value(Date{i * 0.5}); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int i) { return Value(Size{i * 0.5, 1}); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int) { return Value(); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int) { return Value(Array{}); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int) { return Value(Dictionary{}); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int i) { return Value(Error::make("D", i, {})); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int) { return Value(Audio::encodingParametersWithData(nullptr)); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int) { return Value(KRVOperationBase::shutdownCommand()); })));
        EXPECT_TRUE(isWritten(arrayOf(count, [](int i) { return Value("/Movies/part " + std::to_string(i)); })));
    }
}

/// Damages a few bytes, or repeats or removes a part.
Bytes mutated(Bytes bytes, RandomRecords& random) {
    for (std::size_t left = 1 + random.below(3); left > 0; --left) {
        const std::size_t place = random.below(bytes.size());
        switch (random.below(4)) {
        case 0:
            bytes[place] = static_cast<char>(random.below(256));
            break;
        case 1:
            bytes[place] = static_cast<char>(static_cast<unsigned char>(bytes[place]) ^ (1U << random.below(8)));
            break;
        case 2:
            bytes[place] = static_cast<char>(bytes[place] + 1);
            break;
        default:
            bytes[place] = bytes[random.below(bytes.size())];
        }
    }
    return bytes;
}

/// Reads the bytes. Whatever they contain must be describable, and writable so that it reads the same.
bool survives(const Bytes& bytes) {
    const Value value = KRVOperationBase::valueFromData(dataOf(bytes));
    if (value.isNull()) {
        return false;
    }
    EXPECT_LE(value.description().size(), 128 * 1024 + bytes.size());
    EXPECT_TRUE(Sameness().same(value, reread(value)));
    if (const auto record = KRVOperationBase::operationFromData(dataOf(bytes))) {
        const auto back = reread(*record);
        EXPECT_TRUE(back && Sameness().same(*record, *back));
    }
    return true;
}

TEST(RoundTrip, WhatIsReadOfDamagedArchivesIsWrittenAndReadBack) {
    RandomRecords random(2);
    std::vector<Bytes> archives{
        test::ladder(20),         test::ladder(70), test::twoChains(20),         test::twoChains(40),
        test::sharedLists(5, 10), test::fanOut(12), test::sharedArguments(3, 3), test::sharedDomain(3, 30),
        test::longText(5, 300)};
    for (int i = 0; i < 30; ++i) {
        const Data data = random.record(3)->convertToData();
        archives.emplace_back(reinterpret_cast<const char*>(data.data()), data.size());
    }
    int read = 0;
    int refused = 0;
    for (const Bytes& archive : archives) {
        for (int i = 0; i < 300 && !HasFailure(); ++i) {
            ++(survives(mutated(archive, random)) ? read : refused);
        }
    }
    EXPECT_GT(read, 100);
    EXPECT_GT(refused, 100);
}

TEST(RoundTrip, WhatIsReadOnlyForItsSizeIsWrittenAndReadBack) {
    // Without the padding most of these cost too much. What is written has none.
    for (const Bytes& archive :
         {test::sharedLists(60, 10'000), test::sharedArguments(60, 2000), test::sharedDomain(1000, 60'000),
          test::longText(30'000, 10'000), test::overlappingTexts(2000), test::fanOut(30), test::ladder(60)}) {
        EXPECT_TRUE(survives(test::padded(archive, 2 << 20))) << archive.size();
    }
}

TEST(RoundTrip, SharedArgumentsAreReadOnlyIfTheyCanBeWrittenSeparately) {
    // Each record gets a dictionary of its own, which takes more memory than the shared one in the archive.
    int read = 0;
    int refused = 0;
    for (const std::size_t entries : {30'000U, 60'000U, 92'368U}) {
        for (const std::size_t records : {1U, 2U, 3U, 5U, 7U, 9U}) {
            ++(survives(test::padded(test::sharedArguments(records, entries), 2 << 20)) ? read : refused);
        }
    }
    EXPECT_GT(read, 3);
    EXPECT_GT(refused, 3);
}

TEST(RoundTrip, RecordsThatLackFieldsAreReadOnlyIfTheyCanBeWrittenWithThem) {
    int read = 0;
    int refused = 0;
    for (std::size_t records = 18'000; records < 30'000; records += 500) {
        ++(survives(test::padded(test::sharedArguments(records, 0), 2 << 20)) ? read : refused);
    }
    EXPECT_GT(read, 3);
    EXPECT_GT(refused, 3);
}

}  // namespace
}  // namespace krv
