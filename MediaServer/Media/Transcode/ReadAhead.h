#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <thread>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Media/Container/PartReader.h>
#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Reads the packets of a source on a thread of its own, so that its caller can write at the same time. Nothing else may
/// use the source, the reader or the source's streams until this object is destroyed. For one caller.
class ReadAhead {
public:
    struct Batch {
        std::vector<PacketPtr> packets;
        /// Source::bytePosition() behind the last packet.
        double position = 0;
    };

    ReadAhead(PartReader& reader, const Source& source);
    /// Stops reading.
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// Returns the next packets, none at the end. Throws what reading them has thrown.
    [[nodiscard]] Batch next();

private:
    void run() noexcept;
    [[nodiscard]] Batch read();
    /// Waits for room. Returns false if nobody wants the batch any more.
    bool pass(Batch batch);

    PartReader& reader_;
    const Source& source_;
    Mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<Batch> batches_ KRV_GUARDED_BY(mutex_);
    bool ended_ KRV_GUARDED_BY(mutex_) = false;
    bool abandoned_ KRV_GUARDED_BY(mutex_) = false;
    std::exception_ptr failure_ KRV_GUARDED_BY(mutex_);
    std::thread thread_;
};

}  // namespace krv::media
