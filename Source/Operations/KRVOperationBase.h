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

/// Instructions of the self-test operation.
struct TestOpInfo {
    std::int8_t shouldError = 0;
    std::int8_t shouldComplete = 0;
    std::int8_t shouldThrow = 0;
    std::int8_t shouldCrash = 0;
    /// Seconds. Archived as its low 32 bits.
    std::int64_t timeToLive = 0;
    friend bool operator==(const TestOpInfo&, const TestOpInfo&) = default;
};

/// The record that client and server exchange: every request, and every reply to it.
///
/// A factory makes a request. The replies update it in place, the first with copyFrom, later ones with
/// copyProgressInfoFrom. Cancellation is sticky: neither of the two clears it.
///
/// Threads: the getters and setters of the object-valued fields (error, uniqueID, arguments, result, progressDelegate)
/// are thread-safe. The scalars and the contents of the dictionaries have no lock. A record must not be changed while
/// it is archived.
class KRV_EXPORT KRVOperationBase final : public Archivable {
public:
    using Ref = std::shared_ptr<KRVOperationBase>;

    /// Creates a record of type 0 with no result and this process's id as the only argument.
    KRVOperationBase();
    /// Decodes a record.
    explicit KRVOperationBase(KeyedUnarchiver& coder);
    ~KRVOperationBase() override;
    KRVOperationBase(const KRVOperationBase&) = delete;
    KRVOperationBase& operator=(const KRVOperationBase&) = delete;

    // Factories, one per row of the table of types (two for encoding). Paths are UTF-8.

    [[nodiscard]] static Ref numberOfOperationsOperation();
    [[nodiscard]] static Ref readyToProcessRequestOperation();
    [[nodiscard]] static Ref registerWithServerOperation();
    [[nodiscard]] static Ref unregisterFromServerOperation();
    [[nodiscard]] static Ref amIRegisteredOperation();
    [[nodiscard]] static Ref encodeVideoOperation(std::string_view source, std::string_view dest);
    /// Encoding type 3 (Custom), not flatten-only. Settings may be null. They are shared, not copied.
    [[nodiscard]] static Ref encodeVideoOperation(std::string_view source, std::string_view dest,
                                                  std::shared_ptr<const AudioEncodingParameters> audioSettings,
                                                  std::shared_ptr<const VideoEncodingParameters> videoSettings);
    [[nodiscard]] static Ref createThumbnailsForVideo(std::string_view source, std::string_view toFolder,
                                                      Size withSize);
    [[nodiscard]] static Ref provideMetadataFor(std::string_view source);
    [[nodiscard]] static Ref muxAudioTo2chOperation(std::string_view source, std::string_view dest);
    /// sources: array of the paths, in order; stored unchanged.
    [[nodiscard]] static Ref mergeSourcesOperation(Value sources, std::string_view dest, bool useShortestTrack);
    /// trackIndex is used only if specificTrack is true.
    [[nodiscard]] static Ref getInterestingTimesOperation(std::string_view source, bool specificTrack,
                                                          std::int32_t trackIndex);
    // These refer to an operation by the identifier that the server assigned.
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
    /// The identifier that the server assigned; absent in a new request.
    [[nodiscard]] std::optional<std::string> uniqueID() const;
    void setUniqueID(std::optional<std::string> uniqueID);
    [[nodiscard]] std::shared_ptr<const Error> error() const;
    void setError(std::shared_ptr<const Error> error);
    /// The completed fraction, as the server reports it.
    [[nodiscard]] float progress() const noexcept { return progress_; }
    void setProgress(float progress) noexcept { progress_ = progress; }
    [[nodiscard]] bool completed() const noexcept { return completed_; }
    void setCompleted(bool completed) noexcept { completed_ = completed; }
    [[nodiscard]] bool cancelled() const noexcept { return cancelled_; }
    void setCancelled(bool cancelled) noexcept { cancelled_ = cancelled; }
    /// Null only if it was set to null. If it was set to an immutable dictionary, everything below that stores an entry
    /// throws Exception "NSInvalidArgumentException". Replies have mutable arguments and results.
    [[nodiscard]] std::shared_ptr<Dictionary> arguments() const;
    void setArguments(std::shared_ptr<Dictionary> arguments);
    [[nodiscard]] std::shared_ptr<Dictionary> result() const;
    void setResult(std::shared_ptr<Dictionary> result);
    [[nodiscard]] bool isClientRegistered() const noexcept { return isClientRegistered_; }
    void setIsClientRegistered(bool registered) noexcept { isClientRegistered_ = registered; }
    /// Not archived.
    [[nodiscard]] std::shared_ptr<OperationProgress> progressDelegate() const;
    void setProgressDelegate(std::shared_ptr<OperationProgress> delegate);
    /// Returns the record's own instructions, which the caller may change. Never null; valid until the record is
    /// destroyed.
    [[nodiscard]] TestOpInfo* testInfo() noexcept { return &testInfo_; }
    [[nodiscard]] const TestOpInfo* testInfo() const noexcept { return &testInfo_; }

    /// Sets both fields.
    void setProgress(float progress, bool completed) noexcept;
    void clientIsRegisteredWithServer() noexcept { isClientRegistered_ = true; }

    // Views onto `arguments`: null, 0, false, empty or the zero size if the entry is missing.

    [[nodiscard]] std::optional<std::string> encodingSourceFilename() const;
    [[nodiscard]] std::optional<std::string> encodingDestinationFilename() const;
    [[nodiscard]] std::shared_ptr<const VideoEncodingParameters> encodingVideoParameters() const;
    [[nodiscard]] std::shared_ptr<const AudioEncodingParameters> encodingAudioParameters() const;
    [[nodiscard]] std::int32_t encodingType() const;
    [[nodiscard]] bool encodingFlattenOnly() const;
    [[nodiscard]] Size thumbnailInfoSize() const;
    [[nodiscard]] Value regInfoPID() const;
    /// Stores the process id in `arguments`. Does nothing if `arguments` is null.
    void setRegInfoPID(Value pid);
    [[nodiscard]] Value numOpsNumberOfOperations() const;
    [[nodiscard]] std::shared_ptr<const Array> numOpsNames() const;
    /// Returns a dictionary that cannot be changed, because it may be shared. Replace it instead.
    [[nodiscard]] std::shared_ptr<const Dictionary> metadata() const;
    /// Stores the metadata in `arguments`. Null does not remove the entry: it is stored, and archived, as a null value.
    /// Does nothing if `arguments` is null.
    void setMetadata(std::shared_ptr<const Dictionary> metadata);

    // Texts.

    /// Returns the name of the type, such as "Encode video".
    [[nodiscard]] std::string nameFromType() const;
    /// Returns the name in double quotes.
    [[nodiscard]] std::string operationName() const;
    /// Returns a summary of the main arguments; empty for types without any.
    [[nodiscard]] std::string operationStateDescription() const;
    [[nodiscard]] std::string description() const override;

    // Updating a request from a reply.

    /// Copies all fields of a reply except type, test instructions and delegate. A null reply clears error, uniqueID,
    /// progress, completed and isClientRegistered.
    void copyFrom(const std::shared_ptr<const KRVOperationBase>& other);
    /// Copies error, progress, completed and cancelled only. A null reply changes nothing.
    void copyProgressInfoFrom(const std::shared_ptr<const KRVOperationBase>& other);

    // Archive form.

    /// Returns the record as an archive. Throws Exception "NSInvalidArgumentException" if it contains something that
    /// cannot be archived, such as text that is not UTF-8. An Archivable of an application's own class can be archived,
    /// but the server refuses the record.
    [[nodiscard]] Data convertToData() const;
    /// Returns the record in an archive; null if the bytes are malformed or contain another object.
    [[nodiscard]] static Ref operationFromData(const std::shared_ptr<const Data>& data);
    /// Returns the object in an archive if it is a T; null for null, empty and malformed data and for other objects.
    template <typename T>
    [[nodiscard]] static std::shared_ptr<T> objectFromData(const std::shared_ptr<const Data>& data) {
        return std::dynamic_pointer_cast<T>(archivableFromData(data));
    }
    /// Returns the root object of an archive, of any kind; null as above.
    [[nodiscard]] static Value valueFromData(const std::shared_ptr<const Data>& data);

    [[nodiscard]] std::string_view className() const noexcept override { return "KRVOperationBase"; }
    void encodeWithCoder(KeyedArchiver& coder) const override;
    [[nodiscard]] static std::shared_ptr<Archivable> initWithCoder(KeyedUnarchiver& coder);

private:
    /// The fields of an archived record.
    struct Decoded;
    explicit KRVOperationBase(Decoded fields) noexcept;

    [[nodiscard]] static Ref ofType(OperationType type);
    [[nodiscard]] static Ref addressing(OperationType type, std::optional<std::string> operationID);
    [[nodiscard]] static std::shared_ptr<Archivable> archivableFromData(const std::shared_ptr<const Data>& data);
    /// Returns the identifier without copying the text.
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

    // Released from the last to the first.
    Guarded<std::shared_ptr<const Error>> error_;
    Guarded<Value::StringRef> uniqueID_;
    Guarded<std::shared_ptr<OperationProgress>> progressDelegate_;
    Guarded<std::shared_ptr<Dictionary>> arguments_;
    Guarded<std::shared_ptr<Dictionary>> result_;
};

}  // namespace krv
