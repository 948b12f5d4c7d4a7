// Each thumbnail of a long movie costs a seek and decoding from a key frame to the wanted frame. So the thumbnails are
// divided among as many readers as there are cores. Each reader has its own part of the movie and a single-threaded
// decoder. A multi-threaded decoder fills a pipeline first, which does not pay off if it is restarted every few frames.
// If there are fewer thumbnails than cores, the decoders have the other cores.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <exception>
#include <span>
#include <thread>

#include <unistd.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Media/Container/ReadAt.h>
#include <MediaServer/Media/Thumbnails.h>
#include <MediaServer/Media/Video/FrameReader.h>
#include <MediaServer/Media/Video/StillPicture.h>

namespace krv::media {
namespace {

class ThumbnailMaker {
public:
    ThumbnailMaker(const ThumbnailRequest& request, ProgressSink& sink)
        : request_(request)
        , count_(static_cast<std::size_t>(request.count))
        , readers_(std::min(static_cast<std::size_t>(coreCount()), count_))
        , progress_(sink)
        , pictures_(count_) {}

    ThumbnailSet run() {
        if (ftruncate(request_.destination, 0) != 0) {
            throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = errno});
        }
        std::vector<std::thread> others;
        for (std::size_t i = 1; i < readers_; ++i) {
            others.emplace_back([this, i] { readPart(i); });
        }
        readPart(0);
        for (std::thread& other : others) {
            other.join();
        }
        const LockGuard lock(mutex_);
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        progress_.finish();
        return {std::move(pictures_), truncatedAt_};
    }

private:
    /// Forwards the signs of life of one reader to the progress of the operation.
    class PartSink final : public ProgressSink {
    public:
        explicit PartSink(ThumbnailMaker& maker)
            : maker_(maker) {}
        void progress(double) noexcept override {
            const LockGuard lock(maker_.mutex_);
            maker_.progress_.alive();
        }

    private:
        ThumbnailMaker& maker_;
    };

    void readPart(std::size_t part) noexcept {
        try {
            PartSink sink(*this);
            Progress progress(sink);
            Source source(request_.source, request_.sourcePath, progress);
            source.measure();
            FrameReader reader(source, std::max(1, coreCount() / static_cast<int>(readers_)));
            const std::size_t end = (part + 1) * count_ / readers_;
            for (std::size_t i = part * count_ / readers_; i < end && !failed_; ++i) {
                make(reader, i);
            }
            if (part == 0) {
                const LockGuard lock(mutex_);
                truncatedAt_ = source.truncatedAt();
            }
        } catch (...) {
            const LockGuard lock(mutex_);
            if (!failure_) {
                failure_ = std::current_exception();
            }
            failed_ = true;
        }
    }

    void make(FrameReader& reader, std::size_t i) {
        const double middle = (static_cast<double>(i) + 0.5) / static_cast<double>(count_);
        const auto time = reader.source().start() + std::llround(middle * static_cast<double>(reader.duration()));
        FramePtr frame = reader.shownAt(time);
        if (!frame) {
            fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding video");
        }
        store(i, time, encodeJPEG(reader.stream(), std::move(frame), request_.width, request_.height));
    }

    void store(std::size_t i, std::int64_t time, const std::vector<std::uint8_t>& picture) {
        const LockGuard lock(mutex_);
        const auto length = static_cast<std::int64_t>(picture.size());
        if (!writeAll(request_.destination, std::as_bytes(std::span(picture)), size_)) {
            throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = errno});
        }
        pictures_[i] = {static_cast<double>(time) / AV_TIME_BASE, size_, length};
        size_ += length;
        progress_.reach(static_cast<double>(++made_) / static_cast<double>(count_));
    }

    const ThumbnailRequest& request_;
    const std::size_t count_;
    const std::size_t readers_;
    std::atomic<bool> failed_{false};
    Mutex mutex_;  // also protects the destination
    Progress progress_ KRV_GUARDED_BY(mutex_);
    std::vector<Thumbnail> pictures_ KRV_GUARDED_BY(mutex_);
    std::optional<double> truncatedAt_ KRV_GUARDED_BY(mutex_);
    std::int64_t size_ KRV_GUARDED_BY(mutex_) = 0;
    std::size_t made_ KRV_GUARDED_BY(mutex_) = 0;
    std::exception_ptr failure_ KRV_GUARDED_BY(mutex_);
};

}  // namespace

ThumbnailSet makeThumbnails(const ThumbnailRequest& request, ProgressSink& sink) {
    return ThumbnailMaker(request, sink).run();
}

}  // namespace krv::media
