// What a record does with its fields apart from keeping them.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

using Log = std::vector<std::string>;

/// A value that notes when it is destroyed.
class Released final : public Archivable {
public:
    Released(Log& log, std::string name)
        : log_(log)
        , name_(std::move(name)) {}
    ~Released() override { log_.push_back(name_); }
    Released(const Released&) = delete;
    Released& operator=(const Released&) = delete;

    [[nodiscard]] std::string_view className() const noexcept override { return "Released"; }
    void encodeWithCoder(KeyedArchiver& /*coder*/) const override {}

private:
    Log& log_;
    std::string name_;
};

class ReleasedDelegate final : public OperationProgress {
public:
    explicit ReleasedDelegate(Log& log)
        : released_(log, "progressDelegate") {}
    bool operation(const std::shared_ptr<KRVOperationBase>& /*operation*/, float /*progress*/) override { return true; }

private:
    Released released_;
};

std::shared_ptr<Dictionary> holding(Log& log, const char* name) {
    return std::make_shared<Dictionary>(Dictionary{{"value", Value(std::make_shared<const Released>(log, name))}});
}

TEST(KRVOperationBase, ReleasesItsFieldsInAFixedOrder) {
    Log log;
    {
        KRVOperationBase record;
        record.setError(Error::make("D", 1, Dictionary(*holding(log, "error"))));
        record.setProgressDelegate(std::make_shared<ReleasedDelegate>(log));
        record.setArguments(holding(log, "arguments"));
        record.setResult(holding(log, "result"));
        ASSERT_EQ(log, Log{});
    }
    EXPECT_EQ(log, (Log{"result", "arguments", "progressDelegate", "error"}));
}

TEST(KRVOperationBase, ImmutableArgumentsAreNotChanged) {
    KRVOperationBase record;
    record.setArguments(std::make_shared<Dictionary>(Dictionary(Dictionary::Mutability::Immutable)));
    const auto raises = [](const auto& set) {
        try {
            set();
        } catch (const Exception& exception) {
            return exception.name() == kInvalidArgumentException;
        }
        return false;
    };
    EXPECT_TRUE(raises([&] { record.setRegInfoPID(std::int64_t{4711}); }));
    EXPECT_TRUE(raises([&] { record.setMetadata(std::make_shared<const Dictionary>()); }));
    EXPECT_TRUE(record.arguments()->empty());
}

TEST(KRVOperationBase, WithoutArgumentsTheirSettersDoNothing) {
    KRVOperationBase record;
    record.setArguments(nullptr);
    record.setRegInfoPID(std::int64_t{4711});
    record.setMetadata(std::make_shared<const Dictionary>());
    EXPECT_FALSE(record.arguments());
    EXPECT_TRUE(record.regInfoPID().isNull());
    EXPECT_FALSE(record.metadata());
}

TEST(KRVOperationBase, MetadataThatIsNullIsAnEntry) {
    KRVOperationBase record;
    record.setMetadata(nullptr);
    const Value* const entry = record.arguments()->find(kArgumentMovieInfoMetadata);
    ASSERT_TRUE(entry);
    EXPECT_TRUE(entry->isNull());
    EXPECT_FALSE(record.metadata());
}

}  // namespace
}  // namespace krv
