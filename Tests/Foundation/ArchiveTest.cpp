#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

KRVOperationBase::Ref roundTrip(const KRVOperationBase& record) {
    return KRVOperationBase::operationFromData(std::make_shared<const Data>(record.convertToData()));
}

Value roundTrip(const Value& value) {
    KRVOperationBase record;
    record.arguments()->set("value", value);
    const auto back = roundTrip(record);
    return back ? (*back->arguments())["value"] : Value("the record did not come back");
}

class Observer : public OperationProgress {
    bool operation(const KRVOperationBase::Ref&, float) override { return true; }
};

TEST(Archive, AnEmptyRecordIsReadBackWithTheProcessIdAlone) {
    KRVOperationBase record;
    const auto back = roundTrip(record);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->operationType(), 0);
    EXPECT_EQ(back->uniqueID(), std::nullopt);
    EXPECT_EQ(back->error(), nullptr);
    EXPECT_EQ(back->progress(), 0.0F);
    EXPECT_FALSE(back->cancelled() || back->completed() || back->isClientRegistered());
    EXPECT_TRUE(back->result()->empty());
    EXPECT_EQ(*back->arguments(), *record.arguments());
    EXPECT_EQ(back->arguments()->size(), 1U);
}

TEST(Archive, DictionariesAreReadBackMutable) {
    KRVOperationBase record;
    const Dictionary result = Dictionary::fromEntries({{std::make_shared<const std::string>("k"), Value(1)}},
                                                      Dictionary::Mutability::Immutable);
    record.setResult(std::make_shared<Dictionary>(result));
    const auto back = roundTrip(record);
    EXPECT_EQ(back->result()->mutability(), Dictionary::Mutability::Mutable);
    EXPECT_EQ(back->arguments()->mutability(), Dictionary::Mutability::Mutable);
    EXPECT_EQ(*back->result(), result);
}

TEST(Archive, NullDictionariesAreReadBackEmpty) {
    KRVOperationBase record;
    record.setResult(nullptr);
    record.setArguments(nullptr);
    const auto back = roundTrip(record);
    ASSERT_TRUE(back->result() && back->arguments());
    EXPECT_TRUE(back->result()->empty());
    EXPECT_TRUE(back->arguments()->empty());
}

TEST(Archive, AllFieldsSurvive) {
    KRVOperationBase record;
    record.setOperationType(OpHTTPServerTesting);
    record.setUniqueID("8C2F6B1E");
    record.setError(Error::make("D", -5, {{"k", Array{1, "x"}}}));
    record.setProgress(0.3F, true);
    record.setCancelled(true);
    record.setIsClientRegistered(true);
    *record.testInfo() = {1, 0, 1, 1, 77};
    const auto back = roundTrip(record);
    EXPECT_EQ(back->operationType(), OpHTTPServerTesting);
    EXPECT_EQ(back->uniqueID(), "8C2F6B1E");
    EXPECT_EQ(*back->error(), *record.error());
    EXPECT_EQ(back->progress(), 0.3F);
    EXPECT_TRUE(back->completed() && back->cancelled() && back->isClientRegistered());
    EXPECT_EQ(*back->testInfo(), *record.testInfo());
}

TEST(Archive, CancelledWithoutCompletedSurvives) {
    KRVOperationBase record;
    record.setCancelled(true);
    const auto back = roundTrip(record);
    EXPECT_TRUE(back->cancelled());
    EXPECT_FALSE(back->completed());
}

TEST(Archive, TimeToLiveIsArchivedAsItsLow32Bits) {
    KRVOperationBase record;
    for (const auto& [sent, received] : {std::pair<std::int64_t, std::int64_t>{3, 3},
                                         {0x100000003, 3},
                                         {-1, -1},
                                         {0x80000000, -0x80000000LL},
                                         {0x7FFFFFFF, 0x7FFFFFFF}}) {
        record.testInfo()->timeToLive = sent;
        EXPECT_EQ(roundTrip(record)->testInfo()->timeToLive, received);
    }
}

TEST(Archive, TheProgressDelegateIsNotArchived) {
    KRVOperationBase record;
    record.setProgressDelegate(std::make_shared<Observer>());
    EXPECT_EQ(roundTrip(record)->progressDelegate(), nullptr);
}

TEST(Archive, EveryKindOfValueSurvives) {
    for (const Value& value : std::vector<Value>{
             false,
             true,
             0,
             255,
             256,
             65536,
             std::int64_t{1} << 40,
             -1,
             std::numeric_limits<std::int64_t>::min(),
             std::numeric_limits<std::int64_t>::max(),
             1.5F,
             -0.0F,
             2.25,
             std::numeric_limits<double>::infinity(),
             "",
             "ascii",
             std::string(300, 'x'),
             "\xC3\xA4\xF0\x9F\x8E\xAC",
             std::string("with\0null", 9),
             "$null",
             "$class",
             "root",
             "NSKeyedArchiver",
             Data{},
             Data(70000, std::byte{7}),
             Date{-1.25},
             Size{1920, 1080.5},
             Size{0.1, -3e-20},
             Array{},
             Array{1, "two", Array{3.0}, Dictionary{{"k", Value()}}},
             Dictionary{},
             Dictionary{{"", "empty key"}, {"a", Array{Data{std::byte{1}}}}},
             Value(Error::make("NSPOSIXErrorDomain", 2, {{"NSUnderlyingError", Value(Error::make("D", 1, {}))}})),
             Value(std::make_shared<const Error>("no user-info", 3)),
         }) {
        EXPECT_EQ(roundTrip(value), value) << value.description();
    }
}

TEST(Archive, NotANumberAndNegativeZeroSurvive) {
    EXPECT_TRUE(std::isnan(roundTrip(Value(std::nan(""))).doubleValue()));
    EXPECT_TRUE(std::signbit(roundTrip(Value(-0.0)).doubleValue()));
    KRVOperationBase record;
    record.setProgress(std::nanf(""));
    EXPECT_TRUE(std::isnan(roundTrip(record)->progress()));
}

TEST(Archive, ReferencesAreWidenedForManyObjects) {
    for (const int count : {200, 300, 40000, 70000}) {
        Array array;
        for (int i = 0; i < count; ++i) {
            array.push_back(i % 2 == 0 ? Value(i) : Value(std::to_string(i)));
        }
        EXPECT_EQ(roundTrip(Value(array)), Value(array)) << count;
    }
}

TEST(Archive, AStringUnderAThousandKeysIsStoredOnce) {
    KRVOperationBase record;
    const Value shared(std::string(1 << 20, 'm'));
    for (int i = 0; i < 1000; ++i) {
        record.arguments()->set(std::to_string(i), shared);
    }
    const Data data = record.convertToData();
    EXPECT_LT(data.size(), (1U << 20) + 40000);
    const auto back = KRVOperationBase::operationFromData(std::make_shared<const Data>(data));
    ASSERT_TRUE(back);
    EXPECT_EQ((*back->arguments())["7"].string(), (*back->arguments())["8"].string());
}

TEST(Archive, ContainersSharedManyTimesStaySmall) {
    Value value("leaf");
    for (int level = 0; level < 12; ++level) {
        value = Value(Array(10, value));  // 10^12 leaves
    }
    KRVOperationBase record;
    record.arguments()->set("value", value);
    const Data data = record.convertToData();
    EXPECT_LT(data.size(), 4000U);
    EXPECT_TRUE(KRVOperationBase::operationFromData(std::make_shared<const Data>(data)));
}

TEST(Archive, LongTextsAndDataAreInTheirPlaces) {
    // With many numbers, the archive is long even without the texts and data.
    for (const int numbers : {0, 20'000}) {
        KRVOperationBase record;
        Array values(static_cast<std::size_t>(numbers), Value(1001));
        for (const std::size_t length : {1U, 1023U, 1024U, 1025U, 5000U, 100'000U}) {
            values.emplace_back(std::string(length, 'a'));
            values.emplace_back("between " + std::to_string(length));
            values.emplace_back(Data(length, std::byte{0x5A}));
            values.emplace_back(std::string(length, 'a') + "\xC3\xA9");
        }
        record.arguments()->set("values", Value(values));
        record.arguments()->set("after", std::string(3000, 'z'));
        const Data archive = record.convertToData();
        const auto back = KRVOperationBase::operationFromData(std::make_shared<const Data>(archive));
        ASSERT_TRUE(back) << numbers;
        EXPECT_EQ(*back->arguments(), *record.arguments()) << numbers;
    }
}

TEST(Archive, TextThatIsNotUtf8CannotBeArchived) {
    for (const char* text :
         {"\xFF", "\xC3", "a\x80", "\xED\xA0\x80", "\xC0\xAF", "\xF5\x80\x80\x80", "\xF4\x90\x80\x80"}) {
        KRVOperationBase record;
        record.arguments()->set("path", text);
        EXPECT_THROW((void)record.convertToData(), Exception) << text;
    }
}

TEST(Archive, NestingBeyondTheBoundCannotBeArchived) {
    Value value(1);
    for (int level = 0; level < kMaximumArchiveDepth - 2; ++level) {
        value = Value(Array{value});
    }
    EXPECT_EQ(roundTrip(value), value);
    KRVOperationBase record;
    record.arguments()->set("value", Value(Array{value}));
    EXPECT_THROW((void)record.convertToData(), Exception);
}

TEST(Archive, ADictionaryThatContainsItselfIsWrittenButNotRead) {
    KRVOperationBase record;
    const auto cyclic = std::make_shared<Dictionary>();
    cyclic->set("self", cyclic);
    record.arguments()->set("value", cyclic);
    EXPECT_EQ(roundTrip(record), nullptr);
    cyclic->remove("self");
}

TEST(Archive, TextsThatEveryArchiveContainsAreOrdinaryTexts) {
    for (const char* text :
         {"$null", "$version", "$objects", "$archiver", "$top", "$class", "$classname", "$classes", "NSKeyedArchiver",
          "root", "NSObject", "NS.keys", "NS.objects", "NSDictionary", "NSMutableDictionary"}) {
        const Value value(Dictionary{{text, Array{Value(text), Value(text)}}});
        EXPECT_EQ(roundTrip(value), value) << text;
    }
}

TEST(Archive, AThreadsEarlierArchiveLeavesNoTrace) {
    const auto small = KRVOperationBase::cancelAllOperationsOperation();
    const Data first = small->convertToData();
    KRVOperationBase large;
    Array values;
    for (int i = 0; i < 5000; ++i) {
        values.push_back(Value(std::to_string(i)));
        values.push_back(Value(i));
    }
    large.arguments()->set("values", Value(std::move(values)));
    large.arguments()->set("$classes", Value(Size{1, 2}));
    EXPECT_GT(large.convertToData().size(), 50000U);
    EXPECT_EQ(small->convertToData(), first);
    large.arguments()->set("values", Value("\xFF"));
    EXPECT_THROW((void)large.convertToData(), Exception);
    EXPECT_EQ(small->convertToData(), first);
}

TEST(Archive, EveryByteOfTheHeaderCounts) {
    const Data archive = KRVOperationBase::cancelOperation("u")->convertToData();
    for (std::size_t place = 0; place < 8; ++place) {
        Data changed = archive;
        changed[place] ^= std::byte{1};
        EXPECT_EQ(KRVOperationBase::operationFromData(std::make_shared<const Data>(changed)), nullptr) << place;
    }
    EXPECT_TRUE(KRVOperationBase::operationFromData(std::make_shared<const Data>(archive)));
}

TEST(Archive, OneThreadMayArchiveWithinAnArchive) {
    // encodeWithCoder may need an archive for one of its fields.
    class Nested final : public Archivable {
    public:
        std::string_view className() const noexcept override { return "AudioEncodingParameters"; }
        void encodeWithCoder(KeyedArchiver& coder) const override {
            coder.encodeInt("codec", 7);
            coder.encodeObject("settingsBlob", Value(KRVOperationBase::cancelOperation("inner")->convertToData()));
        }
    };
    const auto outer = KRVOperationBase::objectFromData<AudioEncodingParameters>(
        std::make_shared<const Data>(KeyedArchiver::archivedData(Nested())));
    ASSERT_TRUE(outer);
    EXPECT_EQ(outer->codec(), 7U);
    const auto inner = KRVOperationBase::operationFromData(outer->settingsBlob());
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->operationType(), OpCancelOperation);
    EXPECT_EQ(inner->uniqueID(), "inner");
}

}  // namespace
}  // namespace krv
