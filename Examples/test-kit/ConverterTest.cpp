// How an application tests what it does when the media server fails. Copy it as a starting point.
#include "Converter.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Media.h>
#include <KRVQTProcessClient/TestKit/FakeServer.h>

namespace {

using namespace std::chrono_literals;
using krv::test_kit::FakeServer;

class ConverterTest : public testing::Test {
protected:
    ConverterTest() {
        std::filesystem::create_directory(folder);
        std::ofstream(destination) << "the old movie";
    }
    ~ConverterTest() override { std::filesystem::remove_all(folder); }

    Conversion run(krv::Seconds patience = 1min) {
        return convert(
            "/movies/in.mov", destination, [this](const krv::Progress& progress) { latest = progress; }, patience);
    }
    std::string contentsOfDestination() const {
        std::ifstream in(destination);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    const std::filesystem::path folder = FakeServer::folder() / "movies";
    const std::string destination = folder / "out.mp4";
    krv::Progress latest;
};

TEST_F(ConverterTest, ConvertsAMovie) {
    const FakeServer server(R"({"operation": "convert", "progress": [0.2, 0.8], "write": "the new movie"})");
    EXPECT_EQ(run().outcome, Conversion::Outcome::Done);
    EXPECT_GE(latest.fraction, 0.8);
    EXPECT_EQ(contentsOfDestination(), "the new movie");
}

TEST_F(ConverterTest, AServerThatDiesIsReplaced) {
    const FakeServer server(R"(
        # The first conversion kills the server at 40 %. The next server starts over.
        {"operation": "convert", "nth": 1, "do": "die", "at": 0.4}
        {"operation": "convert", "progress": [0.1], "write": "the new movie"}
    )");
    EXPECT_EQ(run().outcome, Conversion::Outcome::Done);
    EXPECT_EQ(server.deaths(), 1U);
    EXPECT_EQ(latest.attempt, 2);
    EXPECT_EQ(contentsOfDestination(), "the new movie");
}

TEST_F(ConverterTest, AServerThatAlwaysDiesIsExplained) {
    const FakeServer server(R"({"operation": "convert", "do": "die"})");
    EXPECT_EQ(run().outcome, Conversion::Outcome::TryAgainLater);
    EXPECT_EQ(server.deaths(), 3U);
    EXPECT_EQ(contentsOfDestination(), "the old movie");
}

TEST_F(ConverterTest, AConversionThatStallsIsCancelled) {
    const FakeServer server(R"({"operation": "convert", "do": "stall", "at": 0.3})");
    const Conversion conversion = run(100ms);
    EXPECT_EQ(conversion.outcome, Conversion::Outcome::Stalled);
    EXPECT_EQ(conversion.sentence, "The conversion does not advance.");
    while (server.requestCount("cancel") == 0) {  // it is on its way when the application has its result
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(contentsOfDestination(), "the old movie");
}

TEST_F(ConverterTest, AFullDiskIsExplained) {
    const FakeServer server(R"({"operation": "convert", "do": "fail", "at": 0.9, "error": {"code": 5}})");
    const Conversion conversion = run();
    EXPECT_EQ(conversion.outcome, Conversion::Outcome::Failed);
    EXPECT_EQ(conversion.sentence, "Cannot convert in.mov: out.mp4 cannot be written because the disk is full.");
    EXPECT_EQ(contentsOfDestination(), "the old movie");
}

}  // namespace
