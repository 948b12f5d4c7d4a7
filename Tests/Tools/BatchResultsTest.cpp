#include "BatchResults.h"

#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"

namespace krvqt {
namespace {

using State = BatchResults::State;

class Results : public testing::Test {
protected:
    static BatchJob job(std::size_t line) {
        BatchJob job{.line = line, .command = "info"};
        job.description = {{"command", "info"}, {"source", "/" + std::to_string(line)}};
        return job;
    }
    std::string contents() const {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    krv::test::TemporaryFolder folder;
    const std::string path = (folder.path() / "list.results.jsonl").string();
};

TEST_F(Results, TellTheLatestStateOfEachJob) {
    {
        BatchResults results(path);
        EXPECT_EQ(results.stateOf(job(1)), State::New);
        for (const char* status : {"started", "failed", "started", "done"}) {
            results.append(BatchResults::row(job(1), status), true);
        }
        results.append(BatchResults::row(job(2), "started"), true);
        results.append(BatchResults::row(job(3), "failed"), false);
        results.append(BatchResults::row(job(4), "cancelled"), false);
    }
    const BatchResults results(path);
    EXPECT_EQ(results.stateOf(job(1)), State::Done);
    EXPECT_EQ(results.stateOf(job(2)), State::Interrupted);
    EXPECT_EQ(results.stateOf(job(3)), State::Failed);
    EXPECT_EQ(results.stateOf(job(4)), State::Cancelled);
    EXPECT_EQ(results.stateOf(job(5)), State::New);
}

TEST_F(Results, FollowAJobToAnotherLine) {
    {
        BatchResults results(path);
        results.append(BatchResults::row(job(1), "done"), false);
    }
    BatchJob moved = job(1);
    moved.line = 9;
    EXPECT_EQ(BatchResults(path).stateOf(moved), State::Done);
}

TEST_F(Results, SurviveEveryPartOfARow) {
    const std::string first = BatchResults::row(job(1), "done").dump() + "\n";
    const std::string second = BatchResults::row(job(2), "done").dump() + "\n";
    for (std::size_t length = 0; length < second.size(); ++length) {
        folder.write("list.results.jsonl", first + second.substr(0, length));
        {
            BatchResults results(path);
            EXPECT_EQ(results.stateOf(job(1)), State::Done);
            EXPECT_EQ(results.stateOf(job(2)), length + 1 == second.size() ? State::Done : State::New) << length;
            results.append(BatchResults::row(job(3), "done"), false);
        }
        const BatchResults results(path);
        EXPECT_EQ(results.stateOf(job(1)), State::Done) << length;
        EXPECT_EQ(results.stateOf(job(3)), State::Done) << length;
    }
}

TEST_F(Results, IgnoreWhatIsNoRow) {
    folder.write("list.results.jsonl", "[]\n7\nnonsense\n{\"job\":1}\n{\"job\":{},\"status\":7}\n\xff\n");
    EXPECT_EQ(BatchResults(path).stateOf(job(1)), State::New);
}

TEST_F(Results, OfSeveralWritersAreNeverMixed) {
    constexpr std::size_t kWriters = 4;
    constexpr std::size_t kRows = 200;
    std::vector<std::thread> writers;
    for (std::size_t writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&, writer] {
            BatchResults results(path);  // with a lock of its own, as in another process
            for (std::size_t i = 0; i < kRows; ++i) {
                auto row = BatchResults::row(job(writer * kRows + i), "done");
                row["padding"] = std::string(i * 50, 'x');
                results.append(row, false);
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const BatchResults results(path);
    for (std::size_t i = 0; i < kWriters * kRows; ++i) {
        EXPECT_EQ(results.stateOf(job(i)), State::Done) << i;
    }
}

TEST_F(Results, ThatCannotBeWrittenThrow) {
    EXPECT_THROW(BatchResults("/nonexistent/list.results.jsonl"), std::system_error);
    BatchResults full("/dev/full");
    EXPECT_THROW(full.append(BatchResults::row(job(1), "done"), false), std::system_error);
}

}  // namespace
}  // namespace krvqt
