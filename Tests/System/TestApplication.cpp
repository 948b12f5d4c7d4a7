// An application that a test controls. It reads one command per line from its standard input and prints what happens on
// its standard output. It uses the library like any application: the main thread creates the shared client and then
// runs the main run loop, and other threads make the calls.
//
//   convert ID SOURCE DESTINATION   prints "ID progress 0.25"..., at the end "ID done", "ID error CODE DESCRIPTION" or
//                                   "ID exception NAME: REASON"
//   merge ID SOURCE DESTINATION     the same, for two times the source
//   convert-on-main ID SOURCE DESTINATION
//                                   the same, on the main thread within its run loop
//   pause ID FRACTION               blocks the observer of that conversion from this progress on; prints "ID paused"
//   resume ID                       unblocks it
//   registered                      prints "registered yes" or "registered no"
//   wait-registered                 prints "registered after SECONDS", counted from the start of the application
//   same                            prints "same yes" if it uses the shared client, otherwise "same no"
//   port                            prints "port N", as discovery knows it
//   destroy                         calls destroySingleton; prints "destroyed"
//   bare                            replaces the shared client by a bare one with monitoring; prints "bare"
//   cleanup                         cleans up the bare client, waits until its thread has exited; prints "cleaned up"
//   use                             prints "use THREADS DESCRIPTORS CHILDREN CPU-SECONDS RESIDENT-KILOBYTES"
//   log                             from now on prints "log TEXT" for every line of the library's log
//   every-call MOVIE FOLDER         makes every call on threads of their own; prints "call NAME END" for each, at the end
//                                   "called"
//   fill                            takes every descriptor that is free now or later; prints "filled"
//   free                            gives them back; prints "freed"
//   signals                         prints "signals", followed by the names of the threads of the library that do not
//                                   block SIGTERM
//   ports                           from now on prints "port N" for every notification of the discovery
//   jump SECONDS                    shifts the wall clock (see WallClockShift.cpp); prints "jumped SECONDS" by it
//   quit                            exits
//
// With the argument "--bare" it creates no shared client at the start. With "--descriptors N" it leaves itself N further
// descriptors, creates the client, prints "client made" or "exception NAME", runs the main loop for a moment, prints
// "turned", and then gives itself all descriptors back.
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "EveryCall.h"

namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

std::mutex mutex;  // of everything below
std::condition_variable changed;
std::map<std::string, float> pauses;
std::shared_ptr<krv::KRVQTProcessClientOperations> client;
std::shared_ptr<krv::KRVQuicktimeProcessClient> bare;
SteadyClock::time_point made;

template <typename... Arguments>
void say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    static std::mutex output;
    const std::lock_guard lock(output);
    fmt::print("{}\n", fmt::format(format, std::forward<Arguments>(arguments)...));
    std::fflush(stdout);
}

std::shared_ptr<krv::KRVQTProcessClientOperations> theClient() {
    const std::lock_guard lock(mutex);
    return client;
}

class Observer final : public krv::OperationProgress {
public:
    explicit Observer(std::string id)
        : id_(std::move(id)) {}

    bool operation(const krv::KRVOperationBase::Ref&, float progress) override {
        say("{} progress {:.4f}", id_, progress);
        std::unique_lock lock(mutex);
        if (const auto pause = pauses.find(id_); pause != pauses.end() && progress >= pause->second) {
            say("{} paused", id_);
            changed.wait(lock, [this] { return !pauses.contains(id_); });
        }
        return true;
    }

private:
    const std::string id_;
};

/// Makes a call and prints how it ended.
void work(const std::string& id, const std::function<void(krv::KRVQTProcessClientOperations&, krv::ErrorOut)>& call) {
    std::shared_ptr<const krv::Error> error;
    try {
        call(*theClient(), &error);
        if (error) {
            say("{} error {} {}", id, error->code(), error->localizedDescription());
        } else {
            say("{} done", id);
        }
    } catch (const krv::Exception& exception) {
        say("{} exception {}: {}", id, exception.name(), exception.reason());
    }
}

void convert(const std::string& id, const std::string& source, const std::string& destination) {
    work(id, [&](auto& operations, krv::ErrorOut error) {
        operations.convertMovie(source, destination, krv::VideoConversion::H264, false, std::make_shared<Observer>(id),
                                error);
    });
}

void merge(const std::string& id, const std::string& source, const std::string& destination) {
    work(id, [&](auto& operations, krv::ErrorOut error) {
        (void)operations.mergeSources(krv::Array{krv::Value(source), krv::Value(source)}, destination, false,
                                      std::make_shared<Observer>(id), error);
    });
}

std::size_t entries(const char* folder) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

void printUse() {
    std::string children;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream in(task.path() / "children");
        children.append(std::istreambuf_iterator<char>(in), {});
    }
    std::istringstream list(children);
    const auto count = std::distance(std::istream_iterator<int>(list), {});
    rusage use{};
    ::getrusage(RUSAGE_SELF, &use);
    const auto seconds = [](timeval t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    long pages = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    // Do not count the descriptor of the listing itself.
    say("use {} {} {} {:.4f} {}", entries("/proc/self/task"), entries("/proc/self/fd") - 1, count,
        seconds(use.ru_utime) + seconds(use.ru_stime), resident * ::sysconf(_SC_PAGESIZE) / 1024);
}

void waitUntilRegistered() {
    while (!theClient()->amIRegistered()) {
        std::this_thread::sleep_for(5ms);
    }
    say("registered after {:.3f}", std::chrono::duration<double>(SteadyClock::now() - made).count());
}

void makeBareClient() {
    auto transport = std::make_shared<krv::KRVHTTPClientTransport>(krv::HTTPServerDiscovery::defaultInstance());
    const std::lock_guard lock(mutex);
    bare = krv::KRVQuicktimeProcessClient::clientWithTransport(transport);
    client = bare;
    say("bare");
}

void cleanUpBareClient() {
    std::weak_ptr<krv::ServerRunner> runner;
    {
        const std::lock_guard lock(mutex);
        runner = bare->serverRunner();
        bare->cleanUp();
        bare.reset();
        client.reset();
    }
    krv::KRVQuicktimeProcessClient::destroySingleton();
    while (!runner.expired()) {
        std::this_thread::sleep_for(5ms);
    }
    say("cleaned up");
}

void jump(long seconds) {
    auto* const shift = reinterpret_cast<void (*)(long)>(::dlsym(RTLD_DEFAULT, "krvShiftWallClock"));
    const auto before = std::chrono::system_clock::now();
    if (shift) {
        shift(seconds);
    }
    say("jumped {:.0f}", std::chrono::duration<double>(std::chrono::system_clock::now() - before).count());
}

/// Takes every descriptor that is free, and every one that the library closes, until it is destroyed.
class FullTable {
public:
    FullTable() {
        take();
        thread_ = std::thread([this] {
            while (!enough_) {
                take();
                std::this_thread::sleep_for(1ms);
            }
        });
    }
    ~FullTable() {
        enough_ = true;
        thread_.join();
        for (const int descriptor : taken_) {
            ::close(descriptor);
        }
    }
    FullTable(const FullTable&) = delete;
    FullTable& operator=(const FullTable&) = delete;

private:
    void take() {
        for (int descriptor = ::dup(STDIN_FILENO); descriptor >= 0; descriptor = ::dup(STDIN_FILENO)) {
            taken_.push_back(descriptor);
        }
    }

    std::vector<int> taken_;
    std::atomic<bool> enough_{false};
    std::thread thread_;
};

std::unique_ptr<FullTable> fullTable;

/// Called on a thread of the application's own, which is not counted, like the main thread.
void printThreadsWithSignals() {
    std::string names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::stoi(task.path().filename());
        std::ifstream in(task.path() / "status");
        std::string name;
        std::uint64_t blocked = 0;
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("Name:\t")) {
                name = line.substr(6);
            } else if (line.starts_with("SigBlk:\t")) {
                blocked = std::stoull(line.substr(8), nullptr, 16);
            }
        }
        if (thread != ::getpid() && thread != ::gettid() && (blocked >> (SIGTERM - 1) & 1) == 0) {
            names += ' ' + name;
        }
    }
    say("signals{}", names);
}

void printPorts() {
    (void)krv::NotificationCenter::defaultCenter().addObserver(
        krv::kHTTPServerDiscoveryServiceChangeNotification,
        [](const krv::Notification& notification) { say("port {}", notification.value.integerValue()); });
    say("observing");
}

void obey(const std::string& line) {
    std::istringstream in(line);
    std::string command;
    std::string id;
    in >> command;
    if (command == "convert") {
        std::string source;
        std::string destination;
        in >> id >> source >> destination;
        std::thread(convert, id, source, destination).detach();
    } else if (command == "merge") {
        std::string source;
        std::string destination;
        in >> id >> source >> destination;
        std::thread(merge, id, source, destination).detach();
    } else if (command == "convert-on-main") {
        std::string source;
        std::string destination;
        in >> id >> source >> destination;
        krv::RunLoop::main().perform([=] { convert(id, source, destination); });
    } else if (command == "pause") {
        float fraction = 0;
        in >> id >> fraction;
        const std::lock_guard lock(mutex);
        pauses[id] = fraction;
    } else if (command == "resume") {
        in >> id;
        const std::lock_guard lock(mutex);
        pauses.erase(id);
        changed.notify_all();
    } else if (command == "registered") {
        say("registered {}", theClient()->amIRegistered() ? "yes" : "no");
    } else if (command == "wait-registered") {
        waitUntilRegistered();
    } else if (command == "same") {
        const auto here = krv::KRVQuicktimeProcessClient::defaultClient();
        say("same {}", here == theClient() && here == krv::__default_krv_quicktime_process_client ? "yes" : "no");
    } else if (command == "port") {
        say("port {}", krv::HTTPServerDiscovery::defaultInstance()->servicePortNumber());
    } else if (command == "destroy") {
        krv::KRVQuicktimeProcessClient::destroySingleton();
        say("destroyed");
    } else if (command == "bare") {
        makeBareClient();
    } else if (command == "cleanup") {
        cleanUpBareClient();
    } else if (command == "use") {
        printUse();
    } else if (command == "every-call") {
        std::string movie;
        std::string folder;
        in >> movie >> folder;
        krv::test::makeEveryCall(*theClient(), movie, folder,
                                 [](const auto& name, const auto& end) { say("call {} {}", name, end); });
        say("called");
    } else if (command == "fill") {
        fullTable = std::make_unique<FullTable>();
        say("filled");
    } else if (command == "free") {
        fullTable.reset();
        say("freed");
    } else if (command == "signals") {
        printThreadsWithSignals();
    } else if (command == "ports") {
        printPorts();
    } else if (command == "jump") {
        long seconds = 0;
        in >> seconds;
        jump(seconds);
    } else if (command == "log") {
        krv::krv_loggingEnabled = true;
        krv::qtClientLogLevel = 15;
        krv::DDLog::setSink([](const krv::LogMessage& message) { say("log {}", message.text); });
        say("logging");
    } else {
        say("unknown {}", line);
    }
}

void startWithFewDescriptors(std::size_t further) {
    rlimit all{};
    ::getrlimit(RLIMIT_NOFILE, &all);
    // The descriptors in use have the lowest numbers. That of the listing itself is one of the further ones.
    const rlimit few{entries("/proc/self/fd") - 1 + further, all.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    try {
        client = krv::KRVQuicktimeProcessClient::defaultClient();
        say("client made");
        krv::RunLoop::main().runUntil(SteadyClock::now() + 300ms);
    } catch (const krv::Exception& exception) {
        say("exception {}: {}", exception.name(), exception.reason());
    }
    say("turned");
    ::setrlimit(RLIMIT_NOFILE, &all);
    client = krv::KRVQuicktimeProcessClient::defaultClient();
}

}  // namespace

int main(int count, char** arguments) {
    made = SteadyClock::now();
    const std::string_view way = count < 2 ? "" : arguments[1];
    if (way == "--descriptors" && count > 2) {
        startWithFewDescriptors(std::stoul(arguments[2]));
    } else if (way != "--bare") {
        client = krv::KRVQuicktimeProcessClient::defaultClient();
    }
    std::thread([] {
        for (std::string line; std::getline(std::cin, line) && line != "quit";) {
            obey(line);
        }
        krv::RunLoop::main().stop();
    }).detach();
    krv::RunLoop::main().run();
    std::fflush(stdout);
    std::_Exit(0);  // a conversion may still be running
}
