#include <algorithm>
#include <cmath>
#include <string_view>

#include <MediaServer/Media/Codec/HDRMetadata.h>
#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Video/FrameRate.h>
#include <MediaServer/Media/Video/VideoTranscoder.h>

namespace krv::media {
namespace {

/// MPEG-4 Part 2 stores the number of ticks per second in 16 bits.
constexpr int kMPEG4Ticks = 65535;

/// Times in requests are rounded to this, in microseconds.
constexpr std::int64_t kRoundedTime = 1000;

/// Units per second of a GIF.
constexpr int kHundredths = 100;

/// Returns a frame without data, as the header describes it, for a stream of which no frame has been decoded yet.
FramePtr expectedFrame(const AVStream& from) {
    FramePtr frame = newFrame();
    const AVCodecParameters& codec = *from.codecpar;
    frame->width = codec.width;
    frame->height = codec.height;
    frame->format = codec.format == AV_PIX_FMT_NONE ? AV_PIX_FMT_YUV420P : codec.format;
    frame->sample_aspect_ratio = codec.sample_aspect_ratio;
    return frame;
}

}  // namespace

VideoTranscoder::VideoTranscoder(const Source& source, const AVStream& from, Request request)
    : source_(source)
    , from_(from)
    , request_(std::move(request))
    , constant_(request_.fps > 0)
    , rate_(constant_ ? rationalRate(static_cast<double>(request_.fps)) : frameRate(source, from))
    , decoder_(from) {}

void VideoTranscoder::push(AVPacket& packet) {
    decoder_.push(packet, [this](FramePtr frame) { receive(std::move(frame)); });
}

// Of the frames before the beginning, the latest one is shown until the next one begins.
void VideoTranscoder::receive(FramePtr frame) {
    if (frame->pts == AV_NOPTS_VALUE) {
        return accept(std::move(frame));
    }
    if (frame->pts < 0) {
        before_ = std::move(frame);
        return;
    }
    const auto inStream = [this](std::int64_t time) { return av_rescale_q(time, kMicroseconds, from_.time_base); };
    if (before_ && frame->pts > inStream(kRoundedTime)) {
        before_->pkt_duration = frame->pts;
        before_->pts = 0;
        accept(std::move(before_));
    }
    before_.reset();
    if (!source_.part() || frame->pts < inStream(source_.part()->length())) {
        accept(std::move(frame));
    }
}

void VideoTranscoder::accept(FramePtr frame) {
    if (encoder_) {
        convert(std::move(frame));
    } else {
        early_.push_back(std::move(frame));
    }
}

void VideoTranscoder::open(OutputFile& output) {
    const FramePtr first = early_.empty() ? expectedFrame(from_) : reference(*early_.front());
    if (output.container().times == Times::Counted) {
        countFrames();
    }
    showFromTheBeginning(output.container());
    const VideoFormatRequest wanted{from_, *first, request_.codec, request_.settings, output.container()};
    format_ = chooseVideoFormat(wanted);
    encoder_.emplace(EncoderSession::Request{request_.codec, request_.quality, request_.settings}, output,
                     [&](AVCodecContext& context) { prepare(context, format_, *first); });
    filter_.emplace(format_, from_.time_base);
    if (request_.palette) {
        mapper_.emplace(*request_.palette, format_, encoder_->context().time_base);
    }

    if (request_.burnIn) {
        burnIn_ = request_.burnIn(layoutOf(format_, wanted));
    }
    typical_ = av_rescale_q(1, av_inv_q(frameRate(source_, from_)), from_.time_base);
    timer_.emplace(FrameTimer::Timing{from_.time_base, encoder_->context().time_base, constant_, typical_,
                                      av_rescale_q(source_.lastPlausibleTime(), kMicroseconds, from_.time_base)});

    AVStream& to = encoder_->stream();
    to.avg_frame_rate = rate_;
    copyTrackMetadata(from_, to, output.container());
    av_dict_set(&to.metadata, "alpha_mode", nullptr, 0);  // no encoder stores transparency beside its packets
    copyVideoSideData(from_, to, output.container().displayMatrix);
    if (!format_.toneMapped) {
        HDRMetadata(from_, *first).describeTo(to);
    }
}

void VideoTranscoder::countFrames() {
    if (!constant_) {
        constant_ = true;
        rate_ = constantFrameRate(source_, from_);
    }
}

// Where a late start cannot be stored, the first frame is shown from the beginning.
void VideoTranscoder::showFromTheBeginning(const Container& container) {
    if (container.times != Times::Stored && !early_.empty() && early_.front()->pts != AV_NOPTS_VALUE &&
        early_.front()->pts > 0) {
        early_.push_front(reference(*early_.front()));
        early_.front()->pts = 0;
    }
}

AVRational VideoTranscoder::timeBase(AVCodecID codec) const {
    if (constant_) {
        return av_inv_q(rate_);
    }
    if (codec == AV_CODEC_ID_GIF) {
        return {1, av_q2d(rate_) > kHighestGIFRate ? kHighestGIFRate : kHundredths};
    }
    if (codec != AV_CODEC_ID_MPEG4 || from_.time_base.den <= kMPEG4Ticks) {
        return from_.time_base;
    }
    return {1, rate_.num * std::max(1, 60000 / rate_.num)};
}

void VideoTranscoder::prepare(AVCodecContext& context, const VideoFormat& format, const AVFrame& first) const {
    describe(format, context);
    context.framerate = rate_;
    context.time_base = timeBase(context.codec_id);
    if (!format.toneMapped) {
        HDRMetadata(from_, first).describeTo(context);
    }
}

void VideoTranscoder::convert(FramePtr frame) {
    while (!early_.empty()) {
        FramePtr earlier = std::move(early_.front());
        early_.pop_front();
        filter_->push(std::move(earlier), [this](FramePtr ready) { place(std::move(ready)); });
    }
    if (frame) {
        filter_->push(std::move(frame), [this](FramePtr ready) { place(std::move(ready)); });
    }
}

void VideoTranscoder::place(FramePtr frame) {
    if (!burnIn_) {
        return timer_->push(std::move(frame), [this](FramePtr timed) { encode(std::move(timed)); });
    }
    if (frame->pts == AV_NOPTS_VALUE) {
        frame->pts = clean_ ? clean_->pts + typical_ : 0;
    }
    repeatForChanges(frame->pts);
    clean_ = reference(*frame);
    const std::int64_t time = av_rescale_q(frame->pts, from_.time_base, kMicroseconds);
    burnInto(std::move(frame), time);
}

// While the latest frame is held, subtitles appear and disappear.
void VideoTranscoder::repeatForChanges(std::int64_t end) {
    if (!clean_ || end - clean_->pts < 2 * typical_) {
        return;
    }
    const auto toMicroseconds = [this](std::int64_t time) {
        return av_rescale_q(time, from_.time_base, kMicroseconds);
    };
    std::int64_t last = clean_->pts;
    for (const std::int64_t change : burnIn_->changesBetween(toMicroseconds(last), toMicroseconds(end))) {
        const std::int64_t time = av_rescale_q_rnd(change, kMicroseconds, from_.time_base, AV_ROUND_UP);
        if (time - last < typical_ || end - time < typical_) {
            continue;
        }
        FramePtr again = reference(*clean_);
        again->pts = last = time;
        again->pkt_duration = end - time;
        burnInto(std::move(again), change);
    }
}

void VideoTranscoder::burnInto(FramePtr frame, std::int64_t time) {
    burnIn_->draw(*frame, time);
    timer_->push(std::move(frame), [this](FramePtr timed) { encode(std::move(timed)); });
}

void VideoTranscoder::encode(FramePtr frame) {
    // The encoder chooses its own key frames.
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    if (!format_.interlaced) {
        frame->interlaced_frame = 0;
    }
    if (mapper_) {
        return mapper_->push(std::move(frame), [this](FramePtr mapped) { encoder_->encode(*mapped); });
    }
    encoder_->encode(*frame);
}

void VideoTranscoder::finish() {
    decoder_.finish([this](FramePtr frame) { receive(std::move(frame)); });
    if (before_ && source_.part()) {
        before_->pts = 0;
        accept(std::move(before_));  // it is shown during the whole part
    }
    convert(nullptr);
    filter_->finish([this](FramePtr ready) { place(std::move(ready)); });
    if (clean_) {
        repeatForChanges(clean_->pts + std::max<std::int64_t>(clean_->pkt_duration, 0));
    }
    // The last frame of a part is shown until its end, though in the movie others follow.
    if (source_.part() && source_.duration() > 0 && source_.part()->end < Part::kEnd) {
        const std::int64_t end = av_rescale_q(source_.duration(), kMicroseconds, from_.time_base);
        repeatForChanges(end);
        timer_->extendTo(end);
    }
    timer_->finish([this](FramePtr timed) { encode(std::move(timed)); });
    if (mapper_) {
        mapper_->finish([this](FramePtr mapped) { encoder_->encode(*mapped); });
    }
    encoder_->finish();
}

}  // namespace krv::media
