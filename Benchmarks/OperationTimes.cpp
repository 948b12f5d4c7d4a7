// Times operations inside one process, against a media server of its own that is warm. scripts/compare-with-peers runs
// it; each line of output is a name, a tab and a number.
//
//     OperationTimes describe REPEATS FILE...   milliseconds of getMetadataFor, the poster included: one line per call
//     OperationTimes again REPEATS FILE         milliseconds of getMetadataFor for a file that has not changed, and of a
//                                               call that asks for nothing
//     OperationTimes sweep FILE...              milliseconds in which all files are described, one after another, once
//     OperationTimes return ROUNDS SOURCE FOLDER
//                                               milliseconds from the end of a conversion to the caller's return
//     OperationTimes queue LENGTH... FILE       milliseconds in which so many queued descriptions are done
//     OperationTimes record BYTES...            milliseconds of a call with a record of that size
//     OperationTimes clients CALLERS...         calls per second of so many threads
//     OperationTimes idle CONNECTIONS           milliseconds of the status page beside so many idle connections
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>

#include "RunningServer.h"

namespace {

using namespace std::chrono_literals;
using krv::KRVOperationBase;
using krv::TransportInvocation;
using krv::benchmarks::RunningServer;
using Steady = std::chrono::steady_clock;
using Arguments = std::vector<std::string>;

double millisecondsSince(Steady::time_point start) {
    return std::chrono::duration<double, std::milli>(Steady::now() - start).count();
}

void print(const std::string& name, double value) {
    fmt::print("{}\t{:.3f}\n", name, value);
}

/// Exits the program with a message. A benchmark of something that fails means nothing.
[[noreturn]] void fail(const std::string& what) {
    fmt::print(stderr, "OperationTimes: {}\n", what);
    std::exit(1);
}

krv::KRVQuicktimeProcessClient& client() {
    return RunningServer::instance().client();
}

void describeOnce(const std::string& file) {
    std::shared_ptr<const krv::Error> error;
    if (!client().getMetadataFor(file, &error)) {
        fail(error ? error->localizedDescription() : "no description of " + file);
    }
}

/// Lets the server start its spare workers, so that the first measurement does not wait for them.
void warmUp(const std::string& file) {
    for (int i = 0; i < 3; ++i) {
        describeOnce(file);
        std::this_thread::sleep_for(200ms);
    }
}

/// The server may answer from its memory what has not changed, so each description is of a file that has.
void touch(const std::string& file) {
    std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now());
}

void describe(const Arguments& arguments) {
    const int repeats = std::stoi(arguments.at(0));
    warmUp(arguments.at(1));
    for (int i = 0; i < repeats; ++i) {
        for (std::size_t k = 1; k < arguments.size(); ++k) {
            touch(arguments[k]);
            const auto start = Steady::now();
            describeOnce(arguments[k]);
            print(arguments[k], millisecondsSince(start));
        }
    }
}

void again(const Arguments& arguments) {
    warmUp(arguments.at(1));
    for (int i = 0; i < std::stoi(arguments.at(0)); ++i) {
        auto start = Steady::now();
        describeOnce(arguments[1]);
        print("unchanged", millisecondsSince(start));
        start = Steady::now();
        if (!client().isServerReadyToTakeRequests()) {
            fail("the server is not ready");
        }
        print("bare", millisecondsSince(start));
    }
}

void sweep(const Arguments& arguments) {
    warmUp(arguments.at(0));
    for (const std::string& file : arguments) {
        touch(file);
    }
    const auto start = Steady::now();
    for (const std::string& file : arguments) {
        describeOnce(file);
    }
    print("sweep", millisecondsSince(start));
}

/// Returns how long ago a file got its name, in milliseconds. The kernel's clock for that ticks every 4 ms.
double ageOf(const std::string& file) {
    struct stat status {};
    timespec now{};
    if (::stat(file.c_str(), &status) != 0 || ::clock_gettime(CLOCK_REALTIME, &now) != 0) {
        fail("there is no " + file);
    }
    return static_cast<double>(now.tv_sec - status.st_ctim.tv_sec) * 1e3 +
           static_cast<double>(now.tv_nsec - status.st_ctim.tv_nsec) / 1e6;
}

void convertFirst(const std::string& source, double seconds, const std::string& destination,
                  TransportInvocation::Pace pace) {
    const std::string settings = fmt::format("trimEnd={}:preset=ultrafast", seconds);
    const auto* const bytes = reinterpret_cast<const std::byte*>(settings.data());
    const auto video = krv::VideoEncodingParameters::encodingParametersWithData(
        std::make_shared<const krv::Data>(bytes, bytes + settings.size()));
    video->setCodec(0x61766331);  // avc1
    const auto record = KRVOperationBase::encodeVideoOperation(
        source, destination, krv::AudioEncodingParameters::encodingParametersWithData(nullptr), video);
    const auto invocation = TransportInvocation::invocationWith(record);
    invocation->setPace(pace);
    std::shared_ptr<const krv::Error> error;
    (void)invocation->invokeOverTransportGetProgressWaitToComplete(client().transport(), &error, 60);
    if (error || record->error()) {
        fail((error ? error : record->error())->localizedDescription());
    }
}

void returnTimes(const Arguments& arguments) {
    const int rounds = std::stoi(arguments.at(0));
    const std::string& source = arguments.at(1);
    warmUp(source);
    const std::map<std::string, TransportInvocation::Pace> paces{
        {"half-second", TransportInvocation::Pace::HalfSecond},
        {"with-the-server", TransportInvocation::Pace::WithTheServer}};
    for (int i = 0; i < rounds; ++i) {
        // Of different length, so that the end falls anywhere between two polls.
        const double seconds = 8.0 + 11.0 * i / rounds;
        for (const auto& [name, pace] : paces) {
            const std::string destination = fmt::format("{}/{}-{}.mp4", arguments.at(2), name, i);
            convertFirst(source, seconds, destination, pace);
            print(name, ageOf(destination));
        }
    }
}

KRVOperationBase::Ref call(const KRVOperationBase::Ref& record) {
    std::shared_ptr<const krv::Error> error;
    const auto reply = TransportInvocation::invocationWith(record)->invokeOverTransport(client().transport(), &error);
    return TransportInvocation::throwExceptionIfNoError(&error, record, reply);
}

void queue(const Arguments& arguments) {
    const std::string& file = arguments.back();
    warmUp(file);
    for (std::size_t k = 0; k + 1 < arguments.size(); ++k) {
        const int length = std::stoi(arguments[k]);
        constexpr int kSenders = 16;
        const auto start = Steady::now();
        std::vector<std::thread> senders;
        for (int s = 0; s < std::min(kSenders, length); ++s) {
            senders.emplace_back([&file, share = length / kSenders + (s < length % kSenders ? 1 : 0)] {
                for (int i = 0; i < share; ++i) {
                    const auto record = KRVOperationBase::provideMetadataFor(file);
                    (void)call(record);
                }
            });
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
        for (;;) {
            const auto waiting = call(KRVOperationBase::numberOfOperationsOperation());
            if (waiting->numOpsNumberOfOperations().integerValue() == 0) {
                break;
            }
            std::this_thread::sleep_for(1ms);
        }
        print(arguments[k], millisecondsSince(start));
    }
}

void recordSizes(const Arguments& arguments) {
    for (const std::string& size : arguments) {
        const auto record = KRVOperationBase::readyToProcessRequestOperation();
        record->arguments()->set("padding", krv::Value(std::make_shared<const krv::Data>(std::stoul(size))));
        constexpr int kRounds = 7;
        std::vector<double> times;
        for (int i = 0; i < kRounds; ++i) {
            const auto start = Steady::now();
            if (!call(record)) {
                fail("a record of " + size + " bytes has no reply");
            }
            times.push_back(millisecondsSince(start));
        }
        std::sort(times.begin(), times.end());
        print(size, times[kRounds / 2]);
    }
}

void clients(const Arguments& arguments) {
    for (const std::string& count : arguments) {
        constexpr auto kDuration = 1s;
        std::atomic<std::int64_t> calls{0};
        std::vector<std::thread> callers;
        const auto end = Steady::now() + kDuration;
        for (int i = 0; i < std::stoi(count); ++i) {
            callers.emplace_back([&] {
                while (Steady::now() < end) {
                    if (!client().amIRegistered()) {
                        fail("not registered");
                    }
                    ++calls;
                }
            });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
        print(count, static_cast<double>(calls) / std::chrono::duration<double>(kDuration).count());
    }
}

void idle(const Arguments& arguments) {
    const long port = RunningServer::instance().port();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < std::stoi(arguments.at(0)); ++i) {
        const int connection = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            fail("a connection was refused");
        }
    }
    constexpr int kRounds = 200;
    std::vector<double> times;
    for (int i = 0; i < kRounds; ++i) {
        const auto start = Steady::now();
        (void)krv::HTTPClient::shared().send(
            {.url = fmt::format("http://localhost:{}/status", port), .body = std::nullopt, .timeout = 5s});
        times.push_back(millisecondsSince(start));
    }
    std::sort(times.begin(), times.end());
    print(arguments.at(0), times[kRounds / 2]);
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(const Arguments&)> modes{
        {"describe", describe}, {"again", again},        {"sweep", sweep},     {"return", returnTimes},
        {"queue", queue},       {"record", recordSizes}, {"clients", clients}, {"idle", idle}};
    const auto mode = argc > 1 ? modes.find(argv[1]) : modes.end();
    if (mode == modes.end()) {
        fail("which measurement? The source lists them.");
    }
    (void)RunningServer::instance();
    try {
        mode->second(Arguments(argv + 2, argv + argc));
    } catch (const krv::Exception& exception) {
        fail(exception.reason());
    } catch (const std::exception& problem) {
        fail(problem.what());
    }
    return 0;
}
