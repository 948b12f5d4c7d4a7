#include "SystemFixture.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int kFirstPort = 8000;
constexpr int kLastPort = 8010;
constexpr const char* kExecutableInBundle = "KRVQuicktimeProcess.app/Contents/MacOS/KRVQuicktimeProcess";

}  // namespace

Application::Application(const std::string& executable, std::vector<std::string> arguments)
    : process_([&] {
        arguments.insert(arguments.begin(), executable);
        return arguments;
    }()) {}

std::string Application::waitFor(const std::string& beginning) {
    while (auto line = process_.readLine()) {
        lines_.push_back(*line);
        if (line->starts_with(beginning)) {
            return *line;
        }
    }
    ADD_FAILURE() << "the application exited before it printed \"" << beginning << '"';
    return {};
}

std::string Application::ask(const std::string& command, const std::string& beginning) {
    tell(command);
    return waitFor(beginning);
}

double Application::waitForProgress(const std::string& id, double atLeast) {
    for (;;) {
        const std::string line = waitFor(id + ' ');
        const std::string word = id + " progress ";
        if (!line.starts_with(word)) {
            return -1;
        }
        if (const double progress = std::stod(line.substr(word.size())); progress >= atLeast) {
            return progress;
        }
    }
}

std::string Application::result(const std::string& id) {
    for (;;) {
        const std::string line = waitFor(id + ' ');
        const std::string rest = line.size() > id.size() ? line.substr(id.size() + 1) : std::string();
        if (rest.empty() || !(rest.starts_with("progress") || rest.starts_with("paused"))) {
            return rest;
        }
    }
}

std::vector<std::string> Application::linesOf(const std::string& beginning) const {
    std::vector<std::string> found;
    std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(found),
                 [&](const auto& line) { return line.starts_with(beginning); });
    return found;
}

bool Application::hasSaid(const std::string& beginning) const {
    return std::any_of(lines_.begin(), lines_.end(), [&](const auto& line) { return line.starts_with(beginning); });
}

void Application::kill() {
    process_.signal(SIGKILL);
    process_.wait();
}

SystemFixture::SystemFixture() {
    for (const char* place : {"runtime", "state", "config", "out"}) {
        fs::create_directory(folder.path() / place);
    }
    fs::permissions(folder.path() / "runtime", fs::perms::owner_all);
    ::setenv("XDG_RUNTIME_DIR", (folder.path() / "runtime").c_str(), 1);
    ::setenv("XDG_STATE_HOME", (folder.path() / "state").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (folder.path() / "config").c_str(), 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
}

SystemFixture::~SystemFixture() {
    for (const pid_t pid : servers()) {
        killServer(pid);
    }
}

std::string SystemFixture::install(const std::string& name, bool withServer, const std::string& program) {
    const fs::path place = folder.path() / name;
    fs::create_directories(place);
    const fs::path application = place / "TestApplication";
    fs::copy_file(program, application, fs::copy_options::overwrite_existing);
    if (withServer) {
        fs::create_directory_symlink(KRV_SERVER_BUNDLE, place / "KRVQuicktimeProcess.app");
    }
    return application.string();
}

void SystemFixture::replaceServer(const std::string& application, const std::string& program) const {
    const fs::path place = fs::path(application).parent_path() / "KRVQuicktimeProcess.app";
    fs::remove(place);
    fs::create_directories(place / "Contents/MacOS");
    if (!program.empty()) {
        fs::copy_file(program, bundleExecutable(application));
    }
}

std::string SystemFixture::bundleExecutable(const std::string& application) {
    return (fs::path(application).parent_path() / kExecutableInBundle).string();
}

std::vector<pid_t> SystemFixture::servers() {
    std::vector<pid_t> pids;
    for (const ProcessInfo& process : ProcessTable::system().processes()) {
        if (process.name == "KRVQuicktimeProcess") {
            pids.push_back(process.pid);
        }
    }
    return pids;
}

std::string SystemFixture::status(int port) {
    const auto response = HTTPClient::shared().send(
        {.url = fmt::format("http://localhost:{}/status", port), .body = std::nullopt, .timeout = 5s});
    if (!response.body || response.error || response.status != 200) {
        return {};
    }
    return {reinterpret_cast<const char*>(response.body->data()), response.body->size()};
}

SystemFixture::Serving SystemFixture::waitForServer(const std::function<bool(const Serving&)>& suits) {
    Serving serving;
    waitUntil([&] {
        for (int port = kFirstPort; port <= kLastPort; ++port) {
            const auto page = nlohmann::json::parse(status(port), nullptr, false);
            if (page.is_object() && page.contains("pid")) {
                serving = {page["pid"], port};
                if (!suits || suits(serving)) {
                    return true;
                }
            }
        }
        return false;
    });
    return serving;
}

void SystemFixture::killServer(pid_t pid) {
    ::kill(pid, SIGKILL);
    waitUntil([pid] { return !ProcessTable::system().process(pid); });
}

std::string SystemFixture::media(const char* name) const {
    return std::string(KRV_TEST_MEDIA) + '/' + name;
}

std::vector<std::string> SystemFixture::filesInOut() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(outFolder())) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

double SystemFixture::readableSeconds(const std::string& movie) {
    ChildProcess probe({"ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                        "stream=nb_read_frames,r_frame_rate", "-of", "csv=p=0", movie});
    const auto line = probe.readLine();
    int numerator = 0;
    int denominator = 0;
    int frames = 0;
    if (!line || std::sscanf(line->c_str(), "%d/%d,%d", &numerator, &denominator, &frames) != 3 || numerator == 0) {
        return -1;
    }
    return static_cast<double>(frames) * denominator / numerator;
}

}  // namespace krv::test
