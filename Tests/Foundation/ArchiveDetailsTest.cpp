// Malformed details of an archive that would read well if they were overlooked.
#include <algorithm>
#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "HandmadeArchive.h"

namespace krv {
namespace {

using test::Archive;
using test::argument;
using test::bigEndian;
using test::Bytes;
using test::readArgument;
using test::readRecord;

TEST(ArchiveDetails, OnlyTwoMarkersAreBooleans) {
    const auto withMarker = [](char marker) {
        return readRecord([&](Archive& a) -> std::vector<Archive::Field> {
            return {{"completed", a.file.add(Bytes(1, marker))}};
        });
    };
    EXPECT_TRUE(withMarker('\x09')->completed());
    EXPECT_FALSE(withMarker('\x08')->completed());
    for (const char marker : {'\x00', '\x01', '\x0F'}) {
        EXPECT_EQ(withMarker(marker), nullptr);
    }
}

TEST(ArchiveDetails, AnIntegerOf128BitsMustFitIn64) {
    const auto withHighHalf = [](char byte) {
        return readRecord([&](Archive& a) -> std::vector<Archive::Field> {
            return {{"opType", a.file.add('\x14' + Bytes(8, byte) + bigEndian(6, 8))}};
        });
    };
    EXPECT_EQ(withHighHalf('\0')->operationType(), 6);
    EXPECT_EQ(withHighHalf('\1'), nullptr);
}

TEST(ArchiveDetails, ACountHasAtMostEightBytes) {
    const auto withCount = [](const Bytes& count) {
        return readRecord([&](Archive& a) -> std::vector<Archive::Field> {
            return {{"uniqueID", a.file.uid(a.number(a.file.add('\x5F' + count + 'u')))}};
        });
    };
    EXPECT_EQ(withCount('\x13' + bigEndian(1, 8))->uniqueID(), "u");
    EXPECT_EQ(withCount('\x14' + Bytes(8, '\0') + bigEndian(1, 8)), nullptr);
}

TEST(ArchiveDetails, AShortTextEndsBeforeTheOffsetTable) {
    const auto identifiedBy = [](const Bytes& text) {
        return readRecord([&](Archive& a) -> std::vector<Archive::Field> {
            return {{"uniqueID", a.file.uid(a.number(a.file.add("\x5F\x10\xFF" + text)))}};
        });
    };
    EXPECT_EQ(identifiedBy(Bytes(255, 'u'))->uniqueID(), Bytes(255, 'u'));
    EXPECT_EQ(identifiedBy("u"), nullptr);
}

TEST(ArchiveDetails, DataEndsBeforeTheOffsetTable) {
    KRVOperationBase record;
    record.arguments()->set("data", Data(300, std::byte{0xAB}));
    Data archive = record.convertToData();
    const Data length{std::byte{0x4F}, std::byte{0x11}, std::byte{0x01}, std::byte{0x2C}};
    const auto place = std::search(archive.begin(), archive.end(), length.begin(), length.end());
    ASSERT_NE(place, archive.end());
    place[2] = std::byte{0x04};  // 1068 bytes, more than the file has
    ASSERT_LT(archive.size(), 1368U);
    EXPECT_EQ(KRVOperationBase::operationFromData(std::make_shared<const Data>(archive)), nullptr);
}

TEST(ArchiveDetails, ADictionaryHasAsManyValuesAsKeys) {
    const auto withValues = [](std::size_t count) {
        return argument(readArgument([&](Archive& a) {
            const auto text = a.number(a.file.text("x"));
            const auto dictionaryClass = a.classNamed("NSDictionary");
            return a.number(
                a.object({{"NS.keys", a.uids({text})}, {"NS.objects", a.uids(std::vector<std::uint64_t>(count, text))}},
                         dictionaryClass));
        }));
    };
    EXPECT_EQ(withValues(1), Value(Dictionary::fromEntries({{std::make_shared<const std::string>("x"), Value("x")}},
                                                           Dictionary::Mutability::Immutable)));
    EXPECT_EQ(withValues(0), Value("refused"));
    EXPECT_EQ(withValues(2), Value("refused"));
}

/// Builds a dictionary with one entry, whose key and value are the text, and returns its number.
std::uint64_t dictionaryOf(Archive& a, const char* text) {
    const auto list = a.uids({a.number(a.file.text(text))});
    return a.number(a.object({{"NS.keys", list}, {"NS.objects", list}}, a.classNamed("NSDictionary")));
}

TEST(ArchiveDetails, ADictionaryIsCopiedForEachFieldThatRefersToIt) {
    const auto record = readRecord([](Archive& a) -> std::vector<Archive::Field> {
        const auto both = a.file.uid(dictionaryOf(a, "x"));
        return {{"result", both}, {"arguments", both}};
    });
    ASSERT_TRUE(record);
    EXPECT_EQ(*record->result(), *record->arguments());
    record->result()->set("y", 1);
    EXPECT_EQ(*record->arguments(), (Dictionary{{"x", "x"}}));
    record->arguments()->remove("x");
    EXPECT_EQ(*record->result(), (Dictionary{{"x", "x"}, {"y", 1}}));
}

TEST(ArchiveDetails, ANullObjectIsReadAsAnEmptyDictionary) {
    const auto record = readRecord([](Archive& a) -> std::vector<Archive::Field> {
        return {{"arguments", a.file.uid(a.number(a.object({}, a.classNamed("NSNull"))))}};
    });
    ASSERT_TRUE(record);
    EXPECT_EQ(*record->arguments(), Dictionary());
}

TEST(ArchiveDetails, ADictionaryMayBeAFieldAndAnElement) {
    for (const bool fieldFirst : {true, false}) {
        const auto value = argument(readArgument([&](Archive& a) {
            const auto dictionary = dictionaryOf(a, "x");
            const auto inner =
                a.number(a.object({{"arguments", a.file.uid(dictionary)}}, a.classNamed("KRVOperationBase")));
            const auto elements = fieldFirst ? a.uids({inner, dictionary}) : a.uids({dictionary, inner});
            return a.number(a.object({{"NS.objects", elements}}, a.classNamed("NSArray")));
        }));
        ASSERT_EQ(value.kind(), Value::Kind::Array);
        const Array& array = *value.array();
        const auto inner = std::dynamic_pointer_cast<const KRVOperationBase>(array.at(fieldFirst ? 0 : 1).object());
        const auto element = array.at(fieldFirst ? 1 : 0).dictionary();
        ASSERT_TRUE(inner && element);
        EXPECT_EQ(inner->arguments()->mutability(), Dictionary::Mutability::Mutable);
        EXPECT_EQ(element->mutability(), Dictionary::Mutability::Immutable);
        inner->arguments()->set("x", 2);
        EXPECT_EQ(*element, (Dictionary{{"x", "x"}}));
    }
}

TEST(ArchiveDetails, AKeyIsAsciiToo) {
    EXPECT_EQ(argument(readArgument([](Archive& a) { return dictionaryOf(a, "caf\xE9"); })), Value("refused"));
}

TEST(ArchiveDetails, KeysOfEarlierArchivesLeaveNoTrace) {
    // Many more keys than a thread remembers, around the length of the longest that it does.
    for (const char* const start : {"k", "key of the dictionary: "}) {
        KRVOperationBase record;
        for (int i = 0; i < 3000; ++i) {
            record.arguments()->set(start + std::to_string(i * 7919), i);
        }
        const auto data = std::make_shared<const Data>(record.convertToData());
        for (int time = 0; time < 2; ++time) {
            const auto back = KRVOperationBase::operationFromData(data);
            ASSERT_TRUE(back);
            EXPECT_EQ(*back->arguments(), *record.arguments());
        }
    }
}

TEST(ArchiveDetails, AClassIsNotAValue) {
    constexpr std::uint64_t kClassOfTheRecord = 2;
    EXPECT_EQ(argument(readArgument([](Archive&) { return kClassOfTheRecord; })), Value("refused"));
}

TEST(ArchiveDetails, EveryByteOfACharacterMustBelongToIt) {
    for (const char* text : {"\xC3(", "\xE2\x82(", "\xE2(\x82", "\xF0\x9F\x8E("}) {
        KRVOperationBase record;
        record.arguments()->set("path", text);
        EXPECT_THROW((void)record.convertToData(), Exception) << text;
    }
}

TEST(ArchiveDetails, SizesKeepAllTheirDigits) {
    KRVOperationBase record;
    const Size size{1.0 / 3, 1920.123456789012};
    record.arguments()->set("size", size);
    const auto back = KRVOperationBase::operationFromData(std::make_shared<const Data>(record.convertToData()));
    ASSERT_TRUE(back);
    EXPECT_EQ((*back->arguments())["size"], Value(size));
}

TEST(ArchiveDetails, SizesAreWrittenWithoutNeedlessDigits) {
    const auto written = [](Size size) {
        const Data archive = KeyedArchiver::archivedData(Value(size));
        const std::string bytes(reinterpret_cast<const char*>(archive.data()), archive.size());
        const std::size_t start = bytes.find('{');
        return bytes.substr(start, bytes.find('}') + 1 - start);
    };
    EXPECT_EQ(written({1920, 1080}), "{1920, 1080}");
    EXPECT_EQ(written({1920, 0.5}), "{1920, 0.5}");
    EXPECT_EQ(written({1920.25, 1}), "{1920.25, 1}");
    EXPECT_EQ(written({999'999'999, 12'345'678'901}), "{999999999, 12345678901}");
    EXPECT_EQ(written({-0.0, 0}), "{-0, 0}");
    EXPECT_EQ(written({-2, 1e300}), "{-2, 1.0000000000000001e+300}");
}

TEST(ArchiveDetails, SizesMayBeWrittenInAnyWay) {
    const auto sizeOf = [](const char* text) {
        return argument(readArgument([&](Archive& a) {
            const auto place = a.file.uid(a.number(a.file.text(text)));
            return a.number(
                a.object({{"NS.special", a.file.integer(2)}, {"NS.sizeval", place}}, a.classNamed("NSValue")));
        }));
    };
    EXPECT_EQ(sizeOf("{1920, 1080}"), Value(Size{1920, 1080}));
    EXPECT_EQ(sizeOf("{0,007}"), Value(Size{0, 7}));
    EXPECT_EQ(sizeOf("{999999999, 1234567890}"), Value(Size{999'999'999, 1'234'567'890}));
    EXPECT_EQ(sizeOf("{12345678901234567890, 1e3}"), Value(Size{12345678901234567890.0, 1000}));
    EXPECT_EQ(sizeOf("{-1.5, 2.}"), Value(Size{-1.5, 2}));
    EXPECT_TRUE(std::signbit(sizeOf("{-0, 0}").sizeValue().width));
    for (const char* const text :
         {"{1920, 1080", "{1920 1080}", "{1920, }", "{, 1080}", "{1920,1080}}", "{1920}", "{"}) {
        EXPECT_EQ(sizeOf(text), Value("refused")) << text;
    }
}

}  // namespace
}  // namespace krv
