// Compares our archive codec with libplist, and with a copy of the bytes, on the same records.
//
// They do not do the same work. Our codec reads and writes records with all their objects, libplist only the property
// list that contains them. So the comparison favours libplist.
//
// For ratios, run it with --benchmark_enable_random_interleaving=true --benchmark_repetitions=9, so that all sides see
// the same machine, and compare medians.
#include <array>
#include <string>

#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace {

using krv::Array;
using krv::Data;
using krv::Date;
using krv::Dictionary;
using krv::KRVOperationBase;
using krv::Size;
using krv::Value;

/// The request that is sent every half second.
KRVOperationBase::Ref poll() {
    return KRVOperationBase::progressAndCompletionOperation("8C2F6B1E-40A7-4B8E-9A54-0F2D3C1B7E66");
}

/// A conversion with settings, as a client sends it.
KRVOperationBase::Ref conversion() {
    const auto video =
        krv::VideoEncodingParameters::encodingParametersWithData(std::make_shared<const Data>(200, std::byte{7}));
    video->setCodec(0x61766331);
    video->setQuality(0.5F);
    const auto audio =
        krv::AudioEncodingParameters::encodingParametersWithData(std::make_shared<const Data>(48, std::byte{9}));
    return KRVOperationBase::encodeVideoOperation("/Users/someone/Movies/in.mov", "/Users/someone/Movies/out.mp4",
                                                  audio, video);
}

KRVOperationBase::Ref mixDown() {
    return KRVOperationBase::muxAudioTo2chOperation("/Users/someone/Movies/in.mov", "/Users/someone/Movies/out.mov");
}

/// The interesting times of a movie.
template <int kCount>
KRVOperationBase::Ref times() {
    auto reply = KRVOperationBase::getInterestingTimesOperation("/Movies/in.mov", false, 0);
    Array values;
    for (int i = 0; i < kCount; ++i) {
        values.push_back(i * 1001);
    }
    const Dictionary interestingTimes{{krv::kResultInterestingTimeValues, std::move(values)},
                                      {krv::kResultInterestingTimeTimescale, 24000}};
    reply->setResult(std::make_shared<Dictionary>(Dictionary{{krv::kResultInterestingTimes, Value(interestingTimes)}}));
    return reply;
}

/// The description of a movie, with a poster of 100 KB.
KRVOperationBase::Ref description() {
    auto reply = KRVOperationBase::provideMetadataFor("/Users/someone/Movies/in.mov");
    reply->setUniqueID("8C2F6B1E-40A7-4B8E-9A54-0F2D3C1B7E66");
    reply->setProgress(1, true);
    reply->setMetadata(
        std::make_shared<const Dictionary>(Dictionary{{krv::kMediaMetadataCodec, "H.264 / AVC, High profile"},
                                                      {krv::kMediaMetadataDuration, 7261.253},
                                                      {krv::kMediaMetadataDimensions, Size{1920, 1080}},
                                                      {krv::kMediaMetadataAudio, "AAC, 48000 Hz, stereo"},
                                                      {krv::kMediaMetadataSize, std::int64_t{5'123'456'789}},
                                                      {krv::kMediaMetadataPath, "/Users/someone/Movies/in.mov"},
                                                      {krv::kMediaMetadataCreation, Date{700'000'000}},
                                                      {krv::kMediaMetadataModified, Date{700'000'100.5}},
                                                      {krv::kMediaMetadataFrameRate, 23.976},
                                                      {krv::kMediaMetadataPoster, Data(100'000, std::byte{0x5A})}}));
    return reply;
}

struct Row {
    const char* name;
    KRVOperationBase::Ref (*record)();
};
constexpr std::array<Row, 6> kRows{{{"poll", &poll},
                                    {"conversion", &conversion},
                                    {"mix down", &mixDown},
                                    {"300 times", &times<300>},
                                    {"20000 times", &times<20000>},
                                    {"description with poster", &description}}};

const Row& rowOf(const benchmark::State& state) {
    return kRows.at(static_cast<std::size_t>(state.range(0)));
}

Data archive(const benchmark::State& state) {
    return rowOf(state).record()->convertToData();
}

void setLabel(benchmark::State& state, std::size_t size) {
    state.SetLabel(rowOf(state).name);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

void copy(benchmark::State& state) {
    const Data data = archive(state);
    for (auto _ : state) {
        const Data same = data;
        benchmark::DoNotOptimize(same.data());
    }
    setLabel(state, data.size());
}

void writeOurs(benchmark::State& state) {
    const auto request = rowOf(state).record();
    std::size_t size = 0;
    for (auto _ : state) {
        const Data data = request->convertToData();
        size = data.size();
        benchmark::DoNotOptimize(data.data());
    }
    setLabel(state, size);
}

void writeLibplist(benchmark::State& state) {
    const Data data = archive(state);
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
    const auto data = std::make_shared<const Data>(archive(state));
    for (auto _ : state) {
        const auto back = KRVOperationBase::operationFromData(data);
        benchmark::DoNotOptimize(back.get());
    }
    setLabel(state, data->size());
}

void readLibplist(benchmark::State& state) {
    const Data data = archive(state);
    for (auto _ : state) {
        plist_t tree = nullptr;
        plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<std::uint32_t>(data.size()), &tree);
        benchmark::DoNotOptimize(tree);
        plist_free(tree);
    }
    setLabel(state, data.size());
}

constexpr std::int64_t kLastRow = kRows.size() - 1;

BENCHMARK(copy)->DenseRange(0, kLastRow);
BENCHMARK(writeOurs)->DenseRange(0, kLastRow);
BENCHMARK(writeLibplist)->DenseRange(0, kLastRow);
BENCHMARK(readOurs)->DenseRange(0, kLastRow);
BENCHMARK(readLibplist)->DenseRange(0, kLastRow);

}  // namespace
