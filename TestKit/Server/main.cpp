// krv-fake-server: plays a media server from a script, so that an application can test how it handles failures.
//
//     krv-fake-server [--port N] [--until-eof] SCRIPT
//
// Two processes. This one keeps the user's instance lock, so that no real server starts here, and the counts of the
// requests. It forks the one that serves, and another one when that has died as the script asks. Both print what happens
// on standard output, one JSON object per line. Documentation/test-kit.md describes them and the script.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>
#include <KRVQTProcessClient/Platform/StateFolder.h>

#include "FakeOperations.h"
#include "HTTPEnd.h"
#include "Script.h"
#include "SharedState.h"
#include <MediaServer/Files/InstanceLock.h>

namespace {

using namespace krv;
using namespace krv::test_kit;
using json = nlohmann::json;

constexpr int kBadUsage = 2;

struct Options {
    std::string script;
    std::uint16_t port = 0;
    /// Whether the end of standard input ends the program.
    bool untilEOF = false;
};

/// Prints one event. A single write, so that the lines of the two processes do not mix.
void print(const json& event) {
    const std::string line = event.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t count = ::write(STDOUT_FILENO, line.data() + sent, line.size() - sent);
        if (count < 0 && errno != EINTR) {
            return;
        }
        sent += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

void printRequest(const KRVOperationBase& request, std::uint32_t number) {
    print({{"event", "request"},
           {"operation", requestName(request.operationType())},
           {"nth", number},
           {"source", request.encodingSourceFilename().value_or("")},
           {"destination", request.encodingDestinationFilename().value_or("")},
           {"client", request.regInfoPID().integerValue()}});
}

/// Ends this process, as a crash would or orderly, without returning to the threads that serve.
void die(bool crash) {
    if (crash) {
        ::kill(::getpid(), SIGKILL);
    }
    ::_exit(EXIT_SUCCESS);
}

/// Each connection needs a descriptor, and there may be as many as the HTTP end admits.
void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// The serving process. Ends as the script asks, or with its parent.
[[noreturn]] void serve(const Script& script, SharedState& shared, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(EXIT_FAILURE);
    }
    allowManyDescriptors();
    try {
        FakeOperations operations(script, shared, &printRequest, &die);
        const HTTPEnd http(shared.port(),
                           [&](const KRVOperationBase::Ref& request) { return operations.respond(request); });
        // Clients find the next one on the same port, even before they look for it.
        shared.setPort(http.port());
        const auto record = serviceRecordOfThisProcess(
            ServerNaming::machineSpecificNameFor(kHTTPServerDiscoveryDefaultServiceName), http.port());
        if (!record) {
            throw std::runtime_error("/proc cannot be read");
        }
        const ServiceRecordFile file(runtimeFolder(kMediaServerName), *record);
        print({{"event", "listening"}, {"port", http.port()}, {"pid", ::getpid()}});
        for (;;) {
            ::pause();
        }
    } catch (const std::exception& problem) {
        print({{"event", "failed"}, {"reason", problem.what()}});
    }
    ::_exit(EXIT_FAILURE);
}

std::optional<Options> parseOptions(int count, char** arguments) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--port" && i + 1 < count) {
            options.port = static_cast<std::uint16_t>(std::strtoul(arguments[++i], nullptr, 10));
        } else if (argument == "--until-eof") {
            options.untilEOF = true;
        } else if (options.script.empty() && !argument.starts_with("--")) {
            options.script = argument;
        } else {
            return std::nullopt;
        }
    }
    return options.script.empty() ? std::nullopt : std::optional(options);
}

Script readScript(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in) {
        throw ScriptError("it cannot be read");
    }
    return parseScript(text);
}

/// Keeps one serving process alive, as long as the script asks for it.
class Supervisor {
public:
    Supervisor(const Options& options, const Script& script)
        : options_(options)
        , script_(script) {
        shared_.setPort(options.port);
        sigset_t set;
        sigemptyset(&set);
        for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
            sigaddset(&set, number);
        }
        ::sigprocmask(SIG_BLOCK, &set, nullptr);
        signals_ = ::signalfd(-1, &set, SFD_CLOEXEC);
    }

    int run() {
        start();
        for (;;) {
            pollfd events[] = {{signals_, POLLIN, 0}, {options_.untilEOF ? STDIN_FILENO : -1, POLLIN, 0}};
            const int ready = ::poll(events, std::size(events), restartDelay());
            if (ready == 0) {
                start();
            }
            if ((events[0].revents != 0 && !handleSignal()) || (events[1].revents != 0 && !handleInput())) {
                return stop();
            }
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    void start() {
        restart_.reset();
        const pid_t parent = ::getpid();
        server_ = ::fork();
        if (server_ == 0) {
            sigset_t none;
            sigemptyset(&none);
            ::sigprocmask(SIG_SETMASK, &none, nullptr);
            serve(script_, shared_, parent);
        }
    }

    [[nodiscard]] int restartDelay() const {
        if (!restart_) {
            return -1;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*restart_ - Clock::now()).count();
        return static_cast<int>(std::max<std::int64_t>(left, 0));
    }

    /// Returns whether to go on.
    bool handleSignal() {
        signalfd_siginfo info{};
        if (::read(signals_, &info, sizeof info) != sizeof info || info.ssi_signo != SIGCHLD) {
            return false;
        }
        int status = 0;
        if (::waitpid(server_, &status, WNOHANG) != server_) {
            return true;
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_FAILURE) {
            status_ = EXIT_FAILURE;  // it has said why
            server_ = -1;
            return false;
        }
        print({{"event", "died"}, {"pid", server_}});
        server_ = -1;
        if (script_.restart) {
            restart_ = Clock::now() + *script_.restart;
        }
        return true;
    }

    /// Returns whether to go on.
    bool handleInput() {
        char buffer[256];
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) {
            return false;
        }
        input_.append(buffer, static_cast<std::size_t>(count));
        for (std::size_t end = 0; (end = input_.find('\n')) != std::string::npos; input_.erase(0, end + 1)) {
            handleLine(std::string_view(input_).substr(0, end));
        }
        return true;
    }

    /// Opens a gate, or does nothing. Every line is confirmed behind everything that was printed before.
    void handleLine(std::string_view line) {
        constexpr std::string_view kOpen = "open ";
        if (!line.starts_with(kOpen)) {
            print({{"event", "done"}});
            return;
        }
        const auto gate = script_.gateNamed(line.substr(kOpen.size()));
        if (gate) {
            shared_.open(*gate);
        }
        print({{"event", "done"}, {"known", gate.has_value()}});
    }

    [[nodiscard]] int stop() const {
        if (server_ > 0) {
            ::kill(server_, SIGKILL);
            ::waitpid(server_, nullptr, 0);
        }
        return status_;
    }

    const Options options_;
    const Script& script_;
    SharedState shared_;
    int signals_ = -1;
    int status_ = EXIT_SUCCESS;
    pid_t server_ = -1;
    std::string input_;
    std::optional<Clock::time_point> restart_;
};

}  // namespace

int main(int count, char** arguments) {
    const auto options = parseOptions(count, arguments);
    if (!options) {
        fmt::print(stderr, "usage: krv-fake-server [--port N] [--until-eof] SCRIPT\n");
        return kBadUsage;
    }
    const auto fail = [](const std::string& reason, bool ofScript = false) {
        print({{"event", "failed"}, {"reason", reason}, {"script", ofScript}});
        fmt::print(stderr, "krv-fake-server: {}\n", reason);
        return EXIT_FAILURE;
    };
    Script script;
    try {
        script = readScript(options->script);
    } catch (const ScriptError& problem) {
        return fail(fmt::format("{}: {}", options->script, problem.what()), true);
    }
    server::InstanceLock lock;
    switch (lock.acquire(runtimeFolder(kMediaServerName), stateFolder(kMediaServerName))) {
    case server::InstanceLock::Result::Held:
        break;
    case server::InstanceLock::Result::TakenByAnother:
        return fail("another media server serves this user; set XDG_RUNTIME_DIR and XDG_STATE_HOME to other folders");
    case server::InstanceLock::Result::Failed:
        return fail(lock.failure());
    }
    return Supervisor(*options, script).run();
}
