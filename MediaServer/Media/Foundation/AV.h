#pragma once

#include <memory>
#include <new>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

namespace krv::media {

/// Owners of FFmpeg's objects. Each pointer type frees its object with the function that FFmpeg has for it.
namespace detail {
struct Free {
    void operator()(AVPacket* p) const noexcept { av_packet_free(&p); }
    void operator()(AVFrame* p) const noexcept { av_frame_free(&p); }
    void operator()(AVCodecParameters* p) const noexcept { avcodec_parameters_free(&p); }
    void operator()(AVCodecContext* p) const noexcept { avcodec_free_context(&p); }
    void operator()(AVFilterGraph* p) const noexcept { avfilter_graph_free(&p); }
    void operator()(SwrContext* p) const noexcept { swr_free(&p); }
    void operator()(AVAudioFifo* p) const noexcept { av_audio_fifo_free(p); }
};
}  // namespace detail

using PacketPtr = std::unique_ptr<AVPacket, detail::Free>;
using FramePtr = std::unique_ptr<AVFrame, detail::Free>;
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, detail::Free>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, detail::Free>;
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, detail::Free>;
using ResamplerPtr = std::unique_ptr<SwrContext, detail::Free>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, detail::Free>;

/// Returns p. Throws std::bad_alloc if it is null, which is how FFmpeg reports a lack of memory.
template <typename T>
T* notNull(T* p) {
    if (!p) {
        throw std::bad_alloc();
    }
    return p;
}

inline PacketPtr newPacket() {
    return PacketPtr(notNull(av_packet_alloc()));
}
inline FramePtr newFrame() {
    return FramePtr(notNull(av_frame_alloc()));
}
/// Return a second reference to the same data.
inline PacketPtr reference(const AVPacket& packet) {
    return PacketPtr(notNull(av_packet_clone(&packet)));
}
inline FramePtr reference(const AVFrame& frame) {
    return FramePtr(notNull(av_frame_clone(&frame)));
}

/// Owns a dictionary of options or tags.
class AVDict {
public:
    AVDict() = default;
    ~AVDict() { av_dict_free(&dict_); }
    AVDict(const AVDict&) = delete;
    AVDict& operator=(const AVDict&) = delete;

    void set(const char* key, const char* value) { av_dict_set(&dict_, key, value, 0); }
    void set(const char* key, const std::string& value) { set(key, value.c_str()); }
    [[nodiscard]] const char* get(const char* key) const {
        const AVDictionaryEntry* entry = av_dict_get(dict_, key, nullptr, AV_DICT_MATCH_CASE);
        return entry ? entry->value : nullptr;
    }
    [[nodiscard]] AVDictionary** address() { return &dict_; }
    [[nodiscard]] const AVDictionary* get() const { return dict_; }

private:
    AVDictionary* dict_ = nullptr;
};

/// The time base of AVFormatContext's own times (start, duration). FFmpeg's macro for it works in C only.
inline constexpr AVRational kMicroseconds{1, AV_TIME_BASE};

}  // namespace krv::media
