#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include <MediaServer/Media/Container/DroppedTracks.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Container/TrackNames.h>

namespace krv::media {
namespace {

/// The flags whose loss a person would notice. "Default" is left out: where there is only one track, it says nothing.
constexpr int kNoticedFlags = AV_DISPOSITION_DUB | AV_DISPOSITION_ORIGINAL | AV_DISPOSITION_COMMENT |
                              AV_DISPOSITION_LYRICS | AV_DISPOSITION_KARAOKE | AV_DISPOSITION_FORCED |
                              AV_DISPOSITION_HEARING_IMPAIRED | AV_DISPOSITION_VISUAL_IMPAIRED |
                              AV_DISPOSITION_DESCRIPTIONS;

constexpr int kMatroskaFlags = AV_DISPOSITION_DUB | AV_DISPOSITION_ORIGINAL | AV_DISPOSITION_COMMENT |
                               AV_DISPOSITION_FORCED | AV_DISPOSITION_HEARING_IMPAIRED |
                               AV_DISPOSITION_VISUAL_IMPAIRED | AV_DISPOSITION_DESCRIPTIONS;

constexpr int kMPEG4Flags = AV_DISPOSITION_DUB | AV_DISPOSITION_COMMENT | AV_DISPOSITION_FORCED |
                            AV_DISPOSITION_HEARING_IMPAIRED | AV_DISPOSITION_VISUAL_IMPAIRED |
                            AV_DISPOSITION_DESCRIPTIONS;

/// What FFmpeg's muxer stores of a track besides its packets, and of the movie.
struct Properties {
    std::string_view extension;
    bool title;
    bool language;
    bool stereo3D;
    bool chapters;
    int flags;
};

constexpr std::array kProperties{
    Properties{"mov", true, true, false, true, 0},
    Properties{"mp4", true, true, true, true, kMPEG4Flags},
    Properties{"m4v", true, true, true, true, kMPEG4Flags},
    Properties{"m4a", false, true, false, true, 0},
    Properties{"mkv", true, true, true, true, kMatroskaFlags},
    Properties{"mka", true, true, true, true, kMatroskaFlags},
    Properties{"webm", true, true, true, true, AV_DISPOSITION_FORCED},
    Properties{"ogg", true, true, false, true, 0},
    Properties{"avi", true, false, false, false, 0},
    Properties{"ts", false, true, false, false, AV_DISPOSITION_HEARING_IMPAIRED},
    Properties{"mp3", false, true, false, true, 0},
    Properties{"flac", false, true, false, true, 0},
    Properties{"wav", false, true, false, true, 0},
};

const Properties& propertiesOf(const Container& container) {
    static constexpr Properties kNone{};
    const auto found = std::find_if(kProperties.begin(), kProperties.end(),
                                    [&](const Properties& each) { return each.extension == container.extension; });
    return found == kProperties.end() ? kNone : *found;
}

std::string tag(const AVStream& stream, const char* key) {
    const AVDictionaryEntry* const entry = av_dict_get(stream.metadata, key, nullptr, 0);
    return entry ? entry->value : "";
}

/// Whether the muxer, or nobody, needs the track: the demuxer has turned it into tags or chapters.
bool isRepresentedOtherwise(const AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    if (codec.codec_type != AVMEDIA_TYPE_DATA) {
        return false;
    }
    const bool timeCode = codec.codec_tag == MKTAG('t', 'm', 'c', 'd');
    const bool chapterTitles = codec.codec_id == AV_CODEC_ID_BIN_DATA && codec.codec_tag == MKTAG('t', 'e', 'x', 't');
    return timeCode || chapterTitles;
}

std::string namesOfFlags(int flags) {
    std::string names;
    for (unsigned bit = 0; bit < 31; ++bit) {
        const int flag = static_cast<int>(1U << bit);
        if (flags & flag) {
            const char* const name = av_disposition_to_string(flag);
            names += fmt::format("{}{}", names.empty() ? "" : ", ", name ? name : "?");
        }
    }
    std::replace(names.begin(), names.end(), '_', ' ');
    return names;
}

}  // namespace

DroppedTracks::DroppedTracks(const Source& source, const Container& container, std::size_t number)
    : source_(source)
    , container_(container)
    , number_(number) {}

void DroppedTracks::add(std::size_t stream, std::string kind, std::string reason) {
    const AVStream& from = source_.stream(stream);
    list_.push_back({.source = number_,
                     .index = static_cast<int>(stream),
                     .kind = std::move(kind),
                     .codec = codecOf(from),
                     .language = languageOf(from),
                     .reason = std::move(reason)});
}

void DroppedTracks::add(std::size_t stream, std::string reason) {
    const AVStream& from = source_.stream(stream);
    if (!isRepresentedOtherwise(from)) {
        add(stream, kindOf(from), reason.empty() ? defaultReason(stream) : std::move(reason));
    }
}

std::string DroppedTracks::defaultReason(std::size_t stream) const {
    const AVStream& from = source_.stream(stream);
    const AVCodecID codec = from.codecpar->codec_id;
    const AVMediaType type = from.codecpar->codec_type;
    const std::string files = fmt::format("{} files", container_.extension);
    if (isCover(from)) {
        return container_.cover == CoverArt::None ? files + " cannot hold cover art"
                                                  : fmt::format("a cover in {} format is not supported", codecOf(from));
    }
    if (type == AVMEDIA_TYPE_ATTACHMENT) {
        return files + " cannot hold attached files";
    }
    if (type == AVMEDIA_TYPE_SUBTITLE) {
        const AVCodecDescriptor* const descriptor = avcodec_descriptor_get(codec);
        const bool bitmap = descriptor && (descriptor->props & AV_CODEC_PROP_BITMAP_SUB) != 0;
        if (container_.textSubtitles == AV_CODEC_ID_NONE) {
            return fmt::format("{} cannot hold subtitles in {} format", files, codecOf(from));
        }
        return bitmap ? files + " cannot hold bitmap subtitles"
                      : fmt::format("subtitles in {} format cannot be converted", codecOf(from));
    }
    if (type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO) {
        const bool video = type == AVMEDIA_TYPE_VIDEO;
        if (codec == AV_CODEC_ID_NONE) {
            return "its codec is unknown";
        }
        if ((video ? container_.defaultVideo : container_.defaultAudio) == 0) {
            return fmt::format("{} cannot hold {}", files, video ? "video" : "audio");
        }
        if (const auto usable = usableStreams(source_, type);
            std::find(usable.begin(), usable.end(), stream) == usable.end()) {
            return video ? "its frame size is unknown" : "its sample rate or channels are unknown";
        }
        if (!video && container_.singleTrack) {
            return files + " hold one audio track only";
        }
        return fmt::format("only one {} track is written", video ? "video" : "audio");
    }
    return files + " cannot hold this kind of timed data";
}

void DroppedTracks::addLostProperties(std::size_t stream) {
    const AVStream& from = source_.stream(stream);
    const Properties& kept = propertiesOf(container_);
    if (!kept.title && !tag(from, "title").empty() && !isCover(from)) {
        add(stream, "title", fmt::format("{} files cannot store titles of tracks", container_.extension));
    }
    if (const std::string language = languageOf(from); !kept.language && !language.empty() && language != "und") {
        add(stream, "language", fmt::format("{} files cannot store languages of tracks", container_.extension));
    }
    if (const int lost = from.disposition & kNoticedFlags & ~kept.flags) {
        add(stream, "flag",
            fmt::format("{} files cannot store the flags: {}", container_.extension, namesOfFlags(lost)));
    }
    if (!kept.stereo3D && av_stream_get_side_data(&from, AV_PKT_DATA_STEREO3D, nullptr)) {
        add(stream, "stereo3D", fmt::format("{} files cannot store the stereoscopic layout", container_.extension));
    }
}

void DroppedTracks::addEncodedAlpha(std::size_t stream, std::string reason) {
    if (hasAlpha(source_.stream(stream))) {
        add(stream, "alpha", reason.empty() ? "the encoder does not support transparency" : std::move(reason));
    }
}

void DroppedTracks::addCopiedAlpha(std::size_t stream) {
    const std::string_view muxer = container_.muxer;
    if (hasAlphaBesidePackets(source_.stream(stream)) && muxer != "matroska" && muxer != "webm") {
        add(stream, "alpha", fmt::format("{} files cannot hold the transparency of this codec", container_.extension));
    }
}

void DroppedTracks::addLostChannels(std::size_t stream, int kept) {
    const int channels = source_.stream(stream).codecpar->ch_layout.nb_channels;
    if (kept < channels) {
        add(stream, "channels",
            fmt::format("the codec cannot hold {} channels, so they are mixed down to {}", channels, kept));
    }
}

void DroppedTracks::addChapters() {
    if (source_.format().nb_chapters > 0 && !propertiesOf(container_).chapters) {
        list_.push_back({.source = number_,
                         .kind = "chapters",
                         .reason = fmt::format("{} files cannot store chapters", container_.extension)});
    }
}

}  // namespace krv::media
