#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace krv::server {

/// Why an operation failed. Each cause has one error code and one phrase; see FailureSentence.cpp, which has the table.
///
/// In the comments, "subject" and "detail" are the fields of Failure that the cause fills in.
enum class FailureCause {
    // Code 1.
    ShuttingDown,
    QueueFull,
    OutOfDescriptors,
    TooManyDrivesDoNotRespond,
    OtherPidNamespace,
    // Code 2.
    UnknownOperation,  ///< subject: the identifier
    // Code 3.
    UnreadableSource,  ///< errorNumber is set
    SourceDoesNotRespond,
    // Code 4.
    SourceIsFolder,
    SourceIsNotAFile,
    SourceIsEmpty,
    UnknownFormat,
    UnsupportedFormat,   ///< subject: its name
    RefersToOtherFiles,  ///< subject: FFmpeg's name of the format
    NoTracks,
    NoVideoTrack,
    NoAudioTrack,
    NoVideoOrAudioTrack,
    NoPlayableTrack,
    Damaged,       ///< reason: what FFmpeg says
    UnknownCodec,  ///< subject: the codec of a merge's source, which nothing decodes
    NeedsTooMuchMemory,
    // Code 5.
    UnwritableDestination,  ///< errorNumber is set
    DestinationIsNotAFile,
    DestinationOfAnotherUser,
    DestinationDoesNotRespond,
    // Code 6.
    NoContainer,              ///< the destination's name has no extension
    UnsupportedContainer,     ///< subject: the extension
    ContainerCannotHold,      ///< subject: the extension; detail: the codec
    EditsCannotBeCopied,      ///< they cut between key frames
    ContainerRefusesTracks,   ///< subject: the extension; reason: what FFmpeg says
    UnsupportedCodec,         ///< subject: the codec
    WrongKindOfCodec,         ///< subject: the codec; detail: "a video codec" or "an audio codec"
    UndecodableCodec,         ///< subject: the source's codec
    UnsupportedEncodingType,  ///< subject: the number
    UnsupportedSetting,       ///< subject: the key; detail: what is wrong, as in "is not a number"
    SettingDoesNotApply,      ///< subject: "key" or "key=value"; detail: the codec or encoder
    ValueOutOfRange,          ///< subject: name and value, as in "quality 1.5"; detail: what is allowed
    UnsupportedChannels,      ///< subject: how many; detail: the codec
    EncoderRefuses,           ///< subject: the codec; reason: what FFmpeg says
    UnconvertibleAudio,       ///< reason: what FFmpeg says
    UnconvertibleSubtitles,   ///< subject: the codec; reason: what FFmpeg says
    WouldDropTrack,           ///< subject: what, as in "subtitle of track 3"; detail: why it would be dropped
    // Code 7.
    WorkerCrashed,  ///< reason: how the worker ended
    OutOfMemory,
    OutOfTime,  ///< subject: the limit, as in "900 seconds"
    // Code 8.
    InternalError,      ///< reason: what is known
    WorkerDidNotStart,  ///< reason: why
    // Code 9.
    UnknownOperationType,  ///< subject: the number
    InvalidArgument,       ///< subject: the key; detail: what is wrong, as in "is missing"
    NoSuchTrack,           ///< subject: the index; detail: how many tracks the movie has
    NotAProcess,           ///< subject: what the request gives as its process id
    // Code 10.
    SameFile,
};

/// A failed operation, before it is put into words.
struct Failure {
    FailureCause cause;
    std::string subject{};
    std::string detail{};
    /// The technical cause, for a log or a developer; empty: the cause's own phrase.
    std::string reason{};
    /// The system's error number, where the cause has one.
    int errorNumber = 0;
    /// Which source is meant, counted from 0, where the operation has several and one of them is to blame.
    std::optional<std::size_t> source{};
    /// The file that is meant, where it is neither a source nor the destination of the request.
    std::string path{};
};

}  // namespace krv::server
