// How an application tests what it does when the media server fails. Copy it as a starting point.
#include "Converter.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
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

    /// Runs the application's function on a thread of its own while this one runs the main loop, as in the application.
    Conversion run(std::chrono::milliseconds patience = 1min) {
        (void)krv::KRVQuicktimeProcessClient::defaultClient();  // created on the main thread
        Conversion result;
        std::thread worker([&] {
            result = convert(
                "/movies/in.mov", destination, [&](float number) { numbers.push_back(number); }, patience);
            krv::RunLoop::main().stop();
        });
        krv::RunLoop::main().run();
        worker.join();
        return result;
    }
    std::string contentsOfDestination() const {
        std::ifstream in(destination);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    const std::filesystem::path folder = FakeServer::folder() / "movies";
    const std::string destination = folder / "out.mp4";
    std::vector<float> numbers;
};

TEST_F(ConverterTest, ConvertsAMovie) {
    const FakeServer server(R"({"operation": "convert", "progress": [0.2, 0.8], "write": "the new movie"})");
    EXPECT_EQ(run().outcome, Conversion::Outcome::Done);
    EXPECT_EQ(numbers, (std::vector<float>{0.2F, 0.8F}));
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
    EXPECT_EQ(numbers, (std::vector<float>{0.4F, 0.1F}));
    EXPECT_EQ(contentsOfDestination(), "the new movie");
}

TEST_F(ConverterTest, AConversionThatStallsIsCancelled) {
    const FakeServer server(R"({"operation": "convert", "do": "stall", "at": 0.3})");
    const Conversion conversion = run(100ms);
    EXPECT_EQ(conversion.outcome, Conversion::Outcome::Stalled);
    EXPECT_EQ(conversion.sentence, "The conversion does not advance.");
    EXPECT_EQ(server.requestCount("cancel"), 1U);
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
