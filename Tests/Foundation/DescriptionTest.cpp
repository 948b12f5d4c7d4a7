// What values, errors and exceptions print.
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {
namespace {

TEST(Description, QuotesWhatIsNotAPlainWord) {
    EXPECT_EQ(Value("a \"b\"\n\\").description(), "a \"b\"\n\\");
    EXPECT_EQ(
        Value(Array{"a_Z09", "", "a b", "say \"no\"", "two\nlines", "a\\b"}).description(),
        "(\n    a_Z09,\n    \"\",\n    \"a b\",\n    \"say \\\"no\\\"\",\n    \"two\\nlines\",\n    \"a\\\\b\"\n)");
}

TEST(Description, ShowsTheFirstBytesOfData) {
    EXPECT_EQ(Value(Data{std::byte{0x0A}, std::byte{0xFF}}).description(), "{length = 2, bytes = 0x0aff}");
    EXPECT_EQ(Value(Data(24, std::byte{1})).description(),
              "{length = 24, bytes = 0x010101010101010101010101010101010101010101010101}");
    EXPECT_EQ(Value(Data(25, std::byte{1})).description(),
              "{length = 25, bytes = 0x010101010101010101010101010101010101010101010101 ...}");
}

TEST(Description, ShowsNumbersDatesAndSizes) {
    EXPECT_EQ(Value(true).description(), "1");
    EXPECT_EQ(Value(-7).description(), "-7");
    EXPECT_EQ(Value(0.5F).description(), "0.5");
    EXPECT_EQ(Value(Date{1.5}).description(), "1.5 s since 2001-01-01 00:00:00 UTC");
    EXPECT_EQ(Value(Size{160, 90.5}).description(), "{160, 90.5}");
    EXPECT_EQ(Value(Dictionary{{"k", Value()}}).description(), "{\n    k = (null);\n}");
}

TEST(Description, EndsAtADepthOfSixteen) {
    Value value("leaf");
    for (int level = 0; level < 15; ++level) {
        value = Value(Array{value});
    }
    EXPECT_NE(Value(Array{value}).description().find("leaf"), std::string::npos);
    const std::string tooDeep = Value(Array{Value(Array{value})}).description();
    EXPECT_EQ(tooDeep.find("leaf"), std::string::npos);
    EXPECT_NE(tooDeep.find("(...)"), std::string::npos);
}

TEST(Description, EndsAfterSixtyFourKibibytes) {
    const Value longText(std::string(30000, 'x'));
    const std::string text = Value(Array(10, longText)).description();
    EXPECT_GT(text.size(), 90000U);
    EXPECT_LT(text.size(), 91000U);
    EXPECT_TRUE(text.ends_with(",\n    ...\n)"));
}

TEST(Error, DescribesItselfWithDomainCodeTextAndUserInfo) {
    const auto error = Error::make("D", -5, {{NSLocalizedDescriptionKey, "broken"}});
    EXPECT_EQ(error->description(),
              "Error Domain=D Code=-5 \"broken\" UserInfo={\n    NSLocalizedDescription = broken;\n}");
    EXPECT_EQ(Error("D", 1).description(),
              "Error Domain=D Code=1 \"The operation couldn't be completed. (D error 1.)\" UserInfo=(null)");
}

TEST(Error, HasItsTextsInItsUserInfo) {
    const auto error =
        Error::make("D", 1, {{NSLocalizedDescriptionKey, "broken"}, {NSLocalizedFailureReasonErrorKey, "why"}});
    EXPECT_EQ(error->localizedDescription(), "broken");
    EXPECT_EQ(error->localizedFailureReason(), "why");
    EXPECT_EQ(Error::make("D", 1, {{NSLocalizedDescriptionKey, 7}})->localizedDescription(),
              "The operation couldn't be completed. (D error 1.)");
}

TEST(Error, IsEqualInAllItsParts) {
    const Error error("D", 1, std::make_shared<const Dictionary>(Dictionary{{"k", "v"}}));
    EXPECT_EQ(error, Error("D", 1, std::make_shared<const Dictionary>(Dictionary{{"k", "v"}})));
    EXPECT_FALSE(error == Error("E", 1, error.userInfo()));
    EXPECT_FALSE(error == Error("D", 2, error.userInfo()));
    EXPECT_FALSE(error == Error("D", 1));
    EXPECT_FALSE(error == Error("D", 1, std::make_shared<const Dictionary>(Dictionary{{"k", "w"}})));
}

TEST(Exception, SaysItsNameAndItsReason) {
    const Exception exception("Name", "reason");
    EXPECT_STREQ(exception.what(), "Name: reason");
    EXPECT_EQ(exception.name(), "Name");
    EXPECT_EQ(exception.reason(), "reason");
}

TEST(Archivable, IsDescribedByItsClass) {
    class Plain final : public Archivable {
    public:
        std::string_view className() const noexcept override { return "Plain"; }
        void encodeWithCoder(KeyedArchiver&) const override {}
    };
    EXPECT_EQ(Value(Value::ObjectRef(std::make_shared<Plain>())).description(), "<Plain>");
}

}  // namespace
}  // namespace krv
