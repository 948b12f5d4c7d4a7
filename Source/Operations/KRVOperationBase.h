#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Operations/EncodingParameters.h>
#include <KRVQTProcessClient/Operations/OperationKeys.h>
#include <KRVQTProcessClient/Operations/OperationProgress.h>
#include <KRVQTProcessClient/Operations/OperationType.h>

namespace krv {

class KeyedUnarchiver;

/// Instructions for the server's self-test operation.
struct TestOpInfo {
    std::int8_t shouldError = 0;
    std::int8_t shouldComplete = 0;
    std::int8_t shouldThrow = 0;
    std::int8_t shouldCrash = 0;
    /// Seconds. Travels as its low 32 bits.
    std::int64_t timeToLive = 0;
    friend bool operator==(const TestOpInfo&, const TestOpInfo&) = default;
};

/// The one record that travels between client and server: every request, and every reply to it.
///
/// A request is made by a factory and updated in place from the replies, once with copyFrom and then with
/// copyProgressInfoFrom. Cancellation is sticky: neither of the two ever clears it.
///
/// Threads: the object-valued fields (error, uniqueID, arguments, result, progressDelegate) are whole under concurrent
/// get and set. The scalars and the contents of the dictionaries have no lock; a record must not be changed while
/// it is archived.
class KRV_EXPORT KRVOperationBase final : public Archivable {
public:
    using Ref = std::shared_ptr<KRVOperationBase>;

    /// Type 0, no result, and this process's id as the only argument.
    KRVOperationBase();
    ~KRVOperationBase() override;
    KRVOperationBase(const KRVOperationBase&) = delete;
    KRVOperationBase& operator=(const KRVOperationBase&) = delete;

    // Factories, one for each row of the table of types (two for encoding). Paths are UTF-8.

    [[nodiscard]] static Ref numberOfOperationsOperation();
    [[nodiscard]] static Ref readyToProcessRequestOperation();
    [[nodiscard]] static Ref registerWithServerOperation();
    [[nodiscard]] static Ref unregisterFromServerOperation();
    [[nodiscard]] static Ref amIRegisteredOperation();
    [[nodiscard]] static Ref encodeVideoOperation(std::string_view source, std::string_view dest);
    /// Encoding type 3 (Custom), not flatten-only. Settings may be null; they are shared, not copied.
    [[nodiscard]] static Ref encodeVideoOperation(std::string_view source, std::string_view dest,
                                                  std::shared_ptr<const AudioEncodingParameters> audioSettings,
                                                  std::shared_ptr<const VideoEncodingParameters> videoSettings);
    [[nodiscard]] static Ref createThumbnailsForVideo(std::string_view source, std::string_view toFolder,
                                                      Size withSize);
    [[nodiscard]] static Ref provideMetadataFor(std::string_view source);
    [[nodiscard]] static Ref muxAudioTo2chOperation(std::string_view source, std::string_view dest);
    /// sources: the paths, in order; stored unchanged.
    [[nodiscard]] static Ref mergeSourcesOperation(Value sources, std::string_view dest, bool useShortestTrack);
    /// trackIndex counts only when specificTrack is true.
    [[nodiscard]] static Ref getInterestingTimesOperation(std::string_view source, bool specificTrack,
                                                          std::int32_t trackIndex);
    // These address an operation by the identifier that the server gave it.
    [[nodiscard]] static Ref cancelOperation(std::optional<std::string> operationID);
    [[nodiscard]] static Ref cancelAllOperationsOperation();
    [[nodiscard]] static Ref progressAndCompletionOperation(std::optional<std::string> operationID);
    [[nodiscard]] static Ref returnResultForOperation(std::optional<std::string> operationID);
    [[nodiscard]] static Ref removeReturnResultForOperation(std::optional<std::string> operationID);
    [[nodiscard]] static Ref shutdownCommand();
    /// A self-test that completes after three seconds.
    [[nodiscard]] static Ref httpServerTestingOperation();

    // Fields.

    [[nodiscard]] std::int32_t operationType() const noexcept { return operationType_; }
    void setOperationType(std::int32_t type) noexcept { operationType_ = type; }
    /// Given by the server; absent in a new request.
    [[nodiscard]] std::optional<std::string> uniqueID() const;
    void setUniqueID(std::optional<std::string> uniqueID);
    [[nodiscard]] std::shared_ptr<const Error> error() const;
    void setError(std::shared_ptr<const Error> error);
    /// Fraction done, as the server reports it.
    [[nodiscard]] float progress() const noexcept { return progress_; }
    void setProgress(float progress) noexcept { progress_ = progress; }
    [[nodiscard]] bool completed() const noexcept { return completed_; }
    void setCompleted(bool completed) noexcept { completed_ = completed; }
    [[nodiscard]] bool cancelled() const noexcept { return cancelled_; }
    void setCancelled(bool cancelled) noexcept { cancelled_ = cancelled; }
    /// Null only when it was set so.
    [[nodiscard]] std::shared_ptr<Dictionary> arguments() const;
    void setArguments(std::shared_ptr<Dictionary> arguments);
    [[nodiscard]] std::shared_ptr<Dictionary> result() const;
    void setResult(std::shared_ptr<Dictionary> result);
    [[nodiscard]] bool isClientRegistered() const noexcept { return isClientRegistered_; }
    void setIsClientRegistered(bool registered) noexcept { isClientRegistered_ = registered; }
    /// Stays in this process: it is never archived.
    [[nodiscard]] std::shared_ptr<OperationProgress> progressDelegate() const;
    void setProgressDelegate(std::shared_ptr<OperationProgress> delegate);
    /// The record's own instructions, to be changed in place; good as long as the record.
    [[nodiscard]] TestOpInfo* testInfo() noexcept { return &testInfo_; }
    [[nodiscard]] const TestOpInfo* testInfo() const noexcept { return &testInfo_; }

    /// Stores both and does nothing else.
    void setProgress(float progress, bool completed) noexcept;
    void clientIsRegisteredWithServer() noexcept { isClientRegistered_ = true; }

    // Views onto `arguments`: null, 0, false, empty or the zero size when there is no such entry.

    [[nodiscard]] std::optional<std::string> encodingSourceFilename() const;
    [[nodiscard]] std::optional<std::string> encodingDestinationFilename() const;
    [[nodiscard]] std::shared_ptr<const VideoEncodingParameters> encodingVideoParameters() const;
    [[nodiscard]] std::shared_ptr<const AudioEncodingParameters> encodingAudioParameters() const;
    [[nodiscard]] std::int32_t encodingType() const;
    [[nodiscard]] bool encodingFlattenOnly() const;
    [[nodiscard]] Size thumbnailInfoSize() const;
    [[nodiscard]] Value regInfoPID() const;
    void setRegInfoPID(Value pid);
    [[nodiscard]] Value numOpsNumberOfOperations() const;
    [[nodiscard]] std::shared_ptr<const Array> numOpsNames() const;
    [[nodiscard]] std::shared_ptr<const Dictionary> metadata() const;
    /// Stores the metadata in `arguments`. Null is stored as a null value, which travels as a null object; it does not
    /// remove the entry. Does nothing if `arguments` is null.
    void setMetadata(std::shared_ptr<const Dictionary> metadata);

    // Texts.

    /// The name of the type, such as "Encode video".
    [[nodiscard]] std::string nameFromType() const;
    /// The name inside double-quote characters.
    [[nodiscard]] std::string operationName() const;
    /// The main arguments in a few words; empty for types without any.
    [[nodiscard]] std::string operationStateDescription() const;
    [[nodiscard]] std::string description() const override;

    // Folding a reply into a request.

    /// Takes everything that a reply says; keeps the own type, test instructions and delegate. A null reply clears
    /// error, uniqueID, progress, completed and isClientRegistered.
    void copyFrom(const std::shared_ptr<const KRVOperationBase>& other);
    /// Takes error, progress, completed and cancelled only; a null reply changes nothing.
    void copyProgressInfoFrom(const std::shared_ptr<const KRVOperationBase>& other);

    // Archive form.

    /// The record as an archive. Raises Exception "NSInvalidArgumentException" when it holds something that cannot be
    /// archived.
    [[nodiscard]] Data convertToData() const;
    /// The record in an archive; null when the bytes are none, or hold something else.
    [[nodiscard]] static Ref operationFromData(const std::shared_ptr<const Data>& data);
    /// The object in an archive if it is a T; null for null, empty and malformed data and for other objects.
    template <typename T>
    [[nodiscard]] static std::shared_ptr<T> objectFromData(const std::shared_ptr<const Data>& data) {
        return std::dynamic_pointer_cast<T>(archivableFromData(data));
    }
    /// Whatever is in an archive, for showing it; null as above.
    [[nodiscard]] static Value valueFromData(const std::shared_ptr<const Data>& data);

    [[nodiscard]] std::string_view className() const noexcept override { return "KRVOperationBase"; }
    void encodeWithCoder(KeyedArchiver& coder) const override;
    [[nodiscard]] static std::shared_ptr<Archivable> initWithCoder(KeyedUnarchiver& coder);

private:
    /// For decoding: nothing is filled in.
    struct Undecoded {};
    explicit KRVOperationBase(Undecoded);

    [[nodiscard]] static Ref ofType(OperationType type);
    [[nodiscard]] static Ref addressing(OperationType type, std::optional<std::string> operationID);
    [[nodiscard]] static std::shared_ptr<Archivable> archivableFromData(const std::shared_ptr<const Data>& data);
    /// The identifier itself, shared and not copied.
    [[nodiscard]] Value::StringRef sharedUniqueID() const;
    void setSharedUniqueID(Value::StringRef uniqueID);
    [[nodiscard]] Value argument(std::string_view key) const;
    void setArgument(std::string_view key, Value value);

    std::int32_t operationType_ = 0;
    float progress_ = 0.0F;
    bool completed_ = false;
    bool cancelled_ = false;
    bool isClientRegistered_ = false;
    TestOpInfo testInfo_;

    Guarded<Value::StringRef> uniqueID_;
    Guarded<std::shared_ptr<const Error>> error_;
    Guarded<std::shared_ptr<Dictionary>> arguments_;
    Guarded<std::shared_ptr<Dictionary>> result_;
    Guarded<std::shared_ptr<OperationProgress>> progressDelegate_;
};

}  // namespace krv
