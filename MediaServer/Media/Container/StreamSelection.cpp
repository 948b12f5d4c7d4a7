#include <string_view>

#include <MediaServer/Media/Container/StreamSelection.h>

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace krv::media {
namespace {

bool known(const AVStream& stream) {
    const AVCodecParameters& parameters = *stream.codecpar;
    switch (parameters.codec_type) {
    case AVMEDIA_TYPE_VIDEO:
        return parameters.codec_id != AV_CODEC_ID_NONE && parameters.width > 0 && parameters.height > 0;
    case AVMEDIA_TYPE_AUDIO:
        return parameters.codec_id != AV_CODEC_ID_NONE && parameters.sample_rate > 0 &&
               parameters.ch_layout.nb_channels > 0;
    default:
        return parameters.codec_id != AV_CODEC_ID_NONE;
    }
}

}  // namespace

bool isCopyableCover(const AVStream& stream) noexcept {
    const AVCodecID codec = stream.codecpar->codec_id;
    const bool picture = codec == AV_CODEC_ID_MJPEG || codec == AV_CODEC_ID_PNG;
    return isCover(stream) && picture && stream.attached_pic.size > 0;
}

bool hasAlphaBesidePackets(const AVStream& stream) noexcept {
    const AVCodecID codec = stream.codecpar->codec_id;
    const AVDictionaryEntry* const mode = av_dict_get(stream.metadata, "alpha_mode", nullptr, 0);
    return (codec == AV_CODEC_ID_VP8 || codec == AV_CODEC_ID_VP9) && mode && std::string_view(mode->value) == "1";
}

bool hasAlpha(const AVStream& stream) noexcept {
    const auto format = static_cast<AVPixelFormat>(stream.codecpar->format);
    const AVPixFmtDescriptor* const pixels = av_pix_fmt_desc_get(format);
    return (pixels && (pixels->flags & AV_PIX_FMT_FLAG_ALPHA)) || hasAlphaBesidePackets(stream);
}

bool isTextSubtitle(AVCodecID codec) noexcept {
    const AVCodecDescriptor* const descriptor = avcodec_descriptor_get(codec);
    return descriptor && (descriptor->props & AV_CODEC_PROP_TEXT_SUB) != 0;
}

std::vector<std::size_t> usableStreams(const Source& source, AVMediaType kind) {
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        const AVStream& stream = source.stream(i);
        if (stream.codecpar->codec_type == kind && !isCover(stream) && known(stream)) {
            found.push_back(i);
        }
    }
    return found;
}

std::optional<std::size_t> defaultOrFirst(const Source& source, const std::vector<std::size_t>& indices) {
    for (const std::size_t index : indices) {
        if ((source.stream(index).disposition & AV_DISPOSITION_DEFAULT) != 0) {
            return index;
        }
    }
    return indices.empty() ? std::nullopt : std::optional(indices.front());
}

double Source::bytePosition() const noexcept {
    return size_ > 0 ? std::min(static_cast<double>(bytesRead_) / static_cast<double>(size_), 1.0) : 0;
}

double Source::position() const noexcept {
    if (ended_) {
        return 1;
    }
    const bool isGuess = format_->duration_estimation_method != AVFMT_DURATION_FROM_STREAM;
    if (duration_ > 0 && !isGuess) {
        return static_cast<double>(reached_ - start_) / static_cast<double>(duration_);
    }
    const std::int64_t bytes = bytesReached_ > 0 ? bytesReached_ : avio_tell(io_.context());
    return size_ > 0 ? static_cast<double>(bytes) / static_cast<double>(size_) : 0;
}

}  // namespace krv::media
