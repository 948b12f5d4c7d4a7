#include <gtest/gtest.h>

#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Worker/MediaWork.h>

namespace krv::server {
namespace {

using Duration = MediaOperation::Duration;

TEST(MediaOperations, AreTheOnesThatReadMovies) {
    std::vector<std::int32_t> types;
    for (const MediaOperation& row : mediaOperations()) {
        types.push_back(row.type);
    }
    EXPECT_EQ(types, (std::vector<std::int32_t>{6, 7, 8, 9, 10, 11}));
}

TEST(MediaOperations, AreFoundByTheirType) {
    for (const OperationTypeInfo& info : operationTypes()) {
        const MediaOperation* const row = mediaOperation(info.type);
        EXPECT_EQ(row != nullptr, info.type >= OpEncodeVideo && info.type <= OpGetInterestingTimes) << info.name;
        if (row) {
            EXPECT_EQ(row->type, info.type);
        }
    }
    EXPECT_EQ(mediaOperation(99), nullptr);
}

TEST(MediaOperations, MetadataAndInterestingTimesAreShortAndAllOthersLong) {
    for (const MediaOperation& row : mediaOperations()) {
        const bool isShort = row.type == OpProvideMetadata || row.type == OpGetInterestingTimes;
        EXPECT_EQ(row.duration, isShort ? Duration::Short : Duration::Long) << row.type;
    }
}

TEST(MediaOperations, HaveAFunctionInTheWorkerEach) {
    for (const OperationTypeInfo& info : operationTypes()) {
        EXPECT_EQ(canPerform(info.type), mediaOperation(info.type) != nullptr) << info.name;
    }
}

}  // namespace
}  // namespace krv::server
