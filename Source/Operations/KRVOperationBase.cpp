#include <utility>

#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>
#include <KRVQTProcessClient/Operations/VideoConversion.h>

namespace krv {

KRVOperationBase::KRVOperationBase()
    : arguments_(std::make_shared<Dictionary>())
    , result_(std::make_shared<Dictionary>(Dictionary::Mutability::Immutable)) {
    setRegInfoPID(std::int64_t{::getpid()});
}

KRVOperationBase::~KRVOperationBase() = default;

// Factories.

KRVOperationBase::Ref KRVOperationBase::ofType(OperationType type) {
    auto operation = std::make_shared<KRVOperationBase>();
    operation->setOperationType(type);
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::addressing(OperationType type, std::optional<std::string> operationID) {
    auto operation = ofType(type);
    operation->setUniqueID(std::move(operationID));
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::numberOfOperationsOperation() {
    return ofType(OpNumberOfOperations);
}

KRVOperationBase::Ref KRVOperationBase::readyToProcessRequestOperation() {
    return ofType(OpReadyToProcessRequests);
}

KRVOperationBase::Ref KRVOperationBase::registerWithServerOperation() {
    return ofType(OpRegisterWithServer);
}

KRVOperationBase::Ref KRVOperationBase::unregisterFromServerOperation() {
    return ofType(OpUnregisterFromServer);
}

KRVOperationBase::Ref KRVOperationBase::amIRegisteredOperation() {
    return ofType(OpAmIRegistered);
}

KRVOperationBase::Ref KRVOperationBase::encodeVideoOperation(std::string_view source, std::string_view dest) {
    auto operation = ofType(OpEncodeVideo);
    operation->setArgument(kArgumentEncodingSourceFilename, source);
    operation->setArgument(kArgumentEncodingDestinationFilename, dest);
    return operation;
}

KRVOperationBase::Ref
KRVOperationBase::encodeVideoOperation(std::string_view source, std::string_view dest,
                                       std::shared_ptr<const AudioEncodingParameters> audioSettings,
                                       std::shared_ptr<const VideoEncodingParameters> videoSettings) {
    auto operation = encodeVideoOperation(source, dest);
    if (audioSettings) {
        operation->setArgument(kArgumentEncodingAudioParameters, Value::ObjectRef(std::move(audioSettings)));
    }
    if (videoSettings) {
        operation->setArgument(kArgumentEncodingVideoParameters, Value::ObjectRef(std::move(videoSettings)));
    }
    operation->setArgument(kArgumentEncodingType, std::int32_t{VideoConversion::Custom});
    operation->setArgument(kArgumentEncodingFlattenOnly, false);
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::createThumbnailsForVideo(std::string_view source, std::string_view toFolder,
                                                                 Size withSize) {
    auto operation = ofType(OpCreateThumbnails);
    operation->setArgument(kArgumentEncodingSourceFilename, source);
    operation->setArgument(kArgumentEncodingDestinationFilename, toFolder);
    operation->setArgument(kArgumentThumbnailInfoSize, withSize);
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::provideMetadataFor(std::string_view source) {
    auto operation = ofType(OpProvideMetadata);
    operation->setArgument(kArgumentEncodingSourceFilename, source);
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::muxAudioTo2chOperation(std::string_view source, std::string_view dest) {
    auto operation = ofType(OpMuxAudioTo2ch);
    operation->setArgument(kArgumentEncodingSourceFilename, source);
    operation->setArgument(kArgumentEncodingDestinationFilename, dest);
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::mergeSourcesOperation(Value sources, std::string_view dest,
                                                              bool useShortestTrack) {
    auto operation = ofType(OpMergeSources);
    operation->setArgument(kArgumentMergeSources, std::move(sources));
    operation->setArgument(kArgumentMergeSourcesUseShortest, useShortestTrack);
    operation->setArgument(kArgumentEncodingDestinationFilename, dest);
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::getInterestingTimesOperation(std::string_view source, bool specificTrack,
                                                                     std::int32_t trackIndex) {
    auto operation = ofType(OpGetInterestingTimes);
    operation->setArgument(kArgumentEncodingSourceFilename, source);
    if (specificTrack) {
        operation->setArgument(kArgumentTrackIndex, trackIndex);
    }
    return operation;
}

KRVOperationBase::Ref KRVOperationBase::cancelOperation(std::optional<std::string> operationID) {
    return addressing(OpCancelOperation, std::move(operationID));
}

KRVOperationBase::Ref KRVOperationBase::cancelAllOperationsOperation() {
    return ofType(OpCancelAllOperations);
}

KRVOperationBase::Ref KRVOperationBase::progressAndCompletionOperation(std::optional<std::string> operationID) {
    return addressing(OpProgressAndCompletion, std::move(operationID));
}

KRVOperationBase::Ref KRVOperationBase::returnResultForOperation(std::optional<std::string> operationID) {
    return addressing(OpReturnResult, std::move(operationID));
}

KRVOperationBase::Ref KRVOperationBase::removeReturnResultForOperation(std::optional<std::string> operationID) {
    return addressing(OpRemoveReturnResult, std::move(operationID));
}

KRVOperationBase::Ref KRVOperationBase::shutdownCommand() {
    return ofType(OpShutdownServer);
}

KRVOperationBase::Ref KRVOperationBase::httpServerTestingOperation() {
    auto operation = ofType(OpHTTPServerTesting);
    *operation->testInfo() = {
        .shouldError = 0, .shouldComplete = 1, .shouldThrow = 0, .shouldCrash = 0, .timeToLive = 3};
    return operation;
}

// Object-valued fields.

std::optional<std::string> KRVOperationBase::uniqueID() const {
    const auto shared = sharedUniqueID();
    return shared ? std::optional(*shared) : std::nullopt;
}

void KRVOperationBase::setUniqueID(std::optional<std::string> uniqueID) {
    setSharedUniqueID(uniqueID ? std::make_shared<const std::string>(std::move(*uniqueID)) : nullptr);
}

Value::StringRef KRVOperationBase::sharedUniqueID() const {
    return uniqueID_.get();
}

void KRVOperationBase::setSharedUniqueID(Value::StringRef uniqueID) {
    uniqueID_.set(std::move(uniqueID));
}

std::shared_ptr<const Error> KRVOperationBase::error() const {
    return error_.get();
}

void KRVOperationBase::setError(std::shared_ptr<const Error> error) {
    error_.set(std::move(error));
}

std::shared_ptr<Dictionary> KRVOperationBase::arguments() const {
    return arguments_.get();
}

void KRVOperationBase::setArguments(std::shared_ptr<Dictionary> arguments) {
    arguments_.set(std::move(arguments));
}

std::shared_ptr<Dictionary> KRVOperationBase::result() const {
    return result_.get();
}

void KRVOperationBase::setResult(std::shared_ptr<Dictionary> result) {
    result_.set(std::move(result));
}

std::shared_ptr<OperationProgress> KRVOperationBase::progressDelegate() const {
    return progressDelegate_.get();
}

void KRVOperationBase::setProgressDelegate(std::shared_ptr<OperationProgress> delegate) {
    progressDelegate_.set(std::move(delegate));
}

void KRVOperationBase::setProgress(float progress, bool completed) noexcept {
    progress_ = progress;
    completed_ = completed;
}

// Views.

Value KRVOperationBase::argument(std::string_view key) const {
    const auto held = arguments();
    return held ? (*held)[key] : Value();
}

void KRVOperationBase::setArgument(std::string_view key, Value value) {
    if (const auto held = arguments()) {
        held->set(key, std::move(value));
    }
}

namespace {

std::optional<std::string> textOf(const Value& value) {
    const auto text = value.string();
    return text ? std::optional(*text) : std::nullopt;
}

}  // namespace

std::optional<std::string> KRVOperationBase::encodingSourceFilename() const {
    return textOf(argument(kArgumentEncodingSourceFilename));
}

std::optional<std::string> KRVOperationBase::encodingDestinationFilename() const {
    return textOf(argument(kArgumentEncodingDestinationFilename));
}

std::shared_ptr<const VideoEncodingParameters> KRVOperationBase::encodingVideoParameters() const {
    return std::dynamic_pointer_cast<const VideoEncodingParameters>(
        argument(kArgumentEncodingVideoParameters).object());
}

std::shared_ptr<const AudioEncodingParameters> KRVOperationBase::encodingAudioParameters() const {
    return std::dynamic_pointer_cast<const AudioEncodingParameters>(
        argument(kArgumentEncodingAudioParameters).object());
}

std::int32_t KRVOperationBase::encodingType() const {
    return static_cast<std::int32_t>(argument(kArgumentEncodingType).integerValue());
}

bool KRVOperationBase::encodingFlattenOnly() const {
    return argument(kArgumentEncodingFlattenOnly).boolValue();
}

Size KRVOperationBase::thumbnailInfoSize() const {
    return argument(kArgumentThumbnailInfoSize).sizeValue();
}

Value KRVOperationBase::regInfoPID() const {
    return argument(kArgumentPIDRegInfo);
}

void KRVOperationBase::setRegInfoPID(Value pid) {
    setArgument(kArgumentPIDRegInfo, std::move(pid));
}

Value KRVOperationBase::numOpsNumberOfOperations() const {
    return argument(kArgumentNumOpsNumberOnServer);
}

std::shared_ptr<const Array> KRVOperationBase::numOpsNames() const {
    return argument(kArgumentNumOpsNames).array();
}

std::shared_ptr<const Dictionary> KRVOperationBase::metadata() const {
    return argument(kArgumentMovieInfoMetadata).dictionary();
}

void KRVOperationBase::setMetadata(std::shared_ptr<const Dictionary> metadata) {
    setArgument(kArgumentMovieInfoMetadata, std::move(metadata));
}

// Texts.

std::string KRVOperationBase::nameFromType() const {
    if (const OperationTypeInfo* row = operationTypeInfo(operationType_)) {
        return std::string(row->name);
    }
    return fmt::format("Unknown operation name for type: {}", static_cast<std::uint32_t>(operationType_));
}

std::string KRVOperationBase::operationName() const {
    return '"' + nameFromType() + '"';
}

std::string KRVOperationBase::operationStateDescription() const {
    const OperationTypeInfo* row = operationTypeInfo(operationType_);
    const auto text = [this](std::string_view key) { return argument(key).description(); };
    switch (row ? row->summary : StateSummary::NoArguments) {
    case StateSummary::NoArguments:
        break;
    case StateSummary::ClientPID:
        return fmt::format("Client PID: {}", text(kArgumentPIDRegInfo));
    case StateSummary::Encoding:
        return fmt::format("File: {} -> {}, Type: {}", text(kArgumentEncodingSourceFilename),
                           text(kArgumentEncodingDestinationFilename), VideoConversion::nameForType(encodingType()));
    case StateSummary::File:
        return fmt::format("File: {}", text(kArgumentEncodingSourceFilename));
    case StateSummary::Merge:
        return fmt::format("Merge {} -> {}", text(kArgumentMergeSources), text(kArgumentEncodingDestinationFilename));
    }
    return {};
}

std::string KRVOperationBase::description() const {
    return fmt::format("{}, {}, id:{}. {}", className(), operationName(), uniqueID().value_or("(null)"),
                       operationStateDescription());
}

// Updating a request from a reply.

void KRVOperationBase::copyFrom(const std::shared_ptr<const KRVOperationBase>& other) {
    setError(other ? other->error() : nullptr);
    setSharedUniqueID(other ? other->sharedUniqueID() : nullptr);
    progress_ = other ? other->progress() : 0.0F;
    isClientRegistered_ = other && other->isClientRegistered();
    completed_ = other && other->completed();
    if (const auto result = other ? other->result() : nullptr) {
        setResult(std::make_shared<Dictionary>(result->mutableCopy()));
    }
    if (const auto arguments = other ? other->arguments() : nullptr) {
        setArguments(std::make_shared<Dictionary>(arguments->mutableCopy()));
    }
    cancelled_ = (other && other->cancelled()) || cancelled_;
}

void KRVOperationBase::copyProgressInfoFrom(const std::shared_ptr<const KRVOperationBase>& other) {
    if (!other) {
        return;
    }
    setError(other->error());
    setProgress(other->progress(), other->completed());
    cancelled_ = other->cancelled() || cancelled_;
}

}  // namespace krv
