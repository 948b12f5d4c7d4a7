// The record's archive form: fourteen keyed values in a fixed order. Client and server use these keys and class names.
#include <array>
#include <utility>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

constexpr std::string_view kErrorKey = "error";
constexpr std::string_view kUniqueIDKey = "uniqueID";
constexpr std::string_view kTypeKey = "opType";
constexpr std::string_view kCancelledKey = "cancelled";
constexpr std::string_view kCompletedKey = "completed";
constexpr std::string_view kProgressKey = "progress";
constexpr std::string_view kIsClientRegisteredKey = "isClientRegistered";
constexpr std::string_view kShouldErrorKey = "testInfo.shouldError";
constexpr std::string_view kShouldCompleteKey = "testInfo.shouldComplete";
constexpr std::string_view kShouldThrowKey = "testInfo.shouldThrow";
constexpr std::string_view kShouldCrashKey = "testInfo.shouldCrash";
constexpr std::string_view kTimeToLiveKey = "testInfo.timeToLive";
constexpr std::string_view kResultKey = "result";
constexpr std::string_view kArgumentsKey = "arguments";

template <typename T>
std::shared_ptr<Archivable> decoded(KeyedUnarchiver& coder) {
    return std::make_shared<T>(coder);
}

/// The classes that an archive may contain besides the standard ones.
constexpr std::array<ArchivableClass, 4> kClasses{{
    {"KRVOperationBase", 15, &KRVOperationBase::initWithCoder},
    {"EncodingParameters", 4, &decoded<EncodingParameters>},
    {"VideoEncodingParameters", 5, &decoded<VideoEncodingParameters>},
    {"AudioEncodingParameters", 4, &decoded<AudioEncodingParameters>},
}};

}  // namespace

void KRVOperationBase::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeObject(kErrorKey, Value(error()));
    coder.encodeObject(kUniqueIDKey, Value(sharedUniqueID()));
    coder.encodeInt(kTypeKey, operationType_);
    coder.encodeBool(kCancelledKey, cancelled_);
    coder.encodeBool(kCompletedKey, completed_);
    coder.encodeFloat(kProgressKey, progress_);
    coder.encodeBool(kIsClientRegisteredKey, isClientRegistered_);
    coder.encodeBool(kShouldErrorKey, testInfo_.shouldError != 0);
    coder.encodeBool(kShouldCompleteKey, testInfo_.shouldComplete != 0);
    coder.encodeBool(kShouldThrowKey, testInfo_.shouldThrow != 0);
    coder.encodeBool(kShouldCrashKey, testInfo_.shouldCrash != 0);
    coder.encodeInt(kTimeToLiveKey, static_cast<std::int32_t>(testInfo_.timeToLive));
    coder.encodeObject(kResultKey, Value(result()));
    coder.encodeObject(kArgumentsKey, Value(arguments()));
}

/// Decoded in the order of the members, which is the order of the archive.
struct KRVOperationBase::Decoded {
    explicit Decoded(KeyedUnarchiver& coder)
        : error(coder.decodeObject(kErrorKey, Value::Kind::Error).error())
        , uniqueID(coder.decodeObject(kUniqueIDKey, Value::Kind::String).string())
        , operationType(coder.decodeInt32(kTypeKey))
        , cancelled(coder.decodeBool(kCancelledKey))
        , completed(coder.decodeBool(kCompletedKey))
        , progress(coder.decodeFloat(kProgressKey))
        , isClientRegistered(coder.decodeBool(kIsClientRegisteredKey)) {
        const auto flag = [&coder](std::string_view key) {
            return static_cast<std::int8_t>(coder.decodeBool(key) ? 1 : 0);
        };
        testInfo.shouldError = flag(kShouldErrorKey);
        testInfo.shouldComplete = flag(kShouldCompleteKey);
        testInfo.shouldThrow = flag(kShouldThrowKey);
        testInfo.shouldCrash = flag(kShouldCrashKey);
        testInfo.timeToLive = coder.decodeInt32(kTimeToLiveKey);
        result = coder.decodeMutableDictionary(kResultKey);
        arguments = coder.decodeMutableDictionary(kArgumentsKey);
    }

    std::shared_ptr<const Error> error;
    Value::StringRef uniqueID;
    std::int32_t operationType;
    bool cancelled;
    bool completed;
    float progress;
    bool isClientRegistered;
    TestOpInfo testInfo;
    std::shared_ptr<Dictionary> result;
    std::shared_ptr<Dictionary> arguments;
};

KRVOperationBase::KRVOperationBase(KeyedUnarchiver& coder)
    : KRVOperationBase(Decoded(coder)) {}

KRVOperationBase::KRVOperationBase(Decoded fields) noexcept
    : operationType_(fields.operationType)
    , progress_(fields.progress)
    , completed_(fields.completed)
    , cancelled_(fields.cancelled)
    , isClientRegistered_(fields.isClientRegistered)
    , testInfo_(fields.testInfo)
    , error_(std::move(fields.error))
    , uniqueID_(std::move(fields.uniqueID))
    , arguments_(std::move(fields.arguments))
    , result_(std::move(fields.result)) {}

std::shared_ptr<Archivable> KRVOperationBase::initWithCoder(KeyedUnarchiver& coder) {
    return std::make_shared<KRVOperationBase>(coder);
}

Data KRVOperationBase::convertToData() const {
    return KeyedArchiver::archivedData(*this);
}

Value KRVOperationBase::valueFromData(const std::shared_ptr<const Data>& data) {
    if (!data || data->empty()) {
        return {};
    }
    try {
        return KeyedUnarchiver::unarchive(*data, kClasses);
    } catch (const Exception&) {
        return {};
    }
}

std::shared_ptr<Archivable> KRVOperationBase::archivableFromData(const std::shared_ptr<const Data>& data) {
    // The object was created by this call and is not shared.
    return std::const_pointer_cast<Archivable>(valueFromData(data).object());
}

KRVOperationBase::Ref KRVOperationBase::operationFromData(const std::shared_ptr<const Data>& data) {
    return objectFromData<KRVOperationBase>(data);
}

}  // namespace krv
