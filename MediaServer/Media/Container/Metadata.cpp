#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>

extern "C" {
#include <libavutil/avstring.h>
}

#include <MediaServer/Media/Container/Language.h>
#include <MediaServer/Media/Container/Metadata.h>

namespace krv::media {
namespace {

/// Tags that describe the source file itself and are wrong for any other file, in small letters.
constexpr std::array<std::string_view, 7> kFileTags{"major_brand", "minor_version",    "compatible_brands", "encoder",
                                                    "vendor_id",   "_statistics_tags", "duration"};
constexpr std::array<std::string_view, 5> kStatistics{"bps", "duration-", "number_of_frames", "number_of_bytes",
                                                      "_statistics_"};

/// Returns the key of a tag as cameras write it. Matroska stores all keys in capital letters.
std::string originalKey(std::string key) {
    constexpr std::string_view kCamera = "com.apple.quicktime.";
    if (av_strncasecmp(key.c_str(), kCamera.data(), kCamera.size()) != 0) {
        return key;
    }
    std::transform(key.begin(), key.end(), key.begin(), [](char c) { return static_cast<char>(av_tolower(c)); });
    if (constexpr std::string_view kPlace = ".iso6709"; key.ends_with(kPlace)) {
        key.replace(key.size() - kPlace.size(), kPlace.size(), ".ISO6709");
    }
    return key;
}

void copyChapters(const AVFormatContext& from, AVFormatContext& to, std::int64_t shift, std::int64_t length) {
    if (from.nb_chapters == 0) {
        return;
    }
    auto** chapters = static_cast<AVChapter**>(av_calloc(from.nb_chapters, sizeof(AVChapter*)));
    to.chapters = notNull(chapters);
    for (unsigned i = 0; i < from.nb_chapters; ++i) {
        const AVChapter& chapter = *from.chapters[i];
        const std::int64_t offset = av_rescale_q(shift, kMicroseconds, chapter.time_base);
        if (chapter.end != AV_NOPTS_VALUE && chapter.end + offset <= 0) {
            continue;
        }
        const std::int64_t last = av_rescale_q(length, kMicroseconds, chapter.time_base);
        if (chapter.start + offset >= last) {
            continue;
        }
        auto* copy = static_cast<AVChapter*>(notNull(av_mallocz(sizeof(AVChapter))));
        chapters[to.nb_chapters++] = copy;
        copy->id = chapter.id;
        copy->time_base = chapter.time_base;
        copy->start = std::max<std::int64_t>(0, chapter.start + offset);
        copy->end = chapter.end == AV_NOPTS_VALUE ? chapter.end : std::min(chapter.end + offset, last);
        copyTags(chapter.metadata, &copy->metadata);
    }
}

void copySideData(const AVStream& from, AVStream& to, AVPacketSideDataType type) {
    std::size_t size = 0;
    const std::uint8_t* data = av_stream_get_side_data(&from, type, &size);
    if (data) {
        std::memcpy(notNull(av_stream_new_side_data(&to, type, size)), data, size);
    }
}

}  // namespace

bool describesTheFile(std::string key) {
    std::transform(key.begin(), key.end(), key.begin(), [](char c) { return static_cast<char>(av_tolower(c)); });
    return std::find(kFileTags.begin(), kFileTags.end(), key) != kFileTags.end() ||
           std::any_of(kStatistics.begin(), kStatistics.end(),
                       [&key](std::string_view start) { return key.starts_with(start); });
}

void copyTags(const AVDictionary* from, AVDictionary** to) {
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(from, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        if (!describesTheFile(entry->key)) {
            av_dict_set(to, originalKey(entry->key).c_str(), entry->value, 0);
        }
    }
}

void copyMovieMetadata(const Source& source, OutputFile& output) {
    copyTags(source.format().metadata, &output.format().metadata);
    copyChapters(source.format(), output.format(), source.timeShift(),
                 source.part() ? source.part()->length() : Part::kEnd);
}

void addChapters(const std::vector<Chapter>& chapters, std::int64_t end, OutputFile& output) {
    AVFormatContext& format = output.format();
    format.chapters = static_cast<AVChapter**>(notNull(av_calloc(chapters.size(), sizeof(AVChapter*))));
    for (std::size_t i = 0; i < chapters.size(); ++i) {
        auto* chapter = static_cast<AVChapter*>(notNull(av_mallocz(sizeof(AVChapter))));
        format.chapters[format.nb_chapters++] = chapter;
        chapter->id = static_cast<std::int64_t>(i) + 1;
        chapter->time_base = kMicroseconds;
        chapter->start = chapters[i].start;
        chapter->end = i + 1 < chapters.size() ? chapters[i + 1].start : end;
        av_dict_set(&chapter->metadata, "title", chapters[i].title.c_str(), 0);
    }
}

std::vector<Chapter> chaptersOf(const Source& source) {
    std::vector<Chapter> chapters;
    const AVFormatContext& format = source.format();
    for (unsigned i = 0; i < format.nb_chapters; ++i) {
        const AVChapter& chapter = *format.chapters[i];
        const auto onMovieTime = [&](std::int64_t time) {
            return av_rescale_q(time, chapter.time_base, kMicroseconds) + source.timeShift();
        };
        const std::int64_t start = std::max<std::int64_t>(0, onMovieTime(chapter.start));
        const std::int64_t end = chapter.end != AV_NOPTS_VALUE ? onMovieTime(chapter.end) : start;
        const bool hidden = chapter.end != AV_NOPTS_VALUE && end <= 0;
        if (hidden || (!chapters.empty() && start <= chapters.back().start)) {
            continue;
        }
        const AVDictionaryEntry* const title = av_dict_get(chapter.metadata, "title", nullptr, 0);
        chapters.push_back({start, title ? title->value : "", std::max(start, end)});
    }
    return chapters;
}

void copyTrackMetadata(const AVStream& from, AVStream& to, const Container& container) {
    copyTags(from.metadata, &to.metadata);
    const AVDictionaryEntry* language = av_dict_get(to.metadata, "language", nullptr, 0);
    if (language && container.extension == "mov") {
        av_dict_set(&to.metadata, "language", quickTimeLanguage(language->value).c_str(), 0);
    }
    to.disposition = from.disposition;
}

void copyVideoSideData(const AVStream& from, AVStream& to, bool displayMatrix) {
    if (displayMatrix) {
        copySideData(from, to, AV_PKT_DATA_DISPLAYMATRIX);
    }
    copySideData(from, to, AV_PKT_DATA_SPHERICAL);
    copySideData(from, to, AV_PKT_DATA_STEREO3D);
}

void copyAllSideData(const AVStream& from, AVStream& to) {
    for (int i = 0; i < from.nb_side_data; ++i) {
        copySideData(from, to, from.side_data[i].type);
    }
}

}  // namespace krv::media
