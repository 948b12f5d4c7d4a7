#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

/// The keys of an operation record's dictionaries. Their texts are part of the wire form.
namespace krv {

// Keys of `arguments`.

/// String: path of the source movie.
KRV_EXPORT extern const std::string_view kArgumentEncodingSourceFilename;
/// String: path of the destination file; for thumbnails, of the destination folder.
KRV_EXPORT extern const std::string_view kArgumentEncodingDestinationFilename;
/// VideoEncodingParameters.
KRV_EXPORT extern const std::string_view kArgumentEncodingVideoParameters;
/// AudioEncodingParameters.
KRV_EXPORT extern const std::string_view kArgumentEncodingAudioParameters;
/// Boolean.
KRV_EXPORT extern const std::string_view kArgumentEncodingFlattenOnly;
/// Integer: an encoding type (see VideoConversion).
KRV_EXPORT extern const std::string_view kArgumentEncodingType;
/// Integer: the sending process's id.
KRV_EXPORT extern const std::string_view kArgumentPIDRegInfo;
/// Integer: operations queued and running on the server.
KRV_EXPORT extern const std::string_view kArgumentNumOpsNumberOnServer;
/// Array of strings: their names.
KRV_EXPORT extern const std::string_view kArgumentNumOpsNames;
/// Size in pixels into which each thumbnail is fitted; a side of 0 is not limited.
KRV_EXPORT extern const std::string_view kArgumentThumbnailInfoSize;
/// Integer, 1 to 9999: the number of thumbnails. Default 12.
KRV_EXPORT extern const std::string_view kArgumentThumbnailCount;
/// Dictionary under the kMediaMetadata keys.
KRV_EXPORT extern const std::string_view kArgumentMovieInfoMetadata;
/// Array of strings: paths of the sources, in order.
KRV_EXPORT extern const std::string_view kArgumentMergeSources;
/// Boolean.
KRV_EXPORT extern const std::string_view kArgumentMergeSourcesUseShortest;
/// Float64, frames per second: overrides the frame rate of a merge.
KRV_EXPORT extern const std::string_view kArgumentMergeFrameRate;
/// Size in pixels: overrides the size of a merge.
KRV_EXPORT extern const std::string_view kArgumentMergeSize;
/// Integer: index of a track.
KRV_EXPORT extern const std::string_view kArgumentTrackIndex;
/// Integer, in a reply about progress: how many operations of its kind run or wait before an operation that waits.
/// Missing once it runs.
KRV_EXPORT extern const std::string_view kArgumentQueuePosition;

// Keys of `result` of every media operation whose source was truncated.

/// Float64: where the source ends, in seconds.
KRV_EXPORT extern const std::string_view kResultSourceTruncatedAt;
/// Array, for a merge: the same for each source, null where it was whole.
KRV_EXPORT extern const std::string_view kResultSourcesTruncatedAt;

// Keys of `result` of every operation that writes a movie.

/// Array of dictionaries with the entries below: the tracks of the sources that the movie does not have, and the
/// properties of tracks that it could not keep. Empty if nothing was lost.
KRV_EXPORT extern const std::string_view kResultDroppedTracks;
/// Integer, for a merge only: number of the source, from 0.
KRV_EXPORT extern const std::string_view kResultDroppedTrackSource;
/// Integer: index of the track, as in kArgumentTrackIndex; −1: what was dropped belongs to the whole movie.
KRV_EXPORT extern const std::string_view kResultDroppedTrackIndex;
/// String: "video", "audio", "subtitle", "data", "attachment" or "cover" for a track; "alpha", "stereo3D",
/// "channels", "title", "language" or "flag" for a property of a track that was kept; "chapters" for those of the movie.
KRV_EXPORT extern const std::string_view kResultDroppedTrackKind;
/// String: name of the codec, or a four-character code; may be empty.
KRV_EXPORT extern const std::string_view kResultDroppedTrackCodec;
/// String: language tag of the track; may be empty.
KRV_EXPORT extern const std::string_view kResultDroppedTrackLanguage;
/// String for a person, such as "mp4 files cannot hold bitmap subtitles".
KRV_EXPORT extern const std::string_view kResultDroppedTrackReason;

// Keys of `result` of the description of a movie.

/// Array of dictionaries with the entries below: the tracks of the movie, at most 1000, in their order.
KRV_EXPORT extern const std::string_view kResultMovieTracks;
/// Integer: index of the track, as in kArgumentTrackIndex.
KRV_EXPORT extern const std::string_view kResultMovieTrackIndex;
/// String: "video", "audio", "subtitle", "data", "attachment" or "cover".
KRV_EXPORT extern const std::string_view kResultMovieTrackKind;
/// String: name of the codec for people, such as "H.264", or a four-character code; may be empty.
KRV_EXPORT extern const std::string_view kResultMovieTrackCodec;
/// String: language tag of the track; may be empty.
KRV_EXPORT extern const std::string_view kResultMovieTrackLanguage;
/// String: title of the track. Missing if it has none.
KRV_EXPORT extern const std::string_view kResultMovieTrackTitle;
/// Boolean: whether the track is one of those that are played unless others are chosen.
KRV_EXPORT extern const std::string_view kResultMovieTrackDefault;
/// Size, for video and covers: pixels of a frame as it is displayed upright. Missing if unknown.
KRV_EXPORT extern const std::string_view kResultMovieTrackDimensions;
/// Float64, for video: average frames per second. Missing if unknown.
KRV_EXPORT extern const std::string_view kResultMovieTrackFrameRate;
/// Integer, for audio: number of channels. Missing if unknown.
KRV_EXPORT extern const std::string_view kResultMovieTrackChannels;
/// Integer, for audio: Hz. Missing if unknown.
KRV_EXPORT extern const std::string_view kResultMovieTrackSampleRate;
/// Dictionary of at most 100 strings: the movie's tags under their common names in small letters, such as "title",
/// "artist", "album", "date" and "comment". Empty if it has none.
KRV_EXPORT extern const std::string_view kResultMovieTags;
/// Array of dictionaries with the entries below: the movie's chapters, at most 2000, in order. Empty if it has none.
KRV_EXPORT extern const std::string_view kResultMovieChapters;
/// Float64, seconds from the start of the movie.
KRV_EXPORT extern const std::string_view kResultMovieChapterStart;
/// Float64, seconds from the start of the movie; not before the start of the chapter.
KRV_EXPORT extern const std::string_view kResultMovieChapterEnd;
/// String; may be empty.
KRV_EXPORT extern const std::string_view kResultMovieChapterTitle;

// Keys of `result` of the interesting-times operation.

/// Dictionary with the two entries below.
KRV_EXPORT extern const std::string_view kResultInterestingTimes;
/// Array of integers, in units of the time scale.
KRV_EXPORT extern const std::string_view kResultInterestingTimeValues;
/// Integer: units per second.
KRV_EXPORT extern const std::string_view kResultInterestingTimeTimescale;

// Keys of `result` of the thumbnail operation.

/// Array of dictionaries with the two entries below, in the order of their times.
KRV_EXPORT extern const std::string_view kResultThumbnails;
/// String: absolute path of one thumbnail's JPEG file.
KRV_EXPORT extern const std::string_view kResultThumbnailPath;
/// Float64, seconds from the start of the movie: the time of the frame shown.
KRV_EXPORT extern const std::string_view kResultThumbnailTime;

// Keys of the movie metadata. An entry that does not apply to the movie is missing.

/// String: names of the codecs for people, such as "H.264, AAC".
KRV_EXPORT extern const std::string_view kMediaMetadataCodec;
/// Float64: seconds.
KRV_EXPORT extern const std::string_view kMediaMetadataDuration;
/// Size: pixels of a frame as it is displayed upright.
KRV_EXPORT extern const std::string_view kMediaMetadataDimensions;
/// String: codec, sample rate and channels for people, such as "AAC, 48000 Hz, stereo".
KRV_EXPORT extern const std::string_view kMediaMetadataAudio;
/// Integer: bytes of the file.
KRV_EXPORT extern const std::string_view kMediaMetadataSize;
/// String: absolute path of the file.
KRV_EXPORT extern const std::string_view kMediaMetadataPath;
/// Date: the creation time stored in the movie, else that of the file.
KRV_EXPORT extern const std::string_view kMediaMetadataCreation;
/// Date: last modification of the file.
KRV_EXPORT extern const std::string_view kMediaMetadataModified;
/// Float64: frames per second.
KRV_EXPORT extern const std::string_view kMediaMetadataFrameRate;
/// Data: a JPEG file. It contains the cover art, else an early frame that is not nearly black or uniform.
KRV_EXPORT extern const std::string_view kMediaMetadataPoster;

}  // namespace krv
