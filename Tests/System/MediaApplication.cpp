// An application that a test controls and that uses Media. It reads one command per line from its standard input and
// prints what happens on its standard output. Its main thread runs the main run loop, on which the jobs are started and
// report.
//
//   convert ID SOURCE DESTINATION   prints "ID progress 0.25"..., at the end "ID done", or "ID failed KIND CAUSE"
//   merge ID SOURCE DESTINATION     the same, for two times the source
//   thumbnails ID SOURCE FOLDER     the same; "ID done N" with the number of thumbnails
//   info ID SOURCE                  "ID done CODECS", or "ID failed KIND CAUSE"
//   await ID SOURCE                 the same, from a coroutine
//   blocking ID SOURCE              the same, from a thread that waits
//   throw ID                        from now on the observer of that job throws
//   cancel ID                       cancels a job
//   drop ID                         destroys the handle of a job; prints "dropped"
//   many N SOURCE                   describes a movie N times; prints "many running THREADS" when all have been started,
//                                   and "many done OK" with the number that succeeded
//   status                          prints "status NUMBER" with the number of clients, or "status KIND"
//   threads                         prints "threads" and the names of all threads but the main one, among them the
//                                   application's own "reader"
//   quit                            exits
//
// Without the argument "--no-loop" it uses one Media from the start. With it, and SOURCE, it describes a movie as the
// simplest program would, and exits.
#include <coroutine>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include <unistd.h>

#include <pthread.h>

#include <KRVQTProcessClient/Media.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace {

template <typename... Words>
void say(const Words&... words) {
    static std::mutex output;
    const std::lock_guard lock(output);
    const char* separator = "";
    ((std::cout << separator << words, separator = " "), ...);
    std::cout << std::endl;
}

void sayFailure(const std::string& id, const krv::Failure& failure) {
    say(id, "failed", krv::Failure::nameOf(failure.kind()), failure.cause());
}

/// A coroutine that belongs to nobody.
struct Detached {
    struct promise_type {
        Detached get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

class Application {
public:
    void run(const std::string& line) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        std::vector<std::string> rest{std::istream_iterator<std::string>(words), {}};
        rest.resize(std::max<std::size_t>(rest.size(), 3));
        if (command == "convert") {
            convert(rest[0], rest[1], rest[2]);
        } else if (command == "merge") {
            keep(rest[0],
                 media_.merge({.sources = {rest[1], rest[1]}, .destination = rest[2], .onProgress = observer(rest[0])}),
                 [id = rest[0]](const krv::Merged&) { say(id, "done"); });
        } else if (command == "thumbnails") {
            keep(rest[0], media_.thumbnails({.source = rest[1], .folder = rest[2], .onProgress = observer(rest[0])}),
                 [id = rest[0]](const krv::Thumbnails& made) { say(id, "done", made.thumbnails.size()); });
        } else if (command == "info") {
            keep(rest[0], media_.info(rest[1]),
                 [id = rest[0]](const krv::MovieInfo& info) { say(id, "done", info.codecs); });
        } else if (command == "await") {
            await(rest[0], rest[1]);
        } else if (command == "blocking") {
            threads_.emplace_back([this, id = rest[0], source = rest[1]] { report(id, media_.info(source).wait()); });
        } else if (command == "throw") {
            throwing_.insert(rest[0]);
        } else if (command == "cancel") {
            std::visit([](auto& job) { job.cancel(); }, jobs_.at(rest[0]));
        } else if (command == "drop") {
            jobs_.erase(rest[0]);
            say("dropped");
        } else if (command == "many") {
            describeMany(std::stoul(rest[0]), rest[1]);
        } else if (command == "status") {
            status();
        } else if (command == "threads") {
            sayThreads();
        } else if (command == "quit") {
            krv::RunLoop::main().stop();
        }
    }
    ~Application() {
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

private:
    using AnyJob = std::variant<krv::Job<krv::Converted>, krv::Job<krv::Merged>, krv::Job<krv::Thumbnails>,
                                krv::Job<krv::MovieInfo>>;

    template <typename T, typename Succeeded>
    void keep(const std::string& id, krv::Job<T> job, Succeeded succeeded) {
        jobs_.insert_or_assign(id, std::move(job).then([id, succeeded](const krv::Result<T>& result) {
            if (result) {
                succeeded(*result);
            } else {
                sayFailure(id, result.error());
            }
        }));
    }
    krv::ProgressCallback observer(const std::string& id) {
        return [this, id](const krv::Progress& progress) {
            say(id, "progress", progress.state == krv::Progress::State::Running ? progress.fraction : 0);
            if (throwing_.contains(id)) {
                throw std::runtime_error("the observer has had enough");
            }
        };
    }
    void convert(const std::string& id, const std::string& source, const std::string& destination) {
        keep(id, media_.convert({.source = source, .destination = destination, .onProgress = observer(id)}),
             [id](const krv::Converted&) { say(id, "done"); });
    }
    static void report(const std::string& id, const krv::Result<krv::MovieInfo>& info) {
        if (info) {
            say(id, "done", info->codecs);
        } else {
            sayFailure(id, info.error());
        }
    }
    Detached await(std::string id, std::string source) { report(id, co_await media_.info(source)); }
    void describeMany(std::size_t count, const std::string& source) {
        many_.clear();
        succeeded_ = 0;
        ended_ = 0;
        for (std::size_t i = 0; i < count; ++i) {
            many_.push_back(media_.info(source));
            many_.back().then([this, count](const krv::Result<krv::MovieInfo>& info) {
                succeeded_ += info ? 1U : 0U;
                if (++ended_ == count) {
                    say("many done", succeeded_);
                }
            });
        }
        const auto threads = std::filesystem::directory_iterator("/proc/self/task");
        say("many running", std::distance(begin(threads), end(threads)));
    }
    static void sayThreads() {
        std::string names;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm"), name);
            if (task.path().filename() != std::to_string(::getpid())) {
                names += ' ' + name;
            }
        }
        say("threads" + names);
    }
    void status() {
        const auto status = std::make_shared<krv::Job<krv::ServerStatus>>(media_.serverStatus());
        status->then([status](const krv::Result<krv::ServerStatus>& result) {
            if (result) {
                say("status", result->clients.size());
            } else {
                say("status", krv::Failure::nameOf(result.error().kind()));
            }
        });
    }

    const krv::Media media_;
    std::map<std::string, AnyJob> jobs_;
    std::set<std::string> throwing_;
    std::vector<std::thread> threads_;
    std::vector<krv::Job<krv::MovieInfo>> many_;
    std::size_t succeeded_ = 0;
    std::size_t ended_ = 0;
};

int describe(const char* source) {
    const auto info = krv::Media().info(source).wait();
    if (info) {
        say("described", info->codecs);
    } else {
        sayFailure("described", info.error());
    }
    return info ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--no-loop") {
        return describe(argv[2]);
    }
    Application application;
    std::thread reader([&application] {
        ::pthread_setname_np(::pthread_self(), "reader");
        for (std::string line; std::getline(std::cin, line);) {
            krv::RunLoop::main().perform([&application, line] { application.run(line); });
        }
        krv::RunLoop::main().perform([] { krv::RunLoop::main().stop(); });
    });
    krv::RunLoop::main().run();
    reader.join();
}
