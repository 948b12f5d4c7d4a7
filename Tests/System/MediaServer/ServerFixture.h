#pragma once

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>

#include "ChildProcess.h"
#include "FixedPort.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace krv::server {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using R = KRVOperationBase;
using test::ChildProcess;
using test::FixedPort;
using test::waitUntil;

class Observer final : public OperationProgress {
public:
    bool operation(const R::Ref& record, float progress) override {
        seen.push_back(progress);
        return !onProgress || onProgress(*record, progress);
    }
    std::vector<float> seen;
    std::function<bool(const R&, float)> onProgress;
};

/// The real server with real workers. Each test starts its own, on its own ports and with its own folders.
class Server : public testing::Test {
protected:
    Server() {
        ::setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1);
        ::setenv("XDG_STATE_HOME", (folder.path() / "state").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (folder.path() / "config").c_str(), 1);
        fs::create_directory(folder.path() / "out");
    }

    /// Starts the server and waits until it serves. launcher: a program and its arguments that exec the server.
    void start(const std::vector<std::string>& more = {}, const std::vector<std::string>& launcher = {}) {
        const int first = 20000 + ::getpid() % 20000;
        std::vector<std::string> arguments = launcher;
        arguments.insert(arguments.end(), {program, "-minimumPortNumber", std::to_string(first), "-maximumPortNumber",
                                           std::to_string(first + 100)});
        arguments.insert(arguments.end(), more.begin(), more.end());
        process = std::make_unique<ChildProcess>(arguments);
        // The server serves once its port reports its process id.
        port = 0;
        waitUntil([&] {
            for (int candidate = first; candidate <= first + 5 && port == 0; ++candidate) {
                const auto status = statusAt(candidate);
                if (status.is_object() && status["pid"] == process->pid()) {
                    port = candidate;
                }
            }
            return port != 0;
        });
        transport = std::make_shared<KRVHTTPClientTransport>(std::make_shared<FixedPort>(port));
        client = std::make_unique<KRVQuicktimeProcessClient>(transport);
    }

    /// Starts a server that file permissions apply to, even if the tests run as root.
    void startHeldByPermissions() {
        const std::string overrides = "-dac_override,-dac_read_search";
        std::vector<std::string> launcher;
        if (::geteuid() == 0) {
            launcher = {"setpriv", "--bounding-set", overrides, "--inh-caps", overrides};
        }
        start({}, launcher);
        constexpr unsigned long kOverrides = 1UL << 1 | 1UL << 2;
        ASSERT_EQ(std::stoul(processStatus("CapEff:"), nullptr, 16) & kOverrides, 0U);
    }

    static nlohmann::json statusAt(int port) {
        const auto response = HTTPClient::shared().send(
            {.url = fmt::format("http://localhost:{}/status", port), .body = std::nullopt, .timeout = 5s});
        if (!response.body || response.error || response.status != 200) {
            return {};
        }
        const auto* p = reinterpret_cast<const char*>(response.body->data());
        return nlohmann::json::parse(p, p + response.body->size(), nullptr, false);
    }
    nlohmann::json status() const { return statusAt(port); }

    R::Ref ask(const R::Ref& operation) const { return R::operationFromData(transport->sendOperation(operation)); }

    /// Sends raw bytes and returns everything that the server sends until it closes the connection.
    std::string raw(const std::string& bytes) const {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::string response;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            [[maybe_unused]] const auto sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            char buffer[4096];
            for (ssize_t count = 0; (count = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
                response.append(buffer, static_cast<std::size_t>(count));
            }
        }
        ::close(fd);
        return response;
    }
    int rawStatus(const std::string& request) const {
        const std::string response = raw(request);
        return response.size() > 12 ? std::atoi(response.c_str() + 9) : 0;
    }
    std::string host() const { return fmt::format("Host: localhost:{}\r\nConnection: close\r\n", port); }

    std::string movie() const { return std::string(KRV_TEST_MEDIA) + "/plain.mov"; }
    std::string out(const char* name = "out.mp4") const { return (folder.path() / "out" / name).string(); }
    std::size_t filesInOut() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder.path() / "out"), {}));
    }
    std::shared_ptr<const Error> convert(const std::string& source, const std::string& destination, int type = 1) {
        std::shared_ptr<const Error> error;
        client->convertMovie(source, destination, type, false, observer, &error);
        return error;
    }
    /// Returns the text after this heading in the server's /proc/PID/status.
    std::string processStatus(std::string_view heading) const {
        std::ifstream in(fmt::format("/proc/{}/status", process->pid()));
        for (std::string line; std::getline(in, line);) {
            if (line.rfind(heading, 0) == 0) {
                return line.substr(heading.size());
            }
        }
        throw std::runtime_error("the server has exited");
    }
    long residentKilobytes() const { return std::stol(processStatus("VmRSS:")); }
    /// Returns the process ids of all workers, idle and busy.
    std::vector<pid_t> workers() const { return children("KRVMediaWorker"); }
    /// Returns the process ids of the server's child processes with this name.
    std::vector<pid_t> children(const std::string& name) const {
        std::vector<pid_t> pids;
        std::error_code gone;
        for (const auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", process->pid()), gone)) {
            std::ifstream children(task.path() / "children");
            for (pid_t pid = 0; children >> pid;) {
                if (nameOf(pid) == name) {
                    pids.push_back(pid);
                }
            }
        }
        return pids;
    }
    static std::string nameOf(pid_t pid) {
        std::ifstream in(fmt::format("/proc/{}/comm", pid));
        std::string name;
        std::getline(in, name);
        return name;
    }
    /// Waits until a worker has one of the test movies open, and returns its process id.
    pid_t worker() const {
        pid_t found = 0;
        waitUntil([&] {
            const auto pids = workers();
            const auto holder = std::find_if(pids.begin(), pids.end(), holdsMovie);
            found = holder == pids.end() ? 0 : *holder;
            return found != 0;
        });
        return found;
    }
    static bool holdsMovie(pid_t pid) {
        std::error_code failure;
        for (const auto& file : fs::directory_iterator(fmt::format("/proc/{}/fd", pid), failure)) {
            if (fs::read_symlink(file.path(), failure).string().starts_with(KRV_TEST_MEDIA)) {
                return true;
            }
        }
        return false;
    }

    test::TemporaryFolder folder;
    /// The program that start() runs.
    std::string program = KRV_SERVER;
    std::unique_ptr<ChildProcess> process;
    int port = 0;
    std::shared_ptr<KRVHTTPClientTransport> transport;
    std::unique_ptr<KRVQuicktimeProcessClient> client;
    std::shared_ptr<Observer> observer = std::make_shared<Observer>();
};

}  // namespace krv::server
