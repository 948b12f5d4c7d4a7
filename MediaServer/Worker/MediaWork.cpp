// Translates between operation records and the media library. No other code of the worker knows both.
#include <algorithm>
#include <array>
#include <exception>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include <MediaServer/Media/Encode.h>
#include <MediaServer/Media/Foundation/FFmpegLog.h>
#include <MediaServer/Media/InterestingTimes.h>
#include <MediaServer/Media/Merge/Merge.h>
#include <MediaServer/Media/MovieContents.h>
#include <MediaServer/Media/MovieInfo.h>
#include <MediaServer/Media/StereoMix.h>
#include <MediaServer/Media/Thumbnails.h>
#include <MediaServer/Media/Video/Poster.h>
#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Worker/MediaWork.h>
#include <MediaServer/Worker/ReusedMemory.h>

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

struct Job {
    const KRVOperationBase::Ref& record;
    const std::vector<Descriptor>& files;
    const media::Font& font;
};

std::string sourcePath(const Job& job) {
    return job.record->encodingSourceFilename().value_or("");
}
std::string destinationPath(const Job& job) {
    return job.record->encodingDestinationFilename().value_or("");
}
int source(const Job& job) {
    return job.files.at(0).get();
}
int destination(const Job& job) {
    return job.files.at(1).get();
}

/// Adds an entry to the record's result.
void setResult(KRVOperationBase& end, std::string_view key, Value value) {
    Dictionary result = end.result() ? end.result()->mutableCopy() : Dictionary();
    result.set(key, std::move(value));
    end.setResult(std::make_shared<Dictionary>(std::move(result)));
}

void reportTruncation(KRVOperationBase& end, const std::optional<double>& at) {
    if (at) {
        setResult(end, kResultSourceTruncatedAt, *at);
    }
}

void reportDropped(KRVOperationBase& end, const std::vector<media::DroppedTrack>& tracks, bool isMerge) {
    Array list;
    for (const media::DroppedTrack& track : tracks) {
        Dictionary entry{{kResultDroppedTrackIndex, track.index},
                         {kResultDroppedTrackKind, track.kind},
                         {kResultDroppedTrackCodec, track.codec},
                         {kResultDroppedTrackLanguage, track.language},
                         {kResultDroppedTrackReason, track.reason}};
        if (isMerge) {
            entry.set(kResultDroppedTrackSource, static_cast<std::int64_t>(track.source));
        }
        list.push_back(std::make_shared<Dictionary>(std::move(entry)));
    }
    setResult(end, kResultDroppedTracks, std::move(list));
}

void encode(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    const KRVOperationBase& record = *job.record;
    media::EncodeRequest request;
    request.source = source(job);
    request.destination = destination(job);
    request.sourcePath = sourcePath(job);
    request.destinationPath = destinationPath(job);
    request.encodingType = record.encodingType();
    request.flattenOnly = record.encodingFlattenOnly();
    if (const auto video = record.encodingVideoParameters()) {
        copyCommon(request.video.emplace(), *video);
        request.video->fps = video->fps();
    }
    if (const auto audio = record.encodingAudioParameters()) {
        copyCommon(request.audio.emplace(), *audio);
    }
    request.font = job.font;
    const media::MovieReport report = media::encode(request, progress);
    reportDropped(end, report.droppedTracks, false);
    reportTruncation(end, report.truncatedAt.at(0));
}

void makeThumbnails(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    media::ThumbnailRequest request;
    request.source = source(job);
    request.destination = destination(job);
    request.sourcePath = sourcePath(job);
    request.count = thumbnailCountOf(*job.record);
    request.width = job.record->thumbnailInfoSize().width;
    request.height = job.record->thumbnailInfoSize().height;
    Array pictures;
    const media::ThumbnailSet made = media::makeThumbnails(request, progress);
    for (const media::Thumbnail& picture : made.pictures) {
        pictures.push_back(std::make_shared<Dictionary>(Dictionary{{kResultThumbnailTime, picture.time},
                                                                   {kThumbnailOffset, picture.offset},
                                                                   {kThumbnailLength, picture.length}}));
    }
    setResult(end, kResultThumbnails, std::move(pictures));
    reportTruncation(end, made.truncatedAt);
}

void mixToStereo(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    const media::MovieReport report = media::mixToStereo({.source = source(job),
                                                          .destination = destination(job),
                                                          .sourcePath = sourcePath(job),
                                                          .destinationPath = destinationPath(job)},
                                                         progress);
    reportDropped(end, report.droppedTracks, false);
    reportTruncation(end, report.truncatedAt.at(0));
}

void merge(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    media::MergeRequest request;
    const auto paths = sourcesOf(*job.record);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        request.sources.push_back({job.files.at(i).get(), paths[i]});
    }
    request.destination = job.files.at(paths.size()).get();
    request.destinationPath = destinationPath(job);
    const Value* const shortest = job.record->arguments()->find(kArgumentMergeSourcesUseShortest);
    request.useShortest = shortest && shortest->boolValue();
    if (const Value* const rate = job.record->arguments()->find(kArgumentMergeFrameRate)) {
        request.frameRate = rate->doubleValue();
    }
    if (const Value* const size = job.record->arguments()->find(kArgumentMergeSize)) {
        request.size = {size->sizeValue().width, size->sizeValue().height};
    }
    const media::MovieReport report = media::merge(request, progress);
    reportDropped(end, report.droppedTracks, true);
    Array truncated;
    for (const auto& at : report.truncatedAt) {
        truncated.push_back(at ? Value(*at) : Value());
    }
    if (std::any_of(truncated.begin(), truncated.end(), [](const Value& at) { return !at.isNull(); })) {
        setResult(end, kResultSourcesTruncatedAt, std::move(truncated));
    }
}

static_assert(media::kLargestCover <= kLargestPoster, "the server accepts every poster that is passed on");

/// Converts to a Date, which counts from the beginning of 2001.
Date dateFromUnixTime(double seconds) {
    constexpr double kReference = 978307200;
    return {seconds - kReference};
}

/// Returns when a file was created, if the file system knows it.
std::optional<Date> birthOf(int file) {
    struct statx status {};
    if (::statx(file, "", AT_EMPTY_PATH, STATX_BTIME, &status) != 0 || (status.stx_mask & STATX_BTIME) == 0) {
        return std::nullopt;
    }
    return dateFromUnixTime(static_cast<double>(status.stx_btime.tv_sec) +
                            static_cast<double>(status.stx_btime.tv_nsec) / 1e9);
}

static_assert(media::kMostListedTracks <= kMostMovieTracks && media::kMostListedTags <= kMostMovieTags &&
                  media::kMostListedChapters <= kMostMovieChapters &&
                  media::kLongestListedTitle <= kLongestMovieTitle && media::kLongestListedKey <= kLongestMovieTagKey &&
                  media::kLongestListedValue <= kLongestMovieTag,
              "the server accepts every list that is passed on");

Size sizeOf(media::Extent extent) {
    return {static_cast<double>(extent.width), static_cast<double>(extent.height)};
}

Value describeTrack(const media::ListedTrack& track, std::size_t index) {
    Dictionary entry{{kResultMovieTrackIndex, static_cast<std::int64_t>(index)},
                     {kResultMovieTrackKind, track.kind},
                     {kResultMovieTrackCodec, track.codec},
                     {kResultMovieTrackLanguage, track.language},
                     {kResultMovieTrackDefault, track.isDefault}};
    if (!track.title.empty()) {
        entry.set(kResultMovieTrackTitle, track.title);
    }
    if (track.dimensions) {
        entry.set(kResultMovieTrackDimensions, sizeOf(*track.dimensions));
    }
    if (track.frameRate) {
        entry.set(kResultMovieTrackFrameRate, *track.frameRate);
    }
    if (track.channels) {
        entry.set(kResultMovieTrackChannels, *track.channels);
    }
    if (track.sampleRate) {
        entry.set(kResultMovieTrackSampleRate, *track.sampleRate);
    }
    return std::make_shared<Dictionary>(std::move(entry));
}

void reportContents(KRVOperationBase& end, const media::MovieContents& contents) {
    Array tracks;
    for (const media::ListedTrack& track : contents.tracks) {
        tracks.push_back(describeTrack(track, tracks.size()));
    }
    Dictionary tags;
    for (const auto& [key, value] : contents.tags) {
        tags.set(key, value);
    }
    Array chapters;
    for (const media::ListedChapter& chapter : contents.chapters) {
        chapters.push_back(std::make_shared<Dictionary>(Dictionary{{kResultMovieChapterStart, chapter.start},
                                                                   {kResultMovieChapterEnd, chapter.end},
                                                                   {kResultMovieChapterTitle, chapter.title}}));
    }
    end.setResult(
        std::make_shared<Dictionary>(Dictionary{{kResultMovieTracks, std::move(tracks)},
                                                {kResultMovieTags, std::make_shared<Dictionary>(std::move(tags))},
                                                {kResultMovieChapters, std::move(chapters)}}));
}

void describeMovie(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    media::MovieInfo info = media::movieInfo({.source = source(job), .sourcePath = sourcePath(job)}, progress);
    Dictionary metadata;
    const auto put = [&metadata](std::string_view key, const auto& value) {
        if (value) {
            metadata.set(key, *value);
        }
    };
    const auto putText = [&metadata](std::string_view key, const std::string& text) {
        if (!text.empty()) {
            metadata.set(key, text);
        }
    };
    putText(kMediaMetadataCodec, info.codecs);
    put(kMediaMetadataDuration, info.duration);
    if (info.dimensions) {
        metadata.set(kMediaMetadataDimensions, sizeOf(*info.dimensions));
    }
    putText(kMediaMetadataAudio, info.audio);
    putText(kMediaMetadataPath, sourcePath(job));
    put(kMediaMetadataFrameRate, info.frameRate);
    put(kMediaMetadataCreation, info.created ? dateFromUnixTime(*info.created) : birthOf(source(job)));
    struct stat status {};
    if (::fstat(source(job), &status) == 0) {
        metadata.set(kMediaMetadataSize, static_cast<std::int64_t>(status.st_size));
        metadata.set(kMediaMetadataModified, dateFromUnixTime(static_cast<double>(status.st_mtim.tv_sec) +
                                                              static_cast<double>(status.st_mtim.tv_nsec) / 1e9));
    }
    if (!info.poster.empty()) {
        const auto* const bytes = reinterpret_cast<const std::byte*>(info.poster.data());
        metadata.set(kMediaMetadataPoster, Data(bytes, bytes + info.poster.size()));
    }
    end.setMetadata(std::make_shared<const Dictionary>(std::move(metadata)));
    reportContents(end, info.contents);
    reportTruncation(end, info.truncatedAt);
}

void findInterestingTimes(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    media::InterestingTimesRequest request{.source = source(job), .sourcePath = sourcePath(job), .track = {}};
    if (const Value* const track = job.record->arguments()->find(kArgumentTrackIndex)) {
        request.track = track->integerValue();
    }
    const media::InterestingTimes times = media::interestingTimes(request, progress);
    Array values(times.values.begin(), times.values.end());
    setResult(end, kResultInterestingTimes,
              std::make_shared<Dictionary>(Dictionary{{kResultInterestingTimeValues, std::move(values)},
                                                      {kResultInterestingTimeTimescale, times.timescale}}));
    reportTruncation(end, times.truncatedAt);
}

struct Row {
    OperationType type;
    /// For work whose memory is worth keeping: a few frames, of which each would be freed and allocated again.
    bool reusesMemory;
    void (*work)(const Job& job, media::ProgressSink& progress, KRVOperationBase& end);
};
constexpr std::array<Row, 6> kWork{{
    {OpEncodeVideo, false, &encode},
    {OpCreateThumbnails, true, &makeThumbnails},
    {OpProvideMetadata, true, &describeMovie},
    {OpMuxAudioTo2ch, false, &mixToStereo},
    {OpMergeSources, false, &merge},
    {OpGetInterestingTimes, true, &findInterestingTimes},
}};

void work(const Job& job, media::ProgressSink& progress, KRVOperationBase& end) {
    media::FFmpegLog::instance().clear();
    for (const Row& row : kWork) {
        if (row.type == job.record->operationType()) {
            if (row.reusesMemory) {
                reuseMemory();
            }
            row.work(job, progress, end);
            return;
        }
    }
    throw media::Failure({.cause = FailureCause::InternalError, .reason = "the worker does not know this operation"});
}

}  // namespace

KRVOperationBase::Ref performRequest(const WorkerChannel::Message& message, WorkerChannel& channel,
                                     const media::Font& font) {
    const Job job{message.record, message.files, font};
    const auto end = std::make_shared<KRVOperationBase>();
    end->setOperationType(OpReturnResult);
    try {
        ChannelProgress progress(channel);
        work(job, progress, *end);
        end->setProgress(1.0F, true);
    } catch (const media::Failure& failure) {
        end->setError(makeError(*job.record, failure));
    } catch (const std::bad_alloc&) {
        end->setError(makeError(*job.record, {.cause = FailureCause::OutOfMemory}));
    } catch (const std::exception& problem) {
        end->setError(makeError(*job.record, {.cause = FailureCause::InternalError, .reason = problem.what()}));
    }
    return end;
}

bool canPerform(std::int32_t type) noexcept {
    return std::any_of(kWork.begin(), kWork.end(), [type](const Row& row) { return row.type == type; });
}

}  // namespace krv::server
