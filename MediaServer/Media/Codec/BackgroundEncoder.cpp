#include <new>

#include <MediaServer/Media/Codec/BackgroundEncoder.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {

void BackgroundEncoder::check(int error) {
    if (error == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (error < 0) {
        fail(FailureCause::InternalError, error, "encoding");
    }
}

}  // namespace krv::media
