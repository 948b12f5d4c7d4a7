#include <algorithm>
#include <string_view>
#include <utility>

#include <MediaServer/Media/Container/FrameOrder.h>

namespace krv::media {
namespace {

/// The rate of a file that does not say.
constexpr AVRational kUsualRate{25, 1};

AVRational rateOf(const AVStream& stream) {
    const AVRational rate = stream.avg_frame_rate;
    return rate.num > 0 && rate.den > 0 ? rate : kUsualRate;
}

}  // namespace

bool FrameOrder::isNeededFor(const AVFormatContext& format) {
    const std::string_view name = format.iformat->name;
    return (name == "h264" || name == "hevc") && format.nb_streams == 1;
}

FrameOrder::FrameOrder(const AVFormatContext& format)
    : stream_(*format.streams[0])
    , rate_(rateOf(stream_))
    , delay_(static_cast<std::size_t>(std::max(stream_.codecpar->video_delay, 0)))
    , parser_(notNull(av_parser_init(stream_.codecpar->codec_id)))
    , context_(notNull(avcodec_alloc_context3(nullptr))) {
    parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    if (avcodec_parameters_to_context(context_.get(), stream_.codecpar) < 0) {
        throw std::bad_alloc();
    }
}

void FrameOrder::push(PacketPtr packet, std::deque<PacketPtr>& ready) {
    std::uint8_t* data = nullptr;
    int size = 0;
    av_parser_parse2(parser_.get(), context_.get(), &data, &size, packet->data, packet->size, AV_NOPTS_VALUE,
                     AV_NOPTS_VALUE, packet->pos);
    // Fields of interlaced video are packets of their own, which this does not number.
    works_ = works_ && parser_->picture_structure != AV_PICTURE_STRUCTURE_TOP_FIELD &&
             parser_->picture_structure != AV_PICTURE_STRUCTURE_BOTTOM_FIELD;
    if (!works_) {
        finish(ready);
        ready.push_back(std::move(packet));
        return;
    }
    const std::int64_t count = parser_->output_picture_number;
    const bool first = decoded_ == 0 || (held_.empty() && starts_.empty());
    const bool startsOver = (packet->flags & AV_PKT_FLAG_KEY) != 0 && (first || count <= highest_);
    if (startsOver) {
        numberAll();
        starts_.insert(timeOf(shown_));
    }
    highest_ = startsOver ? count : std::max(highest_, count);
    packet->dts = timeOf(decoded_++ - static_cast<std::int64_t>(delay_));
    held_.push_back({std::move(packet), count});
    if (++unnumbered_ > delay_) {
        numberLowest();
    }
    release(ready);
}

void FrameOrder::numberLowest() {
    const auto lowest = std::min_element(held_.begin(), held_.end(), [](const Held& a, const Held& b) {
        return std::pair(a.number.has_value(), a.count) < std::pair(b.number.has_value(), b.count);
    });
    lowest->number = shown_++;
    --unnumbered_;
}

void FrameOrder::numberAll() {
    while (unnumbered_ > 0) {
        numberLowest();
    }
}

void FrameOrder::release(std::deque<PacketPtr>& ready) {
    while (!held_.empty() && held_.front().number) {
        PacketPtr packet = std::move(held_.front().packet);
        packet->pts = timeOf(*held_.front().number);
        held_.pop_front();
        ready.push_back(std::move(packet));
    }
}

void FrameOrder::finish(std::deque<PacketPtr>& ready) {
    numberAll();
    release(ready);
}

std::optional<std::int64_t> FrameOrder::stateAt(const AVPacket& packet) const {
    if (!starts_.contains(packet.pts)) {
        return std::nullopt;
    }
    return av_rescale_q(packet.pts, stream_.time_base, av_inv_q(rate_));
}

void FrameOrder::restart(std::int64_t state) {
    held_.clear();
    unnumbered_ = 0;
    shown_ = decoded_ = state;
}

std::int64_t FrameOrder::timeOf(std::int64_t number) const {
    return av_rescale_q(number, av_inv_q(rate_), stream_.time_base);
}

}  // namespace krv::media
