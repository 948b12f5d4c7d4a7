// What the server withstands: many connections, damaged movies, removed folders and being killed; and how much memory
// it uses.
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>

#include <sys/resource.h>

#include <gmock/gmock.h>

#include "ServerFixture.h"

namespace krv::server {
namespace {

class Endurance : public Server {
protected:
    /// Opens a connection that sends nothing. Returns -1 on failure.
    int idleConnection() const {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            return -1;
        }
        return fd;
    }
    /// Sends a status request on a connection that stays open. Returns whether the response is complete and good.
    static bool respondsToStatus(int fd, int port) {
        const std::string request = fmt::format("GET /status HTTP/1.1\r\nHost: localhost:{}\r\n\r\n", port);
        if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
            return false;
        }
        // Header and body may arrive separately. The page is one object and a newline.
        std::string response;
        char buffer[4096];
        while (response.find("}\n") == std::string::npos) {
            const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
            if (count <= 0) {
                return false;
            }
            response.append(buffer, static_cast<std::size_t>(count));
        }
        return response.starts_with("HTTP/1.1 200");
    }
    static bool lives(pid_t pid) { return KRVProcessMonitor::doesProcessExist(pid, ""); }
};

TEST_F(Endurance, AThousandIdleConnectionsAndSixtyFourRequestsAtOnce) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    start();
    std::vector<int> connections;
    for (int i = 0; i < 1000; ++i) {
        connections.push_back(idleConnection());
        ASSERT_GE(connections.back(), 0) << "connection " << i;
        ASSERT_TRUE(respondsToStatus(connections.back(), port)) << "connection " << i;
    }
    // Each of the sixty-four requests waits in the server until its self-test has run for a second.
    std::vector<std::thread> callers;
    std::atomic<int> completed{0};
    for (int i = 0; i < 64; ++i) {
        callers.emplace_back([&] {
            const auto test = R::httpServerTestingOperation();
            test->testInfo()->shouldComplete = 1;
            test->testInfo()->timeToLive = 1;
            const auto begun = ask(test);
            for (R::Ref state; !state || !state->completed();) {
                state = ask(R::progressAndCompletionOperation(begun->uniqueID()));
            }
            ++completed;
        });
    }
    EXPECT_TRUE(status().is_object());
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(completed, 64);
    for (const int fd : connections) {
        EXPECT_TRUE(respondsToStatus(fd, port));
        ::close(fd);
    }
}

/// Tries a hundred mutants, or KRV_MUTANTS, the same ones in every run.
TEST_F(Endurance, MutatedMoviesGiveAnErrorOrAMovie) {
    const char* const wanted = std::getenv("KRV_MUTANTS");
    const int count = wanted ? std::atoi(wanted) : 100;
    start();
    std::minstd_rand random(20261121);
    const std::vector<std::string> seeds{"plain.mov", "chapters.mp4", "languages.mkv",
                                         "old.avi",   "small.ts",     "sound.wav"};
    int converted = 0;
    int refused = 0;
    for (int i = 0; i < count; ++i) {
        std::ifstream in(std::string(KRV_TEST_MEDIA) + '/' + seeds[static_cast<std::size_t>(i) % seeds.size()],
                         std::ios::binary);
        std::string bytes(std::istreambuf_iterator<char>(in), {});
        for (auto changes = 1 + random() % 40; changes > 0; --changes) {
            // Mostly near the start, where the structure is.
            const std::size_t range = random() % 3 != 0 ? std::min<std::size_t>(bytes.size(), 4096) : bytes.size();
            bytes[random() % range] = static_cast<char>(random() % 256);
        }
        if (random() % 4 == 0) {
            bytes.resize(random() % bytes.size());
        }
        const std::string source = folder.write("mutant", bytes);
        std::shared_ptr<const Error> error;
        client->convertMovie(source, out(), 1, false, nullptr, &error);
        if (error) {
            ++refused;
            EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
            EXPECT_THAT(error->code(), testing::AnyOf(4, 6, 7)) << i << ": " << error->localizedFailureReason();
            EXPECT_EQ(filesInOut(), 0U);
        } else {
            ++converted;
            EXPECT_EQ(filesInOut(), 1U);
            fs::remove(out());
        }
    }
    std::cout << "[ measured ] " << count << " mutants: " << converted << " converted, " << refused << " refused\n";
    EXPECT_EQ(status()["pid"], process->pid());
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

/// A truncated old movie whose header says that each frame lasts for a week.
TEST_F(Endurance, AFrameThatLastsForDaysIsNotAnInternalError) {
    start();
    std::ifstream in(std::string(KRV_TEST_MEDIA) + "/old.avi", std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    const std::size_t header = bytes.find("strh");
    ASSERT_NE(header, std::string::npos);
    constexpr std::size_t kScale = 28;
    bytes[header + kScale + 2] = '\xE6';
    bytes.resize(bytes.size() / 4);
    const auto error = convert(folder.write("slow.avi", bytes), out());
    EXPECT_EQ(error, nullptr) << error->description();
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Endurance, AFolderThatIsRemovedDuringAConversionIsErrorFive) {
    start();
    const fs::path place = folder.path() / "out" / "removed";
    fs::create_directory(place);
    observer->onProgress = [&](const R&, float) {
        fs::remove(place);
        return true;
    };
    const auto error = convert(std::string(KRV_TEST_MEDIA) + "/long.mov", place / "out.mp4");
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 5);
    EXPECT_EQ(filesInOut(), 0U);
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(Endurance, AnIdleWorkerThatIsKilledIsReplacedUnnoticed) {
    start();
    waitUntil([this] { return !workers().empty(); });
    for (const pid_t pid : workers()) {
        ::kill(pid, SIGKILL);
    }
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(Endurance, AServerThatIsKilledTakesIdleWorkersAlong) {
    start();
    waitUntil([this] { return workers().size() >= 2; });
    const auto waiting = workers();
    process->signal(SIGKILL);
    process->wait();
    for (const pid_t pid : waiting) {
        waitUntil([pid] { return !lives(pid); });
    }
}

/// Measures the proportional set size of the idle server, its workers and their template.
TEST_F(Endurance, IdleServerAndPoolTakeLessThanFortyMegabytes) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root may read the memory use of a sandboxed worker";
    }
    start();
    EXPECT_EQ(convert(movie(), out()), nullptr);
    const auto proportional = [](pid_t pid) {
        std::ifstream in(fmt::format("/proc/{}/smaps_rollup", pid));
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("Pss:")) {
                return std::atol(line.c_str() + 4);
            }
        }
        return 0L;
    };
    // A worker that is still starting has not yet freed the memory that only starting needs.
    long total = 0;
    waitUntil([&] {
        total = proportional(process->pid());
        for (const char* const name : {"KRVMediaWorker", "KRVTemplate"}) {
            for (const pid_t pid : children(name)) {
                total += proportional(pid);
            }
        }
        return workers().size() == 2 && children("KRVTemplate").size() == 1 && total < 40'000;
    });
    std::cout << "[ measured ] " << total << " kB\n";
    EXPECT_GT(total, 1000);
    EXPECT_LT(total, 40'000);
}

}  // namespace
}  // namespace krv::server
