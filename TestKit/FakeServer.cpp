#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <pthread.h>

#include <KRVQTProcessClient/TestKit/FakeServer.h>

namespace krv::test_kit {
namespace {

namespace fs = std::filesystem;

/// The folder of this process. Removed at its exit, unless it is a forked child that exits.
class OwnFolder {
public:
    OwnFolder()
        : owner_(::getpid()) {
        std::string name = (fs::temp_directory_path() / "krv-fake-server-XXXXXX").string();
        if (!::mkdtemp(name.data())) {
            throw std::system_error(errno, std::generic_category(), "a temporary folder");
        }
        path_ = name;
        for (const auto& [variable, place] : {std::pair{"XDG_RUNTIME_DIR", "runtime"}, {"XDG_STATE_HOME", "state"}}) {
            fs::create_directory(path_ / place);
            fs::permissions(path_ / place, fs::perms::owner_all);
            ::setenv(variable, (path_ / place).c_str(), 1);
        }
    }
    ~OwnFolder() {
        if (owner_ == ::getpid()) {
            std::error_code ignored;
            fs::remove_all(path_, ignored);
        }
    }
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;

    [[nodiscard]] const fs::path& path() const { return path_; }

private:
    const pid_t owner_;
    fs::path path_;
};

const fs::path& ownFolder() {
    static const OwnFolder folder;
    return folder.path();
}

/// Whether there is a server, and the port of the latest one.
std::atomic<bool> present = false;
std::atomic<int> latestPort = 0;

/// A connection to the program. Sockets, because writing to a pipe whose reader has died can end this process.
struct Link {
    int ours = -1;
    int theirs = -1;
    Link() {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::system_error(errno, std::generic_category(), "a pair of sockets");
        }
        ours = ends[0];
        theirs = ends[1];
    }
    ~Link() {
        closeTheirs();
        ::close(ours);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    void closeTheirs() {
        if (theirs >= 0) {
            ::close(std::exchange(theirs, -1));
        }
    }
};

/// Starts the program with the link as its standard input and output, and without the signal mask of this thread.
pid_t start(const std::vector<std::string>& arguments, const Link& link) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, link.theirs, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, link.theirs, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    const int failure = ::posix_spawnp(&pid, argv.front(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        throw std::runtime_error(arguments.front() + ": " + std::strerror(failure));
    }
    return pid;
}

}  // namespace

/// The running program and what it has printed.
class FakeServer::Process {
public:
    Process(std::string_view script, const std::string& program) {
        const fs::path file = ownFolder() / "script";
        std::ofstream(file, std::ios::binary) << script;
        pid_ = start({program, "--until-eof", "--port", std::to_string(latestPort), file.string()}, link_);
        link_.closeTheirs();
        reader_ = std::thread([this] { readOutput(); });
        try {
            wait([this] { return server_ > 0; });
        } catch (const std::exception&) {
            stop();
            if (badScript_) {
                throw std::invalid_argument(failure_);
            }
            throw std::runtime_error(failure_.empty() ? program + " did not start" : failure_);
        }
        latestPort = port_;
    }
    ~Process() { stop(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Blocks until the condition is true of what was printed. Throws std::runtime_error if the program ends before.
    template <typename Condition>
    void wait(Condition condition) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return condition() || ended_; });
        if (!condition()) {
            throw std::runtime_error("krv-fake-server has exited");
        }
    }

    /// Sends a line and blocks until it has been confirmed, which is after everything that was printed before it.
    /// Returns whether the program knows what the line names.
    bool tell(const std::string& line) {
        std::unique_lock lock(mutex_);
        const std::string text = line + '\n';
        if (::send(link_.ours, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
            return false;
        }
        const std::size_t wanted = ++asked_;
        changed_.wait(lock, [&] { return confirmed_.size() >= wanted || ended_; });
        return confirmed_.size() >= wanted && confirmed_[wanted - 1];
    }
    /// Blocks until everything that has been printed was read.
    void catchUp() { (void)tell(""); }

    template <typename Read>
    auto with(Read read) {
        const std::lock_guard lock(mutex_);
        return read(*this);
    }

    // Guarded by the mutex.
    std::vector<Request> requests_;
    std::size_t deaths_ = 0;
    pid_t server_ = 0;
    int port_ = 0;

private:
    void readOutput() {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::string pending;
        std::array<char, 4096> buffer{};
        for (;;) {
            const ssize_t count = ::read(link_.ours, buffer.data(), buffer.size());
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                break;
            }
            pending.append(buffer.data(), static_cast<std::size_t>(count));
            for (std::size_t end = 0; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
                note(pending.substr(0, end));
            }
        }
        const std::lock_guard lock(mutex_);
        ended_ = true;
        server_ = 0;
        changed_.notify_all();
    }

    void note(const std::string& line) {
        const auto event = nlohmann::json::parse(line, nullptr, false);
        if (!event.is_object()) {
            return;
        }
        const std::string kind = event.value("event", "");
        const std::lock_guard lock(mutex_);
        if (kind == "request") {
            requests_.push_back({.operation = event.value("operation", ""),
                                 .nth = event.value("nth", std::size_t{0}),
                                 .source = event.value("source", ""),
                                 .destination = event.value("destination", ""),
                                 .client = event.value("client", pid_t{0})});
        } else if (kind == "listening") {
            server_ = event.value("pid", pid_t{0});
            port_ = event.value("port", 0);
        } else if (kind == "died") {
            server_ = 0;
            ++deaths_;
        } else if (kind == "done") {
            confirmed_.push_back(event.value("known", false));
        } else if (kind == "failed") {
            failure_ = event.value("reason", "");
            badScript_ = event.value("script", false);
        }
        changed_.notify_all();
    }

    void stop() {
        if (pid_ > 0) {
            ::shutdown(link_.ours, SHUT_WR);
            ::waitpid(std::exchange(pid_, -1), nullptr, 0);
        }
        if (reader_.joinable()) {
            reader_.join();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t asked_ = 0;
    /// For each line that was sent, whether it names something that the program knows.
    std::vector<bool> confirmed_;
    bool ended_ = false;
    std::string failure_;
    bool badScript_ = false;
    pid_t pid_ = -1;
    Link link_;
    std::thread reader_;
};

FakeServer::FakeServer(std::string_view script, const std::string& program) {
    if (present.exchange(true)) {
        throw std::logic_error("there is another FakeServer");
    }
    try {
        process_ = std::make_unique<Process>(script, program);
    } catch (...) {
        present = false;
        throw;
    }
}

FakeServer::~FakeServer() {
    process_.reset();
    present = false;
}

int FakeServer::port() const {
    return process_->with([](const Process& process) { return process.port_; });
}

pid_t FakeServer::pid() const {
    process_->catchUp();
    return process_->with([](const Process& process) { return process.server_; });
}

std::size_t FakeServer::deaths() const {
    process_->catchUp();
    return process_->with([](const Process& process) { return process.deaths_; });
}

std::vector<FakeServer::Request> FakeServer::requests() const {
    process_->catchUp();
    return process_->with([](const Process& process) { return process.requests_; });
}

std::size_t FakeServer::requestCount(std::string_view operation) const {
    const std::vector<Request> all = requests();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const Request& each) { return each.operation == operation; }));
}

void FakeServer::waitForRequests(std::string_view operation, std::size_t count) const {
    process_->wait([&] {
        const auto& all = process_->requests_;
        return static_cast<std::size_t>(std::count_if(
                   all.begin(), all.end(), [&](const Request& each) { return each.operation == operation; })) >= count;
    });
}

void FakeServer::waitForDeaths(std::size_t count) const {
    process_->wait([&] { return process_->deaths_ >= count; });
}

void FakeServer::open(std::string_view gate) {
    if (!process_->tell("open " + std::string(gate))) {
        throw std::invalid_argument("the script has no gate \"" + std::string(gate) + '"');
    }
}

void FakeServer::kill() {
    std::size_t deaths = 0;
    process_->wait([&] {
        deaths = process_->deaths_;
        return process_->server_ > 0 && ::kill(process_->server_, SIGKILL) == 0;
    });
    waitForDeaths(deaths + 1);
}

fs::path FakeServer::folder() {
    return ownFolder();
}

}  // namespace krv::test_kit
