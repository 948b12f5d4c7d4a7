#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Subtitles/BitmapRenderer.h>
#include <MediaServer/Media/Subtitles/BurnIn.h>
#include <MediaServer/Media/Subtitles/TextRenderer.h>

namespace krv::media {
namespace {

/// Restricts a source before it is read.
Source& restricted(Source& source, const std::optional<Part>& part) {
    if (part) {
        source.restrictTo(*part);
    }
    return source;
}

/// In a format with an index, only the subtitles are read from the file. But only the video shows how the clock of a
/// recording that was joined jumps, and where a part begins.
std::vector<std::size_t> streamsToRead(const Source& source, const BurnIn::Request& request) {
    const bool jumps = (source.format().iformat->flags & AVFMT_TS_DISCONT) != 0;
    return jumps || request.part ? std::vector{request.video, request.track} : std::vector{request.track};
}

}  // namespace

BurnIn::BurnIn(const Request& request, const FrameLayout& layout, Progress& progress)
    : source_(request.descriptor, request.path, progress)
    , reader_(restricted(source_, request.part), streamsToRead(source_, request))
    , decoder_(source_.stream(request.track))
    , track_(static_cast<int>(request.track))
    , layout_(layout) {
    Overlay::requireDrawable(layout.pixels);
    const AVCodecContext& codec = decoder_.context();
    if (!isTextSubtitle(codec.codec_id)) {
        renderer_ = std::make_unique<BitmapRenderer>(layout);
        return;
    }
    const std::vector<Font> fonts = fontsOfMovie();
    if (fonts.empty() && request.font.data.empty()) {
        throw Failure({.cause = FailureCause::UnsupportedSetting,
                       .subject = "burnInSubtitleTrack",
                       .detail = "needs a font, and none of the usual ones is installed"});
    }
    const std::string_view styles(reinterpret_cast<const char*>(codec.subtitle_header),
                                  codec.subtitle_header ? static_cast<std::size_t>(codec.subtitle_header_size) : 0);
    renderer_ = std::make_unique<TextRenderer>(styles, fonts, request.font, layout);
}

std::vector<Font> BurnIn::fontsOfMovie() const {
    std::vector<Font> fonts;
    for (std::size_t i = 0; i < source_.streamCount(); ++i) {
        const AVStream& stream = source_.stream(i);
        const AVCodecParameters& file = *stream.codecpar;
        const AVDictionaryEntry* const name = av_dict_get(stream.metadata, "filename", nullptr, 0);
        const bool font = file.codec_id == AV_CODEC_ID_TTF || file.codec_id == AV_CODEC_ID_OTF ||
                          (name && av_match_ext(name->value, "ttf,otf,ttc"));
        if (file.codec_type == AVMEDIA_TYPE_ATTACHMENT && font && file.extradata_size > 0) {
            fonts.push_back(
                {{reinterpret_cast<const char*>(file.extradata), static_cast<std::size_t>(file.extradata_size)},
                 name ? name->value : ""});
        }
    }
    return fonts;
}

void BurnIn::add(const Subtitle& subtitle) {
    latest_ = std::max(latest_, subtitle.start);
    changes_.insert(subtitle.start);
    if (subtitle.end != Subtitle::kOpen) {
        changes_.insert(subtitle.end);
    }
    renderer_->add(subtitle);
}

// Reads until a subtitle is later than a time: then all up to this time are known.
void BurnIn::readUntil(std::int64_t time) {
    const PacketPtr packet = newPacket();
    while (!ended_ && latest_ <= time) {
        if (!reader_.read(*packet)) {
            ended_ = true;
        } else if (packet->stream_index == track_) {
            decoder_.push(*packet, [this](const Subtitle& subtitle) { add(subtitle); });
        }
    }
}

std::vector<std::int64_t> BurnIn::changesBetween(std::int64_t after, std::int64_t before) {
    readUntil(before);
    changes_.erase(changes_.begin(), changes_.upper_bound(after));
    return {changes_.begin(), changes_.lower_bound(before)};
}

void BurnIn::draw(AVFrame& frame, std::int64_t time) {
    readUntil(time);
    if (renderer_->render(time, images_)) {
        overlays_.clear();
        for (const OverlayImage& image : images_) {
            overlays_.emplace_back(image, layout_);
        }
    }
    if (overlays_.empty()) {
        return;
    }
    if (av_frame_make_writable(&frame) < 0) {
        throw std::bad_alloc();
    }
    for (const Overlay& overlay : overlays_) {
        overlay.draw(frame);
    }
}

}  // namespace krv::media
