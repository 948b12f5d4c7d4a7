#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <MediaServer/Media/Encode.h>
#include <MediaServer/Media/Foundation/FourCC.h>

namespace krv::media::test {

/// Returns the path of a movie that scripts/make-test-media has made.
std::string testMedia(const std::string& name);

/// Owns an open descriptor.
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

/// Opens a file for reading. Throws std::system_error.
Descriptor openToRead(const std::string& path);

/// Creates an empty file with a unique name. The destructor removes it.
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

/// Records all reports of one operation. The constructor clears FFmpeg's log, as the worker does before an operation.
class RecordingSink : public ProgressSink {
public:
    RecordingSink();
    void progress(double fraction) noexcept override { fractions.push_back(fraction); }
    std::vector<double> fractions;
};

/// A conversion that a test asks for. convert() opens the files.
struct Conversion {
    std::string source{};  ///< a path
    std::string extension = "mp4";
    std::int32_t type = 1;
    bool flatten = false;
    std::optional<VideoRequest> video{};
    std::optional<AudioRequest> audio{};
    bool withFont = true;  ///< whether the machine has a font
};

/// Convert into a new file. Throw what encode() throws.
OutputPath convert(const Conversion& conversion, ProgressSink& sink);
OutputPath convert(const Conversion& conversion);

/// Converts into a throw-away file and returns the report.
MovieReport reportOf(const Conversion& conversion);

/// Returns the failure of a conversion, or nothing if it succeeds.
std::optional<Failure> failureOf(const Conversion& conversion);

/// Runs a program and returns its standard output. Throws std::runtime_error if it fails.
std::string run(const std::vector<std::string>& arguments);

/// The output of ffprobe for a file: streams (with the number of decoded frames), format and chapters.
class Probe {
public:
    explicit Probe(const std::string& path);
    explicit Probe(const OutputPath& output)
        : Probe(output.path()) {}

    [[nodiscard]] const nlohmann::json& all() const { return json_; }
    /// Returns the streams of a type ("video", "audio", "subtitle") without cover pictures.
    [[nodiscard]] std::vector<nlohmann::json> streams(const std::string& type) const;
    /// Return the first video stream that is not a cover picture, and the first audio stream. Throw if there is none.
    [[nodiscard]] nlohmann::json video() const;
    [[nodiscard]] nlohmann::json audio() const;
    [[nodiscard]] std::vector<nlohmann::json> covers() const;
    [[nodiscard]] double duration() const;
    [[nodiscard]] std::string tag(const std::string& key) const;

private:
    nlohmann::json json_;
};

/// Return a field of ffprobe's output as text or number; empty or 0 if it is missing.
std::string text(const nlohmann::json& object, const std::string& key);
double number(const nlohmann::json& object, const std::string& key);
/// Returns a tag of a stream or chapter. Ignores the case of the key.
std::string tagOf(const nlohmann::json& object, const std::string& key);

/// Returns the times of the frames of the first video stream, from the movie's start.
std::vector<double> frameTimes(const std::string& path);
/// Returns the brightness, 0 to 255, of each frame of the first video stream.
std::vector<int> frameBrightness(const std::string& path);
/// Return when the video first turns bright, and the audio loud, after a time. In seconds from the movie's start.
double flashTime(const std::string& path, double after = 0);
double beepTime(const std::string& path, double after = 0);
/// Returns the length of the first audio stream, decoded, in seconds.
double audioLength(const std::string& path);
/// The decoded samples of an audio stream, aligned with the movie's time.
struct DecodedAudio {
    int rate = 0;
    std::vector<std::vector<float>> channels;

    /// Returns the largest absolute value of any channel.
    [[nodiscard]] double peak(double from, double to) const;
    /// Returns the level of a pure tone in one channel between two times in seconds, in dB of a full-scale sine.
    [[nodiscard]] double level(std::size_t channel, double frequency, double from, double to) const;
};
DecodedAudio decodedAudio(const std::string& path, int stream = 0);
/// Returns a hash of the stored content of each packet of a stream ("v:0", "a:1").
std::vector<std::string> packetHashes(const std::string& path, const std::string& stream);
/// The frame that is shown at a time in seconds: upright, in stored pixels, as grey values row after row.
struct GreyFrame {
    int width = 0;
    int height = 0;
    std::vector<int> values;
    [[nodiscard]] int at(int x, int y) const {
        return values.at(static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x));
    }
};
GreyFrame frameAt(const std::string& path, double time);
/// Returns the first frame as it is shown (upright), scaled down to 16 x 16 grey values.
std::vector<int> shownFrame(const std::string& path);
/// Returns the mean difference of the grey values of two frames.
double difference(const std::vector<int>& a, const std::vector<int>& b);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace krv::media::test
