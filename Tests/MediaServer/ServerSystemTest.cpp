// The real server with real workers: started for each test on ports of its own, with folders of its own.
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Platform/HTTPRequest.h>

#include "ServerFixture.h"

namespace krv::server {
namespace {

TEST_F(Server, TellsItsStatus) {
    start();
    const auto json = status();
    EXPECT_EQ(json["name"], "KRVQuicktimeProcess");
    EXPECT_EQ(json["version"], std::string(libraryVersion()));
    EXPECT_EQ(json["port"], port);
    EXPECT_EQ(json["queued"], 0);
    EXPECT_EQ(json["running"], 0);
    EXPECT_TRUE(json["clients"].empty());
    EXPECT_GE(json["workers"], 1);
}

TEST_F(Server, KeepsEverybodyElseOut) {
    start();
    const std::string end = "\r\n";
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + end), 200);
    EXPECT_EQ(rawStatus("GET /other HTTP/1.1\r\n" + host() + end), 404);
    EXPECT_EQ(rawStatus("GET / HTTP/1.1\r\n" + host() + end), 405);
    EXPECT_EQ(rawStatus("DELETE /status HTTP/1.1\r\n" + host() + end), 405);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + "Origin: http://example.com\r\n" + end), 403);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\nHost: example.com\r\nConnection: close\r\n" + end), 403);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + "Host: localhost\r\n" + end), 403);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.0\r\n" + end), 403);
    EXPECT_EQ(rawStatus("POST / HTTP/1.1\r\n" + host() + "Content-Length: 17825792\r\n" + end), 413);
    EXPECT_EQ(rawStatus("POST / HTTP/1.1\r\n" + host() + "Content-Length: 3\r\n\r\nabc"), 400);
    EXPECT_EQ(rawStatus("POST / HTTP/1.1\r\n" + host() + "Content-Length: 0\r\n" + end), 400);
}

/// Sends the first bytes at once and one more each second until the server closes; how long that took.
class SlowSender {
public:
    SlowSender(int port, const std::string& begin, char rest)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
        , rest_(rest) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        [[maybe_unused]] const auto sent = ::send(fd_, begin.data(), begin.size(), MSG_NOSIGNAL);
    }
    ~SlowSender() { ::close(fd_); }
    SlowSender(const SlowSender&) = delete;
    SlowSender& operator=(const SlowSender&) = delete;

    [[nodiscard]] bool isConnected() const { return connected_; }
    [[nodiscard]] bool isClosed() const {
        char byte = 0;
        const ssize_t count = ::recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return count == 0 || (count < 0 && errno != EAGAIN);
    }
    void sendMore() const { [[maybe_unused]] const auto sent = ::send(fd_, &rest_, 1, MSG_NOSIGNAL); }

private:
    const int fd_;
    const char rest_;
    bool connected_ = false;
};

TEST_F(Server, DropsSlowSendersAndKeepsIdleOnes) {
    start();
    const SlowSender slowHead(port, "POST / HT", 'T');
    const SlowSender slowBody(port, "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000\r\n\r\n", 'x');
    const SlowSender stuckBody(port, "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000\r\n\r\nx", 'x');
    const SlowSender idle(port, "", 'x');
    ASSERT_TRUE(slowHead.isConnected() && slowBody.isConnected() && stuckBody.isConnected() && idle.isConnected());
    while (!slowHead.isClosed() || !slowBody.isClosed() || !stuckBody.isClosed()) {
        std::this_thread::sleep_for(500ms);
        slowHead.sendMore();
        slowBody.sendMore();
        EXPECT_TRUE(status().is_object());
    }
    EXPECT_FALSE(idle.isClosed());
}

TEST_F(Server, AnswersTheHousekeeping) {
    start();
    const auto count = ask(R::numberOfOperationsOperation());
    EXPECT_EQ(count->numOpsNumberOfOperations(), Value(0));
    EXPECT_TRUE(count->numOpsNames()->empty());
    EXPECT_EQ(ask(R::readyToProcessRequestOperation())->operationType(), OpReadyToProcessRequests);
    EXPECT_FALSE(client->amIRegistered());
    client->registerWithServer();
    EXPECT_TRUE(client->amIRegistered());
    EXPECT_EQ(status()["clients"], nlohmann::json::array({::getpid()}));
    client->unregisterFromServer();
    EXPECT_FALSE(client->amIRegistered());
}

TEST_F(Server, RefusesToRegisterWhatIsNoLivingProcess) {
    start();
    const auto operation = R::registerWithServerOperation();
    for (const Value& pid : std::vector<Value>{0, -1, 0x7FFFFFFF, "text", Value()}) {
        operation->setRegInfoPID(pid);
        const auto reply = ask(operation);
        ASSERT_TRUE(reply->error());
        EXPECT_EQ(reply->error()->code(), 9);
    }
}

TEST_F(Server, NamesTheArgumentThatIsWrong) {
    start();
    const auto codeOf = [this](const std::function<void(Dictionary&)>& change) {
        const auto operation = R::encodeVideoOperation(movie(), out());
        change(*operation->arguments());
        const auto error = ask(operation)->error();
        return error ? fmt::format("{} {}", error->code(), error->localizedFailureReason()) : "accepted";
    };
    EXPECT_EQ(codeOf([](auto& a) { a.remove("encodingSourceFilename"); }), "9 \"encodingSourceFilename\" is missing");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingSourceFilename", 7); }), "9 \"encodingSourceFilename\" is no string");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingDestinationFilename", "relative.mp4"); }),
              "9 \"encodingDestinationFilename\" is no absolute path");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingType", "H.264"); }), "9 \"encodingType\" is no integer");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingVideoParams", 1); }),
              "9 \"encodingVideoParams\" holds no encoding parameters of its kind");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingType", 99); }), "6 99 is no encoding type");
}

TEST_F(Server, DoesNotKnowOperationsThatAreNone) {
    start();
    const auto operation = std::make_shared<R>();
    for (const std::int32_t type : {0, 18, -1}) {
        operation->setOperationType(type);
        EXPECT_EQ(ask(operation)->error()->code(), 9);
    }
    for (const auto& unknown : {R::progressAndCompletionOperation("x"), R::returnResultForOperation("x"),
                                R::cancelOperation("x"), R::removeReturnResultForOperation(std::nullopt)}) {
        EXPECT_EQ(ask(unknown)->error()->code(), 2);
    }
}

TEST_F(Server, TestsItself) {
    start();
    auto operation = R::httpServerTestingOperation();
    operation->testInfo()->timeToLive = 1;
    const auto reply = ask(operation);
    ASSERT_TRUE(reply->uniqueID());
    float last = -1;
    for (;;) {
        const auto state = ask(R::progressAndCompletionOperation(reply->uniqueID()));
        EXPECT_GE(state->progress(), last);
        last = state->progress();
        if (state->completed()) {
            break;
        }
    }
    EXPECT_EQ(last, 1.0F);
    operation->testInfo()->shouldError = 1;
    EXPECT_EQ(ask(operation)->error()->code(), 8);
    operation->testInfo()->shouldError = 0;
    operation->testInfo()->shouldThrow = 1;
    EXPECT_EQ(ask(operation)->error()->code(), 8);
    EXPECT_TRUE(client->isServerReadyToTakeRequests());
    operation->testInfo()->shouldThrow = 0;
    operation->testInfo()->shouldCrash = 1;
    EXPECT_THROW(ask(operation), Exception);
    EXPECT_EQ(process->wait(), -SIGABRT);
}

TEST_F(Server, ConvertsAMovieFromEndToEnd) {
    start();
    EXPECT_EQ(convert(movie(), out()), nullptr);
    EXPECT_GT(fs::file_size(out()), 1000U);
    EXPECT_EQ(filesInOut(), 1U);
    for (std::size_t i = 1; i < observer->seen.size(); ++i) {
        EXPECT_GE(observer->seen[i], observer->seen[i - 1]);
    }
    EXPECT_EQ(status()["finished"], 1);
    EXPECT_EQ(status()["running"], 0);
}

TEST_F(Server, EndsBadInputInTheErrorOfTheTable) {
    start();
    const auto empty = folder.write("empty.mov", "");
    const auto text = folder.write("text.mp4", "this is no movie at all, only some words in a file of that name");
    std::ifstream in(movie(), std::ios::binary);
    const std::string whole{std::istreambuf_iterator<char>(in), {}};
    const auto truncated = folder.write("truncated.mov", whole.substr(0, 200));
    struct Case {
        std::string source;
        std::string destination;
        int code;
        std::string named;
    };
    fs::create_symlink(movie(), folder.path() / "link.mov");
    fs::copy_file(movie(), folder.path() / "copy.mov");
    fs::create_hard_link(folder.path() / "copy.mov", folder.path() / "twin.mov");
    const std::string copy = (folder.path() / "copy.mov").string();
    const std::string twin = (folder.path() / "twin.mov").string();
    for (const Case& each : std::vector<Case>{{"/missing/in.mov", out(), 3, "/missing/in.mov"},
                                              {empty, out(), 4, empty},
                                              {text, out(), 4, text},
                                              {truncated, out(), 4, truncated},
                                              {folder.path().string(), out(), 4, folder.path().string()},
                                              {"/dev/null", out(), 4, "/dev/null"},
                                              {movie(), "/missing/out.mp4", 5, "/missing/out.mp4"},
                                              {movie(), folder.path().string(), 5, folder.path().string()},
                                              {movie(), "/proc/out.mp4", 5, "/proc/out.mp4"},
                                              {movie(), out("out.xyz"), 6, out("out.xyz")},
                                              {copy, copy, 10, copy},
                                              {copy, twin, 10, copy}}) {
        const auto error = convert(each.source, each.destination);
        ASSERT_TRUE(error) << each.source;
        EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
        EXPECT_EQ(error->code(), each.code) << each.source << " " << error->description();
        const std::string name = fs::path(each.named).filename().string();
        EXPECT_NE(error->localizedDescription().find(name), std::string::npos) << error->localizedDescription();
        EXPECT_EQ((*error->userInfo())["KRVFilePath"], Value(each.named));
        EXPECT_FALSE(error->localizedFailureReason().empty());
        EXPECT_EQ(filesInOut(), 0U);
    }
    EXPECT_EQ(convert((folder.path() / "link.mov").string(), out()), nullptr);
}

/// Permissions of a file for a while; the old ones come back, so that its folder can be removed.
class Permissions {
public:
    Permissions(fs::path path, fs::perms permissions)
        : path_(std::move(path))
        , before_(fs::status(path_).permissions()) {
        fs::permissions(path_, permissions);
    }
    ~Permissions() { fs::permissions(path_, before_); }
    Permissions(const Permissions&) = delete;
    Permissions& operator=(const Permissions&) = delete;

private:
    const fs::path path_;
    const fs::perms before_;
};

void expectDenied(const std::shared_ptr<const Error>& error, int code, const std::string& path,
                  const std::string& what) {
    ASSERT_TRUE(error) << path;
    EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
    EXPECT_EQ(error->code(), code) << error->description();
    EXPECT_EQ(error->localizedDescription(), path + what);
    EXPECT_EQ(error->localizedFailureReason(), "Permission denied");
    EXPECT_EQ((*error->userInfo())["KRVFilePath"], Value(path));
}

TEST_F(Server, ASourceThatItMayNotReadIsErrorThree) {
    startHeldByPermissions();
    fs::copy_file(movie(), folder.path() / "in.mov");
    const std::string source = (folder.path() / "in.mov").string();
    {
        const Permissions none(source, fs::perms::none);
        expectDenied(convert(source, out()), 3, source, " cannot be read.");
    }
    {
        const Permissions writeOnly(source, fs::perms::owner_write);
        expectDenied(convert(source, out()), 3, source, " cannot be read.");
    }
    fs::create_directory(folder.path() / "closed");
    fs::copy_file(movie(), folder.path() / "closed" / "in.mov");
    const std::string hidden = (folder.path() / "closed" / "in.mov").string();
    {
        const Permissions noSearch(folder.path() / "closed", fs::perms::owner_read | fs::perms::owner_write);
        expectDenied(convert(hidden, out()), 3, hidden, " cannot be read.");
    }
    EXPECT_EQ(filesInOut(), 0U);
    const Permissions readOnly(source, fs::perms::owner_read);
    EXPECT_EQ(convert(source, out()), nullptr);
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Server, ADestinationThatItMayNotWriteIsErrorFive) {
    startHeldByPermissions();
    {
        const Permissions readOnly(folder.path() / "out", fs::perms::owner_read | fs::perms::owner_exec);
        expectDenied(convert(movie(), out()), 5, out(), " cannot be written.");
    }
    {
        const Permissions none(folder.path() / "out", fs::perms::none);
        expectDenied(convert(movie(), out()), 5, out(), " cannot be written.");
    }
    EXPECT_EQ(filesInOut(), 0U);
    folder.write("out/out.mp4", "precious");
    {
        const Permissions readOnly(out(), fs::perms::owner_read);
        expectDenied(convert(movie(), out()), 5, out(), " cannot be written.");
    }
    EXPECT_EQ(filesInOut(), 1U);
    EXPECT_EQ(fs::file_size(out()), 8U);
}

TEST_F(Server, NeedsNoMoreThanToWriteInTheFolder) {
    startHeldByPermissions();
    const Permissions noList(folder.path() / "out", fs::perms::owner_write | fs::perms::owner_exec);
    EXPECT_EQ(convert(movie(), out()), nullptr);
    EXPECT_GT(fs::file_size(out()), 1000U);
    EXPECT_EQ(convert(movie(), out()), nullptr);  // replaces it
    EXPECT_GT(fs::file_size(out()), 1000U);
}

TEST_F(Server, RefusesSettingsThatCannotBe) {
    start();
    const auto code = [this](std::uint32_t codec, float quality, float fps, std::string_view text) {
        const auto* p = reinterpret_cast<const std::byte*>(text.data());
        const auto video =
            VideoEncodingParameters::encodingParametersWithData(std::make_shared<const Data>(p, p + text.size()));
        video->setCodec(codec);
        video->setQuality(quality);
        video->setFps(fps);
        std::shared_ptr<const Error> error;
        client->convertMovie(movie(), out(), video, nullptr, nullptr, &error);
        EXPECT_EQ(filesInOut(), error ? 0U : 1U);
        return error ? error->code() : 0;
    };
    EXPECT_EQ(code(0x61766331, std::nanf(""), 0, ""), 6);
    EXPECT_EQ(code(0x61766331, 0, std::numeric_limits<float>::infinity(), ""), 6);
    EXPECT_EQ(code(0x61766331, -1, 0, ""), 6);
    EXPECT_EQ(code(0x7A7A7A7A, 0, 0, ""), 6);
    EXPECT_EQ(code(0x61766331, 0, 0, "no-such-key=1"), 6);
    EXPECT_EQ(code(0x61766331, 0.5F, 0, "width=160:preset=veryfast"), 0);
}

TEST_F(Server, ACancelledConversionLeavesNothing) {
    start();
    std::ofstream(out()) << "old";
    observer->onProgress = [](const R&, float) { return false; };
    const std::string source = std::string(KRV_TEST_MEDIA) + "/long.mov";
    std::shared_ptr<const Error> error;
    client->convertMovie(source, out(), 1, false, observer, &error);
    EXPECT_EQ(error, nullptr);
    while (status()["running"] != 0) {
    }
    std::ifstream in(out());
    EXPECT_EQ((std::string{std::istreambuf_iterator<char>(in), {}}), "old");
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Server, AWorkerThatIsKilledCostsItsOperationOnly) {
    start();
    std::ofstream(out()) << "old";
    const std::string source = std::string(KRV_TEST_MEDIA) + "/long.mov";
    std::thread killer([this] { ::kill(worker(), SIGKILL); });
    const auto error = convert(source, out());
    killer.join();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 7);
    EXPECT_EQ(error->localizedFailureReason(), "the worker was ended by signal 9 (Killed)");
    EXPECT_EQ(filesInOut(), 1U);
    EXPECT_EQ(convert(movie(), out("second.mp4")), nullptr);
}

TEST_F(Server, AServerThatIsKilledTakesItsWorkersAlongAndLeavesNothing) {
    start();
    const std::string source = std::string(KRV_TEST_MEDIA) + "/long.mov";
    pid_t workerPid = 0;
    std::thread killer([&] {
        workerPid = worker();
        process->signal(SIGKILL);
    });
    EXPECT_THROW(convert(source, out()), Exception);
    killer.join();
    while (::kill(workerPid, 0) == 0 && ProcessTable::system().process(workerPid)) {
    }
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Server, AClientThatDiesIsForgotten) {
    start();
    ChildProcess mortal({"sleep", "1000"});
    const auto operation = R::registerWithServerOperation();
    operation->setRegInfoPID(std::int64_t{mortal.pid()});
    EXPECT_TRUE(ask(operation)->isClientRegistered());
    const auto work = R::httpServerTestingOperation();
    work->setRegInfoPID(std::int64_t{mortal.pid()});
    work->testInfo()->timeToLive = 1000;
    const auto id = ask(work)->uniqueID();
    mortal.signal(SIGKILL);
    mortal.wait();
    while (!status()["clients"].empty()) {
    }
    EXPECT_EQ(ask(R::progressAndCompletionOperation(id))->error()->code(), 2);
}

TEST_F(Server, ASecondServerLeavesQuietly) {
    start();
    ChildProcess second({KRV_SERVER});
    EXPECT_EQ(second.wait(), 0);
    EXPECT_TRUE(client->isServerReadyToTakeRequests());
}

TEST_F(Server, EndsWhenItIsAskedTo) {
    start();
    EXPECT_TRUE(client->queueShutdownOfCurrentServer());
    EXPECT_EQ(process->wait(), 0);
    start();
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(Server, FinishesWhatRunsBeforeItEnds) {
    start();
    observer->onProgress = [this, asked = false](const R&, float) mutable {
        if (!asked) {
            asked = true;
            process->signal(SIGTERM);
        }
        return true;
    };
    EXPECT_EQ(convert(std::string(KRV_TEST_MEDIA) + "/long.mov", out()), nullptr);
    EXPECT_EQ(process->wait(), 0);
    EXPECT_GT(fs::file_size(out()), 1000U);
}

TEST_F(Server, ASecondSignalCancelsWhatRuns) {
    start();
    observer->onProgress = [this, asked = false](const R&, float) mutable {
        if (!asked) {
            asked = true;
            process->signal(SIGTERM);
            while (status()["running"] == 1) {
                process->signal(SIGTERM);
            }
        }
        return true;
    };
    std::shared_ptr<const Error> error;
    try {
        client->convertMovie(std::string(KRV_TEST_MEDIA) + "/long.mov", out(), 1, false, observer, &error);
    } catch (const Exception&) {
        // It may be gone before the cancellation is told.
        SUCCEED();
    }
    EXPECT_EQ(process->wait(), 0);
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Server, EndsWhenNobodyNeedsIt) {
    start({"-idleTimeout", "1"});
    EXPECT_EQ(process->wait(), 0);
}

TEST_F(Server, SurvivesThreeThousandDamagedRequests) {
    start();
    std::mt19937 random(20261121);
    const std::vector<R::Ref> records{R::encodeVideoOperation("/missing/a.mov", "/missing/b.mp4", nullptr, nullptr),
                                      R::mergeSourcesOperation(Array{"/a", "/b"}, "/missing/c.mov", true),
                                      R::progressAndCompletionOperation("x"), R::numberOfOperationsOperation()};
    for (const R::Ref& record : records) {
        record->setRegInfoPID(1);  // the same bytes in every run, and so the same damage
    }
    const auto send = [&](int count) {
        int answers = 0;
        for (int i = 0; i < count; ++i) {
            Data bytes = records[random() % records.size()]->convertToData();
            for (unsigned damage = random() % 8; damage > 0; --damage) {
                bytes[random() % bytes.size()] = static_cast<std::byte>(random());
            }
            if (random() % 4 == 0) {
                bytes.resize(random() % bytes.size());
            }
            const auto response = HTTPClient::shared().send(
                {.url = fmt::format("http://localhost:{}", port), .body = bytes, .timeout = 30s});
            answers += response.status == 200 || response.status == 400 ? 1 : 0;
        }
        return answers;
    };
    EXPECT_EQ(send(500), 500);
    const long before = residentKilobytes();
    EXPECT_EQ(send(2500), 2500);
    EXPECT_LT(residentKilobytes() - before, 4096);
    EXPECT_TRUE(client->isServerReadyToTakeRequests());
}

}  // namespace
}  // namespace krv::server
