#include <MediaServer/Media/Audio/AudioTranscoder.h>
#include <MediaServer/Media/Container/Metadata.h>
namespace krv::media {
AudioTranscoder::AudioTranscoder(const Source& source, const AVStream& from, const Request& request)
    : source_(source)
    , from_(from)
    , request_(request)
    , decoder_(from) {}

void AudioTranscoder::open(OutputFile& output) {
    encoder_.emplace(
        EncoderSession::Request{request_.codec, request_.quality, request_.settings, hasHighResolution(from_)}, output,
        [this](AVCodecContext& context) { chooseAudioFormat(context, from_, request_.settings, request_.codec); });
    resampler_.emplace(encoder_->context(), from_.time_base,
                       av_rescale_q(source_.lastPlausibleTime(), kMicroseconds, from_.time_base));
    if (source_.part()) {
        resampler_->cutAt(
            av_rescale_q(source_.part()->length(), kMicroseconds, AVRational{1, encoder_->context().sample_rate}));
    }
    copyTrackMetadata(from_, encoder_->stream(), output.container());
}

void AudioTranscoder::push(AVPacket& packet) {
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

}  // namespace krv::media
