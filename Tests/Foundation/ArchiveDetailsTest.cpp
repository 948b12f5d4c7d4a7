// Malformed details of an archive that would read well if they were overlooked.
#include <algorithm>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
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

}  // namespace
}  // namespace krv
