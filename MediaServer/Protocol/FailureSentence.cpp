#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include <fmt/args.h>
#include <fmt/format.h>

#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

using Code = OperationErrorCode;

/// Which file the cause is about. The phrases call a source "it".
enum class About : std::uint8_t { Source, Destination, Nothing };

/// One cause: its code and how the sentence goes on after "Cannot convert holiday.mov: ". The phrase may contain
/// {subject}, {detail}, {destination} (a file name), {system} (the system's error in words) and {reason} (FFmpeg's text
/// in words).
struct Row {
    FailureCause cause;
    Code code;
    About about;
    std::string_view phrase;
};

using C = FailureCause;
constexpr auto kRows = std::to_array<Row>({
    {C::ShuttingDown, Code::CannotAcceptWork, About::Nothing, "the media server is shutting down"},
    {C::QueueFull, Code::CannotAcceptWork, About::Nothing, "too many operations are waiting"},
    {C::OutOfDescriptors, Code::CannotAcceptWork, About::Nothing, "the media server has too many files open"},
    {C::TooManyDrivesDoNotRespond, Code::CannotAcceptWork, About::Nothing,
     "too many files are on drives that do not respond"},
    {C::OtherPidNamespace, Code::CannotAcceptWork, About::Nothing, "the media server runs in another pid namespace"},
    {C::UnknownOperation, Code::UnknownOperation, About::Nothing,
     "the media server has no operation \"{subject}\", or has dropped its result"},
    {C::UnreadableSource, Code::UnreadableSource, About::Source, "it cannot be read because {system}"},
    {C::SourceDoesNotRespond, Code::UnreadableSource, About::Source, "its drive does not respond"},
    {C::SourceIsFolder, Code::UnusableSource, About::Source, "it is a folder"},
    {C::SourceIsNotAFile, Code::UnusableSource, About::Source, "it is not a regular file"},
    {C::SourceIsEmpty, Code::UnusableSource, About::Source, "the file is empty"},
    {C::UnknownFormat, Code::UnusableSource, About::Source, "it is not in a known media format"},
    {C::UnsupportedFormat, Code::UnusableSource, About::Source, "its format ({subject}) is not supported"},
    {C::RefersToOtherFiles, Code::UnusableSource, About::Source,
     "its format ({subject}) refers to other files, which are never opened"},
    {C::NoTracks, Code::UnusableSource, About::Source, "it has no tracks"},
    {C::NoVideoTrack, Code::UnusableSource, About::Source, "it has no video track"},
    {C::NoAudioTrack, Code::UnusableSource, About::Source, "it has no audio track"},
    {C::NoVideoOrAudioTrack, Code::UnusableSource, About::Source, "it has neither a video nor an audio track"},
    {C::NoPlayableTrack, Code::UnusableSource, About::Source, "it has no track that can be played"},
    {C::Damaged, Code::UnusableSource, About::Source, "{reason}"},
    {C::UnknownCodec, Code::UnusableSource, About::Source, "its codec {subject} cannot be decoded"},
    {C::NeedsTooMuchMemory, Code::UnusableSource, About::Source, "it claims to need more memory than there is"},
    {C::UnwritableDestination, Code::UnwritableDestination, About::Destination,
     "{destination} cannot be written because {system}"},
    {C::DestinationIsNotAFile, Code::UnwritableDestination, About::Destination, "{destination} is not a regular file"},
    {C::DestinationOfAnotherUser, Code::UnwritableDestination, About::Destination,
     "{destination} belongs to another user, and its folder lets only that user replace it"},
    {C::DestinationDoesNotRespond, Code::UnwritableDestination, About::Destination,
     "the drive of {destination} does not respond"},
    {C::NoContainer, Code::Unsupported, About::Destination,
     "the name {destination} has no extension that selects a container"},
    {C::UnsupportedContainer, Code::Unsupported, About::Destination, "the container \"{subject}\" is not supported"},
    {C::ContainerCannotHold, Code::Unsupported, About::Destination, "the container \"{subject}\" cannot hold {detail}"},
    {C::EditsCannotBeCopied, Code::Unsupported, About::Source,
     "it has cuts between key frames, which cannot be copied; convert it instead"},
    {C::ContainerRefusesTracks, Code::Unsupported, About::Destination,
     "the container \"{subject}\" does not accept these tracks"},
    {C::UnsupportedCodec, Code::Unsupported, About::Destination, "the codec {subject} is not supported"},
    {C::WrongKindOfCodec, Code::Unsupported, About::Destination, "the codec {subject} is not {detail}"},
    {C::UndecodableCodec, Code::Unsupported, About::Source, "its codec {subject} cannot be decoded"},
    {C::UnsupportedEncodingType, Code::Unsupported, About::Destination, "the encoding type {subject} does not exist"},
    {C::UnsupportedSetting, Code::Unsupported, About::Destination, "the setting \"{subject}\" {detail}"},
    {C::SettingDoesNotApply, Code::Unsupported, About::Destination,
     "the setting \"{subject}\" does not apply to {detail}"},
    {C::ValueOutOfRange, Code::Unsupported, About::Destination, "the {subject} is not {detail}"},
    {C::UnsupportedChannels, Code::Unsupported, About::Destination, "{detail} does not support {subject} channels"},
    {C::EncoderRefuses, Code::Unsupported, About::Destination, "the {subject} encoder does not accept these settings"},
    {C::UnconvertibleAudio, Code::Unsupported, About::Source, "its audio channels cannot be converted"},
    {C::UnconvertibleSubtitles, Code::Unsupported, About::Source, "its {subject} subtitles cannot be converted"},
    {C::WouldDropTrack, Code::Unsupported, About::Source, "it would lose the {subject}: {detail}"},
    {C::WorkerCrashed, Code::WorkerFailed, About::Source, "it crashed the worker process"},
    {C::OutOfMemory, Code::WorkerFailed, About::Source, "there was not enough memory"},
    {C::OutOfTime, Code::WorkerFailed, About::Source, "there was no progress for {subject}"},
    {C::InternalError, Code::Internal, About::Source, "an internal error occurred"},
    {C::WorkerDidNotStart, Code::Internal, About::Nothing, "the worker process did not start"},
    {C::UnknownOperationType, Code::InvalidArgument, About::Nothing, "the operation type {subject} does not exist"},
    {C::InvalidArgument, Code::InvalidArgument, About::Nothing, "the argument \"{subject}\" {detail}"},
    {C::NoSuchTrack, Code::InvalidArgument, About::Source, "it has no track {subject}; it has {detail} in all"},
    {C::NotAProcess, Code::InvalidArgument, About::Nothing,
     "the argument \"pidRegInfoPID\" is {subject}, which is not a living process of this user"},
    {C::SameFile, Code::SameFile, About::Source, "source and destination are the same file"},
});

const Row& rowOf(FailureCause cause) noexcept {
    return kRows.at(static_cast<std::size_t>(cause));
}

static_assert(std::is_sorted(kRows.begin(), kRows.end(),
                             [](const Row& a, const Row& b) { return a.cause < b.cause; }) &&
                  kRows.size() == static_cast<std::size_t>(FailureCause::SameFile) + 1,
              "one row for each cause, in the order of the enumeration");

/// Error numbers that a person meets, in words that follow "because".
std::string systemPhrase(int number) {
    switch (number) {
    case EACCES:
    case EPERM:
        return "permission is denied";
    case EIO:
        return "the disk reports an error";
    case ENOSPC:
        return "the disk is full";
    case EDQUOT:
        return "the disk quota is used up";
    case EROFS:
        return "the file system is read-only";
    case EISDIR:
        return "it is a folder";
    case ENOTDIR:
        return "a part of the path is not a folder";
    case EFBIG:
        return "it would be too large for the file system";
    case ENAMETOOLONG:
        return "its name is too long";
    case ELOOP:
        return "its symbolic links form a loop";
    case EMFILE:
    case ENFILE:
        return "too many files are open";
    default:
        return fmt::format("of a system error ({})", std::strerror(number));
    }
}

/// FFmpeg's phrases that a person would not understand, in words. The phrase itself stays in the technical reason.
struct Translation {
    std::string_view phrase;
    std::string_view words;
};
constexpr auto kTranslations = std::to_array<Translation>({
    {"moov atom not found", "its index is missing, so it is incomplete or not a movie"},
    {"EBML header parsing failed", "its header is damaged"},
    {"error reading header", "its header is damaged"},
    {"Could not find codec parameters", "it is too damaged to tell the format of a track"},
    {"End of file", "it ends too early"},
});
constexpr std::string_view kDamaged = "it is too damaged to use";

std::string_view inWords(std::string_view reason) {
    for (const Translation& each : kTranslations) {
        if (reason.find(each.phrase) != std::string_view::npos) {
            return each.words;
        }
    }
    return kDamaged;
}

/// Cuts off a text that is longer than any path, between two characters. Errors are kept and sent, and what a request
/// says may be of any length.
void shorten(std::string& text) {
    constexpr std::string_view kEllipsis = "…";
    if (text.size() <= PATH_MAX) {
        return;
    }
    std::size_t end = PATH_MAX - kEllipsis.size();
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
    }
    text.resize(end);
    text += kEllipsis;
}

/// Returns the last name in a path, which may have slashes behind it.
std::string fileName(const std::string& path) {
    const auto last = path.find_last_not_of('/');
    if (last == std::string::npos) {
        return path.substr(0, 1);
    }
    std::string name = path.substr(0, last + 1);
    name.erase(0, name.rfind('/') + 1);
    shorten(name);
    return name;
}

std::string destinationName(const std::string& path) {
    return path.empty() ? "the output" : fileName(path);
}

/// Whether a conversion keeps audio only, going by its type and the destination's extension.
bool extractsAudio(const KRVOperationBase& request, std::string_view destination) {
    constexpr std::array<std::string_view, 6> kAudioContainers{".m4a", ".mka", ".wav", ".mp3", ".flac", ".ogg"};
    std::string lower(destination);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return request.encodingType() == VideoConversion::AudioOnly ||
           std::any_of(kAudioContainers.begin(), kAudioContainers.end(),
                       [&](std::string_view extension) { return lower.ends_with(extension); });
}

/// Returns the operation in words that follow "Cannot". source and destination are file names.
std::string attempt(const KRVOperationBase& request, const std::string& source, const std::string& destination) {
    switch (request.operationType()) {
    case OpEncodeVideo:
        if (request.encodingFlattenOnly()) {
            return "flatten " + source;
        }
        return (extractsAudio(request, destination) ? "extract audio from " : "convert ") + source;
    case OpCreateThumbnails:
        return "make thumbnails of " + source;
    case OpProvideMetadata:
        return "describe " + source;
    case OpMuxAudioTo2ch:
        return "mix the audio of " + source + " down to stereo";
    case OpMergeSources:
        return "merge " + source;
    case OpGetInterestingTimes:
        return "find interesting times of " + source;
    case OpRegisterWithServer:
        return "register the process";
    case OpUnregisterFromServer:
        return "unregister the process";
    case OpCancelOperation:
        return "cancel the operation";
    case OpCancelAllOperations:
        return "cancel the operations";
    case OpProgressAndCompletion:
        return "report the operation's progress";
    case OpReturnResult:
        return "return the operation's result";
    case OpRemoveReturnResult:
        return "remove the operation's result";
    case OpHTTPServerTesting:
        return "run the self-test";
    default:
        return "carry out the request";
    }
}

/// How "Cannot convert holiday.mov" goes on where the destination is to blame and the phrase does not name it.
std::string destinationSuffix(const KRVOperationBase& request, const Row& row, const std::string& destination) {
    const MediaOperation* const operation = mediaOperation(request.operationType());
    if (!operation || operation->destination != MediaOperation::Destination::File || row.about != About::Destination ||
        row.phrase.find("{destination}") != std::string_view::npos) {
        return {};
    }
    return (operation->sources == MediaOperation::Sources::Many ? " into " : " to ") + destination;
}

/// The file name of the source that is meant, or words for all sources.
std::string sourceName(const KRVOperationBase& request, const std::vector<std::string>& sources,
                       const Failure& failure) {
    if (failure.source && *failure.source < sources.size()) {
        return fileName(sources[*failure.source]);
    }
    const MediaOperation* const operation = mediaOperation(request.operationType());
    if (operation && operation->sources == MediaOperation::Sources::Many) {
        return sources.empty() ? "movies" : fmt::format("{} movies", sources.size());
    }
    return sources.empty() || sources.front().empty() ? "a movie" : fileName(sources.front());
}

std::string pathMeant(const KRVOperationBase& request, const std::vector<std::string>& sources,
                      const Failure& failure) {
    if (!failure.path.empty()) {
        return failure.path;
    }
    if (!mediaOperation(request.operationType())) {
        return {};
    }
    switch (rowOf(failure.cause).about) {
    case About::Source:
        return sources.empty() ? std::string() : sources.at(std::min(failure.source.value_or(0), sources.size() - 1));
    case About::Destination:
        return request.encodingDestinationFilename().value_or("");
    case About::Nothing:
        break;
    }
    return {};
}

std::string_view phraseOf(const Row& row, const Failure& failure) {
    if (failure.errorNumber != ENOENT) {
        return row.phrase;
    }
    return row.about == About::Source ? "the file does not exist" : "the folder of {destination} does not exist";
}

std::string reasonOf(const Failure& failure, const std::string& phrase) {
    if (!failure.reason.empty()) {
        return failure.reason;
    }
    return failure.errorNumber != 0 ? std::strerror(failure.errorNumber) : phrase;
}

}  // namespace

std::shared_ptr<const Error> makeError(const KRVOperationBase& request, const Failure& given) {
    Failure failure = given;
    for (std::string* const text : {&failure.subject, &failure.detail, &failure.reason, &failure.path}) {
        shorten(*text);
    }
    const Row& row = rowOf(failure.cause);
    const std::vector<std::string> sources = sourcesOf(request);
    const std::string path = pathMeant(request, sources, failure);
    const std::string destination = destinationName(
        row.about == About::Destination && !path.empty() ? path : request.encodingDestinationFilename().value_or(""));
    const std::string phrase =
        fmt::format(fmt::runtime(phraseOf(row, failure)), fmt::arg("subject", failure.subject),
                    fmt::arg("detail", failure.detail), fmt::arg("destination", destination),
                    fmt::arg("system", systemPhrase(failure.errorNumber)), fmt::arg("reason", inWords(failure.reason)));
    Dictionary userInfo{
        {NSLocalizedDescriptionKey,
         fmt::format("Cannot {}{}: {}.", attempt(request, sourceName(request, sources, failure), destination),
                     destinationSuffix(request, row, destination), phrase)},
        {NSLocalizedFailureReasonErrorKey, reasonOf(failure, phrase)}};
    // No file has a longer path.
    if (!path.empty() && path.size() < PATH_MAX) {
        userInfo.set(kErrorFilePath, path);
    }
    if (failure.errorNumber > 0 && failure.errorNumber <= kLargestErrorNumber) {
        userInfo.set(kErrorNumber, failure.errorNumber);
    }
    return Error::make(std::string(kMediaServerErrorDomain), static_cast<std::int64_t>(row.code), std::move(userInfo));
}

OperationErrorCode codeOf(FailureCause cause) noexcept {
    return rowOf(cause).code;
}

std::span<const FailureCause> failureCauses() noexcept {
    static constexpr auto kCauses = [] {
        std::array<FailureCause, kRows.size()> causes{};
        std::transform(kRows.begin(), kRows.end(), causes.begin(), [](const Row& row) { return row.cause; });
        return causes;
    }();
    return kCauses;
}

}  // namespace krv::server
