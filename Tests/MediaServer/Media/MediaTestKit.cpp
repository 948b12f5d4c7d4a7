#include "MediaTestKit.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numbers>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <strings.h>

#include <MediaServer/Media/Foundation/FFmpegLog.h>
#include <MediaServer/Worker/DefaultFont.h>

// libx265 leaks memory, which would hide leaks of our own code.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
    return "leak:libx265";
}

namespace krv::media::test {
namespace {

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// A frame is bright, and a sample is loud, from this value on.
constexpr int kBright = 100;
constexpr int kLoud = 1000;
constexpr int kProbeRate = 48000;

}  // namespace

std::string testMedia(const std::string& name) {
    return std::string(KRV_TEST_MEDIA) + "/" + name;
}

Descriptor::Descriptor(int number)
    : number_(number) {
    if (number < 0) {
        throwErrno("open");
    }
}

Descriptor::Descriptor(Descriptor&& other) noexcept
    : number_(std::exchange(other.number_, -1)) {}

Descriptor::~Descriptor() {
    if (number_ >= 0) {
        close(number_);
    }
}

Descriptor openToRead(const std::string& path) {
    return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

OutputPath::OutputPath(const std::string& extension) {
    path_ = testing::TempDir() + "krv-media-XXXXXX." + extension;
    const Descriptor made(mkostemps(path_.data(), static_cast<int>(extension.size()) + 1, O_CLOEXEC));
}

OutputPath::OutputPath(OutputPath&& other) noexcept
    : path_(std::exchange(other.path_, {})) {}

OutputPath::~OutputPath() {
    if (!path_.empty()) {
        unlink(path_.c_str());
    }
}

RecordingSink::RecordingSink() {
    FFmpegLog::instance().clear();
}

namespace {

MovieReport convertTo(const OutputPath& output, const Conversion& conversion, ProgressSink& sink) {
    const Descriptor source = openToRead(conversion.source);
    const Descriptor destination(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    EncodeRequest request;
    request.source = source.number();
    request.sourcePath = conversion.source;
    request.destination = destination.number();
    request.destinationPath = output.path();
    request.encodingType = conversion.type;
    request.flattenOnly = conversion.flatten;
    request.video = conversion.video;
    request.audio = conversion.audio;
    static const Font font = server::mapDefaultFont();
    request.font = conversion.withFont ? font : Font{};
    return encode(request, sink);
}

}  // namespace

OutputPath convert(const Conversion& conversion, ProgressSink& sink) {
    OutputPath output(conversion.extension);
    (void)convertTo(output, conversion, sink);
    return output;
}

MovieReport reportOf(const Conversion& conversion) {
    const OutputPath output(conversion.extension);
    RecordingSink sink;
    return convertTo(output, conversion, sink);
}

OutputPath convert(const Conversion& conversion) {
    RecordingSink sink;
    return convert(conversion, sink);
}

std::optional<Failure> failureOf(const Conversion& conversion) {
    try {
        (void)convert(conversion);
    } catch (const Failure& failure) {
        return failure;
    }
    return std::nullopt;
}

std::string run(const std::vector<std::string>& arguments) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throwErrno("pipe");
    }
    const Descriptor reader(ends[0]);
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t child = -1;
    const int failed = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failed != 0) {
        throw std::system_error(failed, std::generic_category(), arguments.front());
    }
    std::string output;
    std::array<char, 65536> buffer{};
    for (ssize_t got = 0; (got = read(reader.number(), buffer.data(), buffer.size())) > 0;) {
        output.append(buffer.data(), static_cast<std::size_t>(got));
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(fmt::format("{} failed on {}", arguments.front(), arguments.back()));
    }
    return output;
}

Probe::Probe(const std::string& path)
    : json_(nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-show_streams", "-show_format",
                                       "-show_chapters", "-count_frames", path}))) {}

std::vector<nlohmann::json> Probe::streams(const std::string& type) const {
    std::vector<nlohmann::json> found;
    for (const auto& stream : json_.at("streams")) {
        if (text(stream, "codec_type") == type && stream["disposition"].value("attached_pic", 0) == 0) {
            found.push_back(stream);
        }
    }
    return found;
}

nlohmann::json Probe::video() const {
    return streams("video").at(0);
}

nlohmann::json Probe::audio() const {
    return streams("audio").at(0);
}

std::vector<nlohmann::json> Probe::covers() const {
    std::vector<nlohmann::json> found;
    for (const auto& stream : json_.at("streams")) {
        if (stream["disposition"].value("attached_pic", 0) == 1) {
            found.push_back(stream);
        }
    }
    return found;
}

double Probe::duration() const {
    return number(json_.at("format"), "duration");
}

std::string Probe::tag(const std::string& key) const {
    return tagOf(json_.at("format"), key);
}

std::string text(const nlohmann::json& object, const std::string& key) {
    const auto found = object.find(key);
    if (found == object.end()) {
        return "";
    }
    return found->is_string() ? found->get<std::string>() : found->dump();
}

double number(const nlohmann::json& object, const std::string& key) {
    const std::string value = text(object, key);
    return value.empty() ? 0 : std::stod(value);
}

std::string tagOf(const nlohmann::json& object, const std::string& key) {
    const auto tags = object.find("tags");
    if (tags == object.end()) {
        return "";
    }
    for (const auto& [name, value] : tags->items()) {
        if (strcasecmp(name.c_str(), key.c_str()) == 0) {
            return value.get<std::string>();
        }
    }
    return "";
}

std::vector<double> frameTimes(const std::string& path) {
    const auto json =
        nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams", "v:0", "-show_entries",
                                   "frame=best_effort_timestamp_time:format=start_time", path}));
    const double start = number(json.at("format"), "start_time");
    std::vector<double> times;
    for (const auto& frame : json.at("frames")) {
        times.push_back(number(frame, "best_effort_timestamp_time") - start);
    }
    return times;
}

std::vector<int> frameBrightness(const std::string& path) {
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:v:0", "-vf",
                                   "scale=1:1:flags=area,format=gray", "-vsync", "passthrough", "-f", "rawvideo", "-"});
    std::vector<int> values;
    for (const char byte : bytes) {
        values.push_back(static_cast<unsigned char>(byte));
    }
    return values;
}

double flashTime(const std::string& path, double after) {
    const auto values = frameBrightness(path);
    const auto times = frameTimes(path);
    for (std::size_t i = 0; i < values.size() && i < times.size(); ++i) {
        if (values[i] > kBright && times[i] >= after) {
            return times[i];
        }
    }
    throw std::runtime_error("no flash");
}

double beepTime(const std::string& path, double after) {
    const std::string bytes =
        run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:a:0", "-af", "aresample=async=1:first_pts=0", "-ac", "1",
             "-ar", std::to_string(kProbeRate), "-f", "s16le", "-"});
    for (auto i = static_cast<std::size_t>(after * kProbeRate) * 2; i + 1 < bytes.size(); i += 2) {
        const auto sample = static_cast<std::int16_t>(static_cast<unsigned char>(bytes[i]) |
                                                      static_cast<unsigned char>(bytes[i + 1]) << 8);
        if (std::abs(sample) > kLoud) {
            return static_cast<double>(i) / 2 / kProbeRate;
        }
    }
    throw std::runtime_error("no beep");
}

double audioLength(const std::string& path) {
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:a:0", "-ac", "1", "-ar",
                                   std::to_string(kProbeRate), "-f", "s16le", "-"});
    return static_cast<double>(bytes.size()) / 2 / kProbeRate;
}

double DecodedAudio::peak(double from, double to) const {
    float highest = 0;
    for (const auto& channel : channels) {
        for (auto i = static_cast<std::size_t>(from * rate); i < static_cast<std::size_t>(to * rate); ++i) {
            highest = std::max(highest, std::abs(channel.at(i)));
        }
    }
    return static_cast<double>(highest);
}

double DecodedAudio::level(std::size_t channel, double frequency, double from, double to) const {
    const double step = 2 * std::numbers::pi * frequency / rate;
    double in = 0, quadrature = 0;
    const auto first = static_cast<std::size_t>(from * rate), last = static_cast<std::size_t>(to * rate);
    for (std::size_t i = first; i < last; ++i) {
        const auto value = static_cast<double>(channels.at(channel).at(i));
        in += value * std::cos(step * static_cast<double>(i));
        quadrature += value * std::sin(step * static_cast<double>(i));
    }
    const double amplitude = 2 * std::hypot(in, quadrature) / static_cast<double>(last - first);
    return 20 * std::log10(std::max(amplitude, 1e-9));
}

DecodedAudio decodedAudio(const std::string& path, int stream) {
    const auto described = Probe(path).streams("audio").at(static_cast<std::size_t>(stream));
    DecodedAudio audio;
    audio.rate = static_cast<int>(number(described, "sample_rate"));
    audio.channels.resize(static_cast<std::size_t>(number(described, "channels")));
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", fmt::format("0:a:{}", stream), "-af",
                                   "aresample=async=1:first_pts=0", "-f", "f32le", "-"});
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        audio.channels[i % audio.channels.size()].push_back(samples[i]);
    }
    return audio;
}

std::vector<std::string> packetHashes(const std::string& path, const std::string& stream) {
    const auto json = nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams", stream,
                                                 "-show_packets", "-show_data_hash", "md5", path}));
    std::vector<std::string> hashes;
    for (const auto& packet : json.at("packets")) {
        hashes.push_back(text(packet, "data_hash"));
    }
    return hashes;
}

GreyFrame frameAt(const std::string& path, double time) {
    // A portable grey map: the size precedes the values.
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:v:0", "-vf",
                                   fmt::format("fps=100,select=gte(t\\,{})", time), "-frames:v", "1", "-pix_fmt",
                                   "gray", "-c:v", "pgm", "-f", "image2pipe", "-"});
    GreyFrame frame;
    int used = 0;
    if (std::sscanf(bytes.c_str(), "P5 %d %d 255%n", &frame.width, &frame.height, &used) != 2 || used == 0) {
        throw std::runtime_error("no frame");
    }
    for (auto i = static_cast<std::size_t>(used) + 1; i < bytes.size(); ++i) {
        frame.values.push_back(static_cast<unsigned char>(bytes[i]));
    }
    return frame;
}

std::vector<int> shownFrame(const std::string& path) {
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:v:0", "-frames:v", "1", "-vf",
                                   "scale=16:16:flags=area,format=gray", "-f", "rawvideo", "-"});
    std::vector<int> values;
    for (const char byte : bytes) {
        values.push_back(static_cast<unsigned char>(byte));
    }
    if (values.size() != 256) {
        throw std::runtime_error("no frame");
    }
    return values;
}

double difference(const std::vector<int>& a, const std::vector<int>& b) {
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        sum += std::abs(a[i] - b.at(i));
    }
    return sum / static_cast<double>(a.size());
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
}

}  // namespace krv::media::test
