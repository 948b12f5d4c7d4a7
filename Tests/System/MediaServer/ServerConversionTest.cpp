// Conversions with the real server and its workers: how they end, and which files remain.
#include <cerrno>
#include <cmath>
#include <csignal>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

#include "ServerFixture.h"

namespace krv::server {
namespace {

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

TEST_F(Server, ReportsBadInputWithTheDocumentedError) {
    start();
    const auto empty = folder.write("empty.mov", "");
    const auto text = folder.write("text.mp4", "this is not a movie, only some words in a file with that name");
    std::ifstream in(movie(), std::ios::binary);
    const std::string whole{std::istreambuf_iterator<char>(in), {}};
    const auto truncated = folder.write("truncated.mov", whole.substr(0, 200));
    struct Case {
        std::string source;
        std::string destination;
        int code;
        std::string path;
        std::string sentence;
        std::optional<int> number{};
    };
    const std::string name = folder.path().filename().string();
    fs::create_symlink(movie(), folder.path() / "link.mov");
    fs::copy_file(movie(), folder.path() / "copy.mov");
    fs::create_hard_link(folder.path() / "copy.mov", folder.path() / "twin.mov");
    const std::string copy = (folder.path() / "copy.mov").string();
    const std::string twin = (folder.path() / "twin.mov").string();
    for (const Case& each : std::vector<Case>{
             {"/missing/in.mov", out(), 3, "/missing/in.mov", "Cannot convert in.mov: the file does not exist.",
              ENOENT},
             {empty, out(), 4, empty, "Cannot convert empty.mov: the file is empty."},
             {text, out(), 4, text,
              "Cannot convert text.mp4: its index is missing, so it is incomplete or not a movie."},
             {truncated, out(), 4, truncated,
              "Cannot convert truncated.mov: its index is missing, so it is incomplete or not a movie."},
             {folder.path().string(), out(), 4, folder.path().string(),
              fmt::format("Cannot convert {}: it is a folder.", name)},
             {"/dev/null", out(), 4, "/dev/null", "Cannot convert null: it is not a regular file."},
             {movie(), "/missing/out.mp4", 5, "/missing/out.mp4",
              "Cannot convert plain.mov: the folder of out.mp4 does not exist.", ENOENT},
             {movie(), folder.path().string(), 5, folder.path().string(),
              fmt::format("Cannot convert plain.mov: {} cannot be written because it is a folder.", name), EISDIR},
             {movie(), "/proc/out.mp4", 5, "/proc/out.mp4",
              "Cannot convert plain.mov: the folder of out.mp4 does not exist.", ENOENT},
             {movie(), out("out.xyz"), 6, out("out.xyz"),
              "Cannot convert plain.mov to out.xyz: the container \"xyz\" is not supported."},
             {copy, copy, 10, copy, "Cannot convert copy.mov: source and destination are the same file."},
             {copy, twin, 10, copy, "Cannot convert copy.mov: source and destination are the same file."}}) {
        const auto error = convert(each.source, each.destination);
        ASSERT_TRUE(error) << each.source;
        EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
        EXPECT_EQ(error->code(), each.code) << each.source << " " << error->description();
        EXPECT_EQ(error->localizedDescription(), each.sentence);
        EXPECT_EQ((*error->userInfo())["KRVFilePath"], Value(each.path));
        EXPECT_EQ((*error->userInfo())[kErrorNumber], each.number ? Value(*each.number) : Value());
        EXPECT_FALSE(error->localizedFailureReason().empty());
        EXPECT_EQ(filesInOut(), 0U);
    }
    EXPECT_EQ(convert((folder.path() / "link.mov").string(), out()), nullptr);
}

/// Changes the permissions of a file. The destructor restores them, so that the folder can be removed.
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

constexpr const char* kUnreadable = "Cannot convert in.mov: it cannot be read because permission is denied.";
constexpr const char* kUnwritable = "Cannot convert plain.mov: out.mp4 cannot be written because permission is denied.";

void expectDenied(const std::shared_ptr<const Error>& error, int code, const std::string& path,
                  const std::string& sentence) {
    ASSERT_TRUE(error) << path;
    EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
    EXPECT_EQ(error->code(), code) << error->description();
    EXPECT_EQ(error->localizedDescription(), sentence);
    EXPECT_EQ(error->localizedFailureReason(), "Permission denied");
    EXPECT_EQ((*error->userInfo())[kErrorNumber], Value(EACCES));
    EXPECT_EQ((*error->userInfo())["KRVFilePath"], Value(path));
}

TEST_F(Server, AnUnreadableSourceIsErrorThree) {
    startHeldByPermissions();
    fs::copy_file(movie(), folder.path() / "in.mov");
    const std::string source = (folder.path() / "in.mov").string();
    {
        const Permissions none(source, fs::perms::none);
        expectDenied(convert(source, out()), 3, source, kUnreadable);
    }
    {
        const Permissions writeOnly(source, fs::perms::owner_write);
        expectDenied(convert(source, out()), 3, source, kUnreadable);
    }
    fs::create_directory(folder.path() / "closed");
    fs::copy_file(movie(), folder.path() / "closed" / "in.mov");
    const std::string hidden = (folder.path() / "closed" / "in.mov").string();
    {
        const Permissions noSearch(folder.path() / "closed", fs::perms::owner_read | fs::perms::owner_write);
        expectDenied(convert(hidden, out()), 3, hidden, kUnreadable);
    }
    EXPECT_EQ(filesInOut(), 0U);
    const Permissions readOnly(source, fs::perms::owner_read);
    EXPECT_EQ(convert(source, out()), nullptr);
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Server, AnUnwritableDestinationIsErrorFive) {
    startHeldByPermissions();
    {
        const Permissions readOnly(folder.path() / "out", fs::perms::owner_read | fs::perms::owner_exec);
        expectDenied(convert(movie(), out()), 5, out(), kUnwritable);
    }
    {
        const Permissions none(folder.path() / "out", fs::perms::none);
        expectDenied(convert(movie(), out()), 5, out(), kUnwritable);
    }
    EXPECT_EQ(filesInOut(), 0U);
    folder.write("out/out.mp4", "precious");
    {
        const Permissions readOnly(out(), fs::perms::owner_read);
        expectDenied(convert(movie(), out()), 5, out(), kUnwritable);
    }
    EXPECT_EQ(filesInOut(), 1U);
    EXPECT_EQ(fs::file_size(out()), 8U);
}

TEST_F(Server, NeedsOnlyWritePermissionForTheFolder) {
    startHeldByPermissions();
    const Permissions noList(folder.path() / "out", fs::perms::owner_write | fs::perms::owner_exec);
    EXPECT_EQ(convert(movie(), out()), nullptr);
    EXPECT_GT(fs::file_size(out()), 1000U);
    EXPECT_EQ(convert(movie(), out()), nullptr);  // replaces the first
    EXPECT_GT(fs::file_size(out()), 1000U);
}

TEST_F(Server, RefusesImpossibleSettings) {
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

TEST_F(Server, ACancelledConversionLeavesNoFile) {
    start();
    std::ofstream(out()) << "old";
    observer->onProgress = [](const R&, float) { return false; };
    const std::string source = std::string(KRV_TEST_MEDIA) + "/long.mov";
    std::shared_ptr<const Error> error;
    client->convertMovie(source, out(), 1, false, observer, &error);
    EXPECT_EQ(error, nullptr);
    waitUntil([this] { return status()["running"] == 0; });
    std::ifstream in(out());
    EXPECT_EQ((std::string{std::istreambuf_iterator<char>(in), {}}), "old");
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Server, AWorkerThatIsKilledCostsItsOperationOnly) {
    start();
    std::ofstream(out()) << "old";
    // A worker that has reported progress has started. One that dies earlier is replaced unnoticed.
    observer->onProgress = [this, killed = false](const R&, float progress) mutable {
        if (progress > 0.0F && !std::exchange(killed, true)) {
            ::kill(worker(), SIGKILL);
        }
        return true;
    };
    const auto error = convert(std::string(KRV_TEST_MEDIA) + "/longer.mov", out());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 7);
    EXPECT_EQ(error->localizedFailureReason(), "the worker was killed by signal 9 (Killed)");
    EXPECT_EQ(filesInOut(), 1U);
    EXPECT_EQ(convert(movie(), out("second.mp4")), nullptr);
}

TEST_F(Server, AServerThatIsKilledTakesItsWorkersAlongAndLeavesNoFile) {
    start();
    const std::string source = std::string(KRV_TEST_MEDIA) + "/long.mov";
    pid_t workerPid = 0;
    std::thread killer([&] {
        workerPid = worker();
        process->signal(SIGKILL);
    });
    EXPECT_THROW(convert(source, out()), Exception);
    killer.join();
    waitUntil([&] { return ::kill(workerPid, 0) != 0 || !ProcessTable::system().process(workerPid); });
    EXPECT_EQ(filesInOut(), 0U);
}

}  // namespace
}  // namespace krv::server
