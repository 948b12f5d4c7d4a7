// Compares a call of the client with the bare HTTP library: the same server, the same bytes, a handle that is used
// again. The difference is what the client adds: archives, the port, the check of the server.
//
// Reports the median and the 99th percentile in microseconds. Pin it to one core (taskset --cpu-list 0), which the server
// then shares, because otherwise the wake-up of another core is measured.
#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "RunningServer.h"

namespace {

using krv::benchmarks::RunningServer;
using Clock = std::chrono::steady_clock;

class Times {
public:
    template <typename Call>
    void measure(const Call& call) {
        const auto start = Clock::now();
        call();
        microseconds_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    void report(benchmark::State& state) {
        std::sort(microseconds_.begin(), microseconds_.end());
        const auto at = [this](double share) {
            return microseconds_[static_cast<std::size_t>(share * static_cast<double>(microseconds_.size() - 1))];
        };
        state.counters["p50"] = at(0.5);
        state.counters["p99"] = at(0.99);
        state.counters["calls/s"] =
            benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    }

private:
    std::vector<double> microseconds_;
};

void amIRegistered(benchmark::State& state) {
    auto& client = RunningServer::instance().client();
    Times times;
    for (auto _ : state) {
        times.measure([&] {
            if (!client.amIRegistered()) {
                state.SkipWithError("not registered");
            }
        });
    }
    times.report(state);
}

std::size_t countBytes(char*, std::size_t size, std::size_t count, void* total) {
    *static_cast<std::size_t*>(total) += size * count;
    return size * count;
}

void bareHTTP(benchmark::State& state) {
    auto& server = RunningServer::instance();
    const krv::Data body = krv::KRVOperationBase::amIRegisteredOperation()->convertToData();
    const std::string url = fmt::format("http://127.0.0.1:{}/", server.port());
    CURL* const handle = curl_easy_init();
    curl_slist* const headers = curl_slist_append(curl_slist_append(nullptr, "Expect:"), "Content-Type:");
    std::size_t received = 0;
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, countBytes);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &received);
    Times times;
    for (auto _ : state) {
        times.measure([&] {
            if (curl_easy_perform(handle) != CURLE_OK) {
                state.SkipWithError("no response");
            }
        });
    }
    times.report(state);
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);
}

BENCHMARK(amIRegistered);
BENCHMARK(bareHTTP);

}  // namespace
