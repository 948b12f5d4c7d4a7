#include <utility>

#include <MediaServer/Media/Codec/EncodeFrame.h>
#include <MediaServer/Media/Codec/EncoderThread.h>

namespace krv::media {
namespace {

/// Less than a second of audio: other streams must not get far ahead in the file.
constexpr std::size_t kMostFrames = 32;

}  // namespace

EncoderThread::EncoderThread(AVCodecContext& encoder)
    : encoder_(encoder)
    , thread_([this] { run(); }) {}

EncoderThread::~EncoderThread() {
    {
        const LockGuard lock(mutex_);
        abandoned_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void EncoderThread::push(FramePtr frame, const Sink& sink) {
    Ready ready;
    {
        const LockGuard lock(mutex_);
        while (frames_.size() >= kMostFrames && !ended_) {
            changed_.wait(mutex_);
        }
        frames_.push_back(std::move(frame));
        changed_.notify_all();
        ready = takeReady();
    }
    deliver(ready, sink);
}

void EncoderThread::finish(const Sink& sink) {
    Ready ready;
    {
        const LockGuard lock(mutex_);
        complete_ = true;
        changed_.notify_all();
        while (!ended_) {
            changed_.wait(mutex_);
        }
        ready = takeReady();
    }
    deliver(ready, sink);
}

EncoderThread::Ready EncoderThread::takeReady() {
    return {std::exchange(packets_, {}), error_};
}

void EncoderThread::deliver(const Ready& ready, const Sink& sink) {
    for (const PacketPtr& packet : ready.packets) {
        sink(*packet);
    }
    check(ready.error);
}

void EncoderThread::run() {
    int error = 0;
    for (bool more = true; more && error >= 0;) {
        const FramePtr frame = nextFrame();
        more = frame != nullptr;
        error = encode(frame.get());
    }
    const LockGuard lock(mutex_);
    error_ = error;
    ended_ = true;
    changed_.notify_all();
}

FramePtr EncoderThread::nextFrame() {
    const LockGuard lock(mutex_);
    while (frames_.empty() && !complete_ && !abandoned_) {
        changed_.wait(mutex_);
    }
    if (frames_.empty() || abandoned_) {
        return nullptr;
    }
    FramePtr frame = std::move(frames_.front());
    frames_.pop_front();
    changed_.notify_all();
    return frame;
}

int EncoderThread::encode(const AVFrame* frame) {
    bool noMemory = false;
    const int result = encodeFrame(encoder_, frame, [&](AVPacket& packet) {
        PacketPtr taken(av_packet_alloc());
        if (!taken) {
            noMemory = true;
            return;
        }
        av_packet_move_ref(taken.get(), &packet);
        const LockGuard lock(mutex_);
        packets_.push_back(std::move(taken));
    });
    return noMemory ? AVERROR(ENOMEM) : result;
}

}  // namespace krv::media
