#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>

#include <MediaServer/Media/Container/TimeRepair.h>

namespace krv::media {

/// Gives the packets of H.264 or HEVC without a container their times.
///
/// Such a file has neither timestamps nor an index. Its frames are shown at a constant rate, in an order that each of
/// them contains: its picture order count, which starts over at some key frames. Like a decoder, this holds back as
/// many frames as the codec may reorder, and the one with the lowest count is the next to be shown.
class FrameOrder : public TimeRepair {
public:
    /// Returns whether a file contains nothing but a stream that needs this.
    [[nodiscard]] static bool isNeededFor(const AVFormatContext& format);

    /// Borrows the format.
    explicit FrameOrder(const AVFormatContext& format);

    void push(PacketPtr packet, std::deque<PacketPtr>& ready) override;
    void finish(std::deque<PacketPtr>& ready) override;
    /// Returns the number of the frame. Empty unless the count starts over here.
    [[nodiscard]] std::optional<std::int64_t> stateAt(const AVPacket& packet) const override;
    void restart(std::int64_t state) override;

private:
    struct Free {
        void operator()(AVCodecParserContext* parser) const noexcept { av_parser_close(parser); }
    };
    struct Held {
        PacketPtr packet;
        std::int64_t count = 0;                // picture order count
        std::optional<std::int64_t> number{};  // of the frame in the order in which they are shown
    };
    void numberLowest();
    void numberAll();
    void release(std::deque<PacketPtr>& ready);
    [[nodiscard]] std::int64_t timeOf(std::int64_t number) const;

    const AVStream& stream_;
    const AVRational rate_;
    const std::size_t delay_;  // how many frames the codec may reorder
    std::unique_ptr<AVCodecParserContext, Free> parser_;
    CodecContextPtr context_;
    std::deque<Held> held_;
    std::size_t unnumbered_ = 0;
    std::int64_t highest_ = 0;       // count since it started over
    std::int64_t shown_ = 0;         // frames
    std::int64_t decoded_ = 0;       // frames
    std::set<std::int64_t> starts_;  // the times of the frames at which the count starts over
    bool works_ = true;
};

}  // namespace krv::media
