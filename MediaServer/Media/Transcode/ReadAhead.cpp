#include <utility>

#include <MediaServer/Media/Transcode/ReadAhead.h>

namespace krv::media {
namespace {

/// Waking the other thread takes as long as reading many small packets.
constexpr std::size_t kPackets = 128;
constexpr int kBytes = 1 << 20;
constexpr std::size_t kMostBatches = 8;

}  // namespace

ReadAhead::ReadAhead(PartReader& reader, const Source& source)
    : reader_(reader)
    , source_(source)
    , thread_([this] { run(); }) {}

ReadAhead::~ReadAhead() {
    {
        const LockGuard lock(mutex_);
        abandoned_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

ReadAhead::Batch ReadAhead::next() {
    Batch batch;
    {
        const LockGuard lock(mutex_);
        while (batches_.empty() && !ended_) {
            changed_.wait(mutex_);
        }
        if (!batches_.empty()) {
            batch = std::move(batches_.front());
            batches_.pop_front();
        } else if (failure_) {
            std::rethrow_exception(failure_);
        }
    }
    changed_.notify_all();
    return batch;
}

void ReadAhead::run() noexcept {
    std::exception_ptr failure;
    try {
        for (Batch batch = read(); !batch.packets.empty(); batch = read()) {
            if (!pass(std::move(batch))) {
                break;
            }
        }
    } catch (...) {
        failure = std::current_exception();
    }
    {
        const LockGuard lock(mutex_);
        failure_ = failure;
        ended_ = true;
    }
    changed_.notify_all();
}

ReadAhead::Batch ReadAhead::read() {
    Batch batch;
    for (int bytes = 0; batch.packets.size() < kPackets && bytes < kBytes;) {
        PacketPtr packet = newPacket();
        if (!reader_.read(*packet)) {
            break;
        }
        bytes += packet->size;
        batch.packets.push_back(std::move(packet));
    }
    batch.position = source_.bytePosition();
    return batch;
}

bool ReadAhead::pass(Batch batch) {
    {
        const LockGuard lock(mutex_);
        while (batches_.size() >= kMostBatches && !abandoned_) {
            changed_.wait(mutex_);
        }
        if (abandoned_) {
            return false;
        }
        batches_.push_back(std::move(batch));
    }
    changed_.notify_all();
    return true;
}

}  // namespace krv::media
