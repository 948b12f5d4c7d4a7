// The fuzz target's seeds are the archives that the tests know.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "ArchiveSeeds.h"

namespace krv {
namespace {

using test::ArchiveSeed;

Data contents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    return *test::dataOf(bytes);
}

class FuzzSeed : public testing::TestWithParam<ArchiveSeed> {};

TEST_P(FuzzSeed, IsReadOrRefusedAndStoredForTheFuzzTarget) {
    const auto data = test::dataOf(GetParam().bytes);
    EXPECT_EQ(KRVOperationBase::operationFromData(data) != nullptr, GetParam().isRead);
    EXPECT_TRUE(contents(std::filesystem::path(KRV_ARCHIVE_SEEDS) / GetParam().name) == *data);
}

INSTANTIATE_TEST_SUITE_P(All, FuzzSeed, testing::ValuesIn(test::archiveSeeds()),
                         [](const testing::TestParamInfo<ArchiveSeed>& seed) {
                             std::string name = seed.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
}  // namespace krv
