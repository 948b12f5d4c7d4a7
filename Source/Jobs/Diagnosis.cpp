#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/Diagnosis.h>
#include <KRVQTProcessClient/Jobs/JobEngine.h>
#include <KRVQTProcessClient/Jobs/Media.h>
#include <KRVQTProcessClient/Jobs/Surroundings.h>

namespace krv {
namespace {

namespace fs = std::filesystem;

/// A folder for the conversion that is tried, removed with its contents at the end. Its path is empty if there is none.
class TrialFolder {
public:
    explicit TrialFolder(const std::string& parent)
        : path_(parent + "/krv-diagnosis-XXXXXX") {
        if (parent.empty() || !::mkdtemp(path_.data())) {
            path_.clear();
        }
    }
    ~TrialFolder() {
        if (!path_.empty()) {
            std::error_code ignored;
            fs::remove_all(path_, ignored);
        }
    }
    TrialFolder(const TrialFolder&) = delete;
    TrialFolder& operator=(const TrialFolder&) = delete;

    [[nodiscard]] fs::path path() const { return path_; }

private:
    std::string path_;
};

/// Appends a number in the byte order of WAV files.
template <typename Number>
void append(std::string& bytes, Number number) {
    for (std::size_t i = 0; i < sizeof number; ++i) {
        bytes.push_back(static_cast<char>(number >> (8 * i) & 0xFF));
    }
}

/// Returns a WAV file with a tenth of a second of silence.
std::string silence() {
    constexpr std::uint32_t kRate = 48000;
    constexpr std::uint16_t kBytesPerSample = 2;
    constexpr std::uint32_t kSize = kRate / 10 * kBytesPerSample;
    constexpr std::uint32_t kSizeOfHeader = 36;
    constexpr std::uint32_t kSizeOfFormat = 16;
    std::string file = "RIFF";
    append(file, kSizeOfHeader + kSize);
    file += "WAVEfmt ";
    append(file, kSizeOfFormat);
    append(file, std::uint16_t{1});  // uncompressed
    append(file, std::uint16_t{1});  // channel
    append(file, kRate);
    append(file, kRate * kBytesPerSample);
    append(file, kBytesPerSample);
    append(file, static_cast<std::uint16_t>(8 * kBytesPerSample));
    file += "data";
    append(file, kSize);
    return file.append(kSize, '\0');
}

Result<Converted> tryConversion(const Media& media, const std::string& parent) {
    const TrialFolder folder(parent);
    const fs::path source = folder.path() / "silence.wav";
    const std::string contents = silence();
    std::ofstream file(source, std::ios::binary);
    file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    file.close();
    if (folder.path().empty() || !file) {
        return Failure(Failure::Kind::Destination,
                       {.message = "The file for a trial cannot be written.",
                        .suggestion = "Set XDG_RUNTIME_DIR to a folder that this user can write to."});
    }
    ConvertOptions options;
    options.source = source;
    options.destination = folder.path() / "silence.m4a";
    options.type = VideoConversion::Type::AudioOnly;
    return media.convert(std::move(options)).wait();
}

}  // namespace

std::string_view Check::nameOf(State state) noexcept {
    constexpr std::array<std::string_view, 4> kNames{"good", "warning", "problem", "unknown"};
    return kNames.at(static_cast<std::size_t>(state));
}

Diagnosis diagnose(Seconds patience) {
    const Media media({.patience = patience});
    const Result<ServerStatus> before = media.serverStatus().wait();
    const Surroundings found = examineSurroundings(*JobEngine::launching().runner());
    const Result<Converted> converted = tryConversion(media, found.runtimeFolder);
    const Result<ServerStatus> after = media.serverStatus().wait();

    Diagnosis diagnosis{.works = converted.has_value(), .checks = checksOf(found)};
    for (Check& check : checksOfServer(found, before, after, ::getpid())) {
        diagnosis.checks.push_back(std::move(check));
    }
    diagnosis.checks.push_back(checkOfConversion(converted));
    return diagnosis;
}

}  // namespace krv
