// Compares our archive codec with libplist on the same bytes.
//
// They do not do the same work. Our codec reads and writes records with all their objects, libplist only the property
// list that contains them. So the comparison favours libplist.
#include <string>

#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace {

using krv::Array;
using krv::Data;
using krv::Dictionary;
using krv::KRVOperationBase;
using krv::Value;

/// A conversion with settings, as a client sends it.
KRVOperationBase::Ref encodeRequest() {
    const auto video =
        krv::VideoEncodingParameters::encodingParametersWithData(std::make_shared<const Data>(200, std::byte{7}));
    video->setCodec(0x61766331);
    video->setQuality(0.5F);
    const auto audio =
        krv::AudioEncodingParameters::encodingParametersWithData(std::make_shared<const Data>(48, std::byte{9}));
    return KRVOperationBase::encodeVideoOperation("/Users/someone/Movies/in.mov", "/Users/someone/Movies/out.mp4",
                                                  audio, video);
}

/// The request that is sent every half second.
KRVOperationBase::Ref poll() {
    return KRVOperationBase::progressAndCompletionOperation("8C2F6B1E-40A7-4B8E-9A54-0F2D3C1B7E66");
}

/// The interesting times of a long movie.
KRVOperationBase::Ref timesReply() {
    auto reply = KRVOperationBase::getInterestingTimesOperation("/Movies/in.mov", false, 0);
    Array values;
    for (int i = 0; i < 20000; ++i) {
        values.push_back(i * 1001);
    }
    reply->setResult(std::make_shared<Dictionary>(
        Dictionary{{"interestingTimes", Dictionary{{"values", std::move(values)}, {"timescale", 24000}}}}));
    return reply;
}

KRVOperationBase::Ref record(std::int64_t which) {
    return which == 0 ? poll() : which == 1 ? encodeRequest() : timesReply();
}

void setLabel(benchmark::State& state, std::size_t size) {
    const char* const names[] = {"poll", "encode request", "interesting times"};
    state.SetLabel(names[state.range(0)]);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

void writeOurs(benchmark::State& state) {
    const auto request = record(state.range(0));
    std::size_t size = 0;
    for (auto _ : state) {
        const Data data = request->convertToData();
        size = data.size();
        benchmark::DoNotOptimize(data.data());
    }
    setLabel(state, size);
}

void writeLibplist(benchmark::State& state) {
    const Data data = record(state.range(0))->convertToData();
    plist_t tree = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<std::uint32_t>(data.size()), &tree);
    std::uint32_t size = 0;
    for (auto _ : state) {
        char* bytes = nullptr;
        plist_to_bin(tree, &bytes, &size);
        benchmark::DoNotOptimize(bytes);
        plist_to_bin_free(bytes);
    }
    plist_free(tree);
    setLabel(state, size);
}

void readOurs(benchmark::State& state) {
    const auto data = std::make_shared<const Data>(record(state.range(0))->convertToData());
    for (auto _ : state) {
        const auto back = KRVOperationBase::operationFromData(data);
        benchmark::DoNotOptimize(back.get());
    }
    setLabel(state, data->size());
}

void readLibplist(benchmark::State& state) {
    const Data data = record(state.range(0))->convertToData();
    for (auto _ : state) {
        plist_t tree = nullptr;
        plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<std::uint32_t>(data.size()), &tree);
        benchmark::DoNotOptimize(tree);
        plist_free(tree);
    }
    setLabel(state, data.size());
}

BENCHMARK(writeOurs)->DenseRange(0, 2);
BENCHMARK(writeLibplist)->DenseRange(0, 2);
BENCHMARK(readOurs)->DenseRange(0, 2);
BENCHMARK(readLibplist)->DenseRange(0, 2);

}  // namespace
