#include "Subtitles.h"

#include <cmath>
#include <cstdio>
#include <ostream>
#include <sstream>

#include <fmt/format.h>

namespace krv::media::test {
namespace {

std::string clock(double seconds) {
    const int ms = static_cast<int>(std::lround(seconds * 1000));
    return fmt::format("{:02}:{:02}:{:02},{:03}", ms / 3'600'000, ms / 60'000 % 60, ms / 1000 % 60, ms % 1000);
}

std::string bigEndian(std::size_t value, int bytes) {
    std::string result;
    for (int i = bytes - 1; i >= 0; --i) {
        result += static_cast<char>(value >> (8 * i) & 0xff);
    }
    return result;
}

std::string two(int value) {
    return bigEndian(static_cast<std::size_t>(value), 2);
}

std::string segment(double time, char kind, const std::string& content) {
    constexpr double kTicks = 90000;
    return "PG" + bigEndian(static_cast<std::size_t>(std::lround(time * kTicks)), 4) + bigEndian(0, 4) + kind +
           bigEndian(content.size(), 2) + content;
}

/// One run of colour 1 in each row.
std::string rowsOf(const Bitmap& bitmap) {
    std::string rows;
    for (int y = 0; y < bitmap.height; ++y) {
        rows += '\0' + two(0xc000 | bitmap.width) + '\1' + std::string(2, '\0');
    }
    return rows;
}

std::string displaySet(int width, int height, const DisplaySet& set, int number) {
    const auto& bitmap = set.bitmap;
    std::string composition = two(width) + two(height) + '\x10' + two(number) + '\x80' + std::string(2, '\0');
    composition += static_cast<char>(bitmap ? 1 : 0);
    std::string bytes;
    if (bitmap) {
        composition += two(0) + std::string(2, '\0') + two(bitmap->x) + two(bitmap->y);
        const std::string window =
            "\1" + std::string(1, '\0') + two(bitmap->x) + two(bitmap->y) + two(bitmap->width) + two(bitmap->height);
        const std::string white = std::string(2, '\0') + "\1\xeb\x80\x80\xff";
        const std::string rows = rowsOf(*bitmap);
        const std::string object =
            two(0) + '\0' + '\xc0' + bigEndian(rows.size() + 4, 3) + two(bitmap->width) + two(bitmap->height) + rows;
        bytes =
            segment(set.time, '\x17', window) + segment(set.time, '\x14', white) + segment(set.time, '\x15', object);
    }
    return segment(set.time, '\x16', composition) + bytes + segment(set.time, '\x80', "");
}

}  // namespace

void PrintTo(const TextLine& line, std::ostream* out) {
    *out << fmt::format("{:.3f} to {:.3f} “{}”", line.start, line.end, line.text);
}

std::string subRip(const std::vector<TextLine>& lines) {
    std::string result;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        result +=
            fmt::format("{}\n{} --> {}\n{}\n\n", i + 1, clock(lines[i].start), clock(lines[i].end), lines[i].text);
    }
    return result;
}

std::vector<TextLine> linesOf(const std::string& path, int track) {
    std::istringstream text(
        run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", fmt::format("0:s:{}", track), "-f", "srt", "-"}));
    std::vector<TextLine> lines;
    for (std::string line; std::getline(text, line);) {
        int h = 0, m = 0, s = 0, ms = 0, h2 = 0, m2 = 0, s2 = 0, ms2 = 0;
        if (std::sscanf(line.c_str(), "%d:%d:%d,%d --> %d:%d:%d,%d", &h, &m, &s, &ms, &h2, &m2, &s2, &ms2) == 8) {
            const int start = h * 3600'000 + m * 60'000 + s * 1000 + ms;
            const int end = h2 * 3600'000 + m2 * 60'000 + s2 * 1000 + ms2;
            std::getline(text, line);
            lines.push_back({start / 1000.0, end / 1000.0, line});
        }
    }
    return lines;
}

std::string bluRaySubtitles(int width, int height, const std::vector<DisplaySet>& sets) {
    std::string bytes;
    for (std::size_t i = 0; i < sets.size(); ++i) {
        bytes += displaySet(width, height, sets[i], static_cast<int>(i));
    }
    return bytes;
}

OutputPath withSubtitles(const std::string& movie, const std::vector<std::string>& files, const std::string& extension,
                         const std::vector<std::string>& options) {
    OutputPath output(extension);
    std::vector<std::string> command{KRV_FFMPEG, "-v", "error", "-y", "-i", movie};
    for (const std::string& file : files) {
        command.insert(command.end(), {"-i", file});
    }
    command.insert(command.end(), {"-map", "0:v", "-map", "0:a?"});
    for (std::size_t i = 0; i < files.size(); ++i) {
        command.insert(command.end(), {"-map", fmt::format("{}:s", i + 1)});
    }
    command.insert(command.end(), {"-c", "copy"});
    command.insert(command.end(), options.begin(), options.end());
    command.push_back(output.path());
    run(command);
    return output;
}

OutputPath fileWith(const std::string& extension, const std::string& content) {
    OutputPath path(extension);
    writeFile(path.path(), content);
    return path;
}

std::vector<SubtitlePacket> subtitlePackets(const std::string& path, int track) {
    const auto json =
        nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams",
                                   fmt::format("s:{}", track), "-show_packets", "-show_data_hash", "md5", path}));
    std::vector<SubtitlePacket> packets;
    for (const auto& packet : json.at("packets")) {
        packets.push_back({number(packet, "pts_time"), number(packet, "duration_time"),
                           static_cast<int>(number(packet, "size")), text(packet, "data_hash")});
    }
    return packets;
}

}  // namespace krv::media::test
