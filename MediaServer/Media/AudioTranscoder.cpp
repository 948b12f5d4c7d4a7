#include <MediaServer/Media/AudioTranscoder.h>
#include <MediaServer/Media/Metadata.h>
#include <limits>

namespace krv::media {
namespace {

// Times that lie further than this behind the end of the movie are damage.
constexpr std::int64_t kSlack = 10 * static_cast<std::int64_t>(AV_TIME_BASE);

} // namespace

AudioTranscoder::AudioTranscoder(const Source& source, const AVStream& from, const Request& request)
    : source_(source)
    , from_(from)
    , request_(request)
    , decoder_(from) {}

void AudioTranscoder::open(OutputFile& output) {
    encoder_.emplace(EncoderSession::Request{request_.codec, request_.quality, request_.settings,
                                             hasHighResolution(from_)},
                     output, [this](AVCodecContext& context) {
                         chooseAudioFormat(context, from_, request_.settings, request_.codec);
                     });
    constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max() / (4 * AV_TIME_BASE);
    const std::int64_t length = source_.duration();
    const std::int64_t end = length > 0 ? source_.start() + length + kSlack : kNever;
    resampler_.emplace(encoder_->context(), from_.time_base,
                       av_rescale_q(end, kMicroseconds, from_.time_base));
    copyTrackMetadata(from_, encoder_->stream());
}

void AudioTranscoder::push(const AVPacket& packet) {
    decoder_.push(packet, [this](FramePtr frame) {
        resampler_->push(*frame, [this](FramePtr ready) { encoder_->encode(*ready); });
    });
}

void AudioTranscoder::finish() {
    const auto encode = [this](FramePtr ready) { encoder_->encode(*ready); };
    decoder_.finish([&](FramePtr frame) { resampler_->push(*frame, encode); });
    resampler_->finish(encode);
    encoder_->finish();
}

} // namespace krv::media
