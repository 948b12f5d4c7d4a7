#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <MediaServer/Media/Encode.h>
#include <MediaServer/Media/Foundation/FourCC.h>

namespace krv::media::test {

/// The path of a movie that scripts/make-test-media has made.
std::string testMedia(const std::string& name);

/// An open descriptor, closed at the end.
class Descriptor {
public:
    explicit Descriptor(int number);
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&&) = delete;
    [[nodiscard]] int number() const { return number_; }

private:
    int number_;
};

/// Opens a file to be read. Throws std::system_error.
Descriptor openToRead(const std::string& path);

/// An empty file of a unique name that is removed at the end.
class OutputPath {
public:
    explicit OutputPath(const std::string& extension);
    ~OutputPath();
    OutputPath(OutputPath&& other) noexcept;
    OutputPath& operator=(OutputPath&&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// Remembers all that was reported. Each operation gets its own; like the worker before an operation, the constructor
/// clears FFmpeg's log.
class RecordingSink : public ProgressSink {
public:
    RecordingSink();
    void progress(double fraction) noexcept override { fractions.push_back(fraction); }
    std::vector<double> fractions;
};

/// What a test asks for; the files are opened by convert().
struct Conversion {
    std::string source{};  ///< a path
    std::string extension = "mp4";
    std::int32_t type = 1;
    bool flatten = false;
    std::optional<VideoRequest> video{};
    std::optional<AudioRequest> audio{};
};

/// Converts into a file of its own. Throws what encode() throws.
OutputPath convert(const Conversion& conversion, ProgressSink& sink);
OutputPath convert(const Conversion& conversion);

/// The failure that a conversion ends with; none if it succeeds, or leaves anything else.
std::optional<Failure> failureOf(const Conversion& conversion);

/// Runs a program and returns what it printed. Throws std::runtime_error if it fails.
std::string run(const std::vector<std::string>& arguments);

/// What ffprobe says about a file: streams (with decoded frames counted), format and chapters.
class Probe {
public:
    explicit Probe(const std::string& path);
    explicit Probe(const OutputPath& output)
        : Probe(output.path()) {}

    [[nodiscard]] const nlohmann::json& all() const { return json_; }
    /// The streams of a type ("video", "audio", "subtitle"), cover pictures apart.
    [[nodiscard]] std::vector<nlohmann::json> streams(const std::string& type) const;
    /// The first video stream that is not a cover picture, and the first audio stream. Throw if there is
    /// none.
    [[nodiscard]] nlohmann::json video() const;
    [[nodiscard]] nlohmann::json audio() const;
    [[nodiscard]] std::vector<nlohmann::json> covers() const;
    [[nodiscard]] double duration() const;
    [[nodiscard]] std::string tag(const std::string& key) const;

private:
    nlohmann::json json_;
};

/// Text and number fields of ffprobe's answers; empty and 0 where they are missing.
std::string text(const nlohmann::json& object, const std::string& key);
double number(const nlohmann::json& object, const std::string& key);
/// A tag of a stream or chapter; the case of its key does not matter.
std::string tagOf(const nlohmann::json& object, const std::string& key);

/// The times at which the pictures of the first video stream are shown, from the movie's start.
std::vector<double> frameTimes(const std::string& path);
/// The brightness, 0 to 255, of each picture of the first video stream.
std::vector<int> frameBrightness(const std::string& path);
/// When the picture turns bright and the sound loud for the first time after that, in seconds from the
/// movie's start.
double flashTime(const std::string& path, double after = 0);
double beepTime(const std::string& path, double after = 0);
/// The length of the first audio stream's sound, decoded, in seconds.
double audioLength(const std::string& path);
/// The sound of an audio stream, decoded, in place on the movie's time.
struct DecodedAudio {
    int rate = 0;
    std::vector<std::vector<float>> channels;

    /// The largest absolute value of any channel.
    [[nodiscard]] double peak(double from, double to) const;
    /// The level of a pure tone in one channel during a time in seconds, in dB of a full-scale sine.
    [[nodiscard]] double level(std::size_t channel, double frequency, double from, double to) const;
};
DecodedAudio decodedAudio(const std::string& path, int stream = 0);
/// A hash of the content of each packet of a stream ("v:0", "a:1"), as it is stored.
std::vector<std::string> packetHashes(const std::string& path, const std::string& stream);
/// The picture that is shown at a time in seconds, upright and with the shape of its pixels left aside: grey
/// values, row after row.
struct GreyFrame {
    int width = 0;
    int height = 0;
    std::vector<int> values;
    [[nodiscard]] int at(int x, int y) const {
        return values.at(static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x));
    }
};
GreyFrame frameAt(const std::string& path, double time);
/// The first picture as it is shown (upright), shrunk to 16 x 16 grey values.
std::vector<int> shownFrame(const std::string& path);
/// How far two pictures are apart: the mean difference of their grey values.
double difference(const std::vector<int>& a, const std::vector<int>& b);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace krv::media::test
