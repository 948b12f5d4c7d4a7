// From records to the media library's terms and back: the only place in the worker that knows both.
#include "EncodeJob.h"

#include <exception>
#include <new>

#include <MediaServer/Media/Encode.h>

#include "ServerError.h"

namespace krv::server {
namespace {

class ChannelProgress final : public media::ProgressSink {
public:
    explicit ChannelProgress(WorkerChannel& channel)
        : channel_(channel) {}
    void progress(double fraction) noexcept override {
        KRVOperationBase report;
        report.setOperationType(OpProgressAndCompletion);
        report.setProgress(static_cast<float>(fraction));
        channel_.send(report);
    }

private:
    WorkerChannel& channel_;
};

template <typename Settings>
void copyCommon(Settings& to, const EncodingParameters& from) {
    to.codec = from.codec();
    to.quality = from.quality();
    if (const auto blob = from.settingsBlob()) {
        to.settings.assign(reinterpret_cast<const char*>(blob->data()), blob->size());
    }
}

media::EncodeRequest requestOf(const KRVOperationBase& record, const std::vector<Descriptor>& files) {
    media::EncodeRequest request;
    request.source = files.at(0).get();
    request.destination = files.at(1).get();
    request.sourcePath = record.encodingSourceFilename().value_or("");
    request.destinationPath = record.encodingDestinationFilename().value_or("");
    request.encodingType = record.encodingType();
    request.flattenOnly = record.encodingFlattenOnly();
    if (const auto video = record.encodingVideoParameters()) {
        copyCommon(request.video.emplace(), *video);
        request.video->fps = video->fps();
    }
    if (const auto audio = record.encodingAudioParameters()) {
        copyCommon(request.audio.emplace(), *audio);
    }
    return request;
}

}  // namespace

KRVOperationBase::Ref runJob(const WorkerChannel::Message& job, WorkerChannel& channel) {
    const auto end = std::make_shared<KRVOperationBase>();
    end->setOperationType(OpReturnResult);
    const std::string source = job.record->encodingSourceFilename().value_or("");
    try {
        ChannelProgress progress(channel);
        media::encode(requestOf(*job.record, job.files), progress);
        end->setProgress(1.0F, true);
    } catch (const media::Failure& failure) {
        end->setError(
            makeError(static_cast<ErrorCode>(failure.code()), failure.description(), failure.reason(), failure.path()));
    } catch (const std::bad_alloc&) {
        end->setError(makeError(ErrorCode::WorkerDied, "There was not enough memory to work on " + source + ".",
                                "out of memory", source));
    } catch (const std::exception& problem) {
        end->setError(makeError(ErrorCode::Internal, "Working on " + source + " failed.", problem.what(), source));
    }
    return end;
}

}  // namespace krv::server
