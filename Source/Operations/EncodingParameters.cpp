#include <utility>

#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Operations/EncodingParameters.h>

namespace krv {
namespace {

constexpr std::string_view kQualityKey = "quality";
constexpr std::string_view kCodecKey = "codec";
constexpr std::string_view kSettingsBlobKey = "settingsBlob";
constexpr std::string_view kFpsKey = "fps";

}  // namespace

std::shared_ptr<EncodingParameters>
EncodingParameters::encodingParametersWithData(std::shared_ptr<const Data> settingsBlob) {
    return std::make_shared<EncodingParameters>(std::move(settingsBlob));
}

std::shared_ptr<VideoEncodingParameters>
VideoEncodingParameters::encodingParametersWithData(std::shared_ptr<const Data> settingsBlob) {
    return std::make_shared<VideoEncodingParameters>(std::move(settingsBlob));
}

std::shared_ptr<AudioEncodingParameters>
AudioEncodingParameters::encodingParametersWithData(std::shared_ptr<const Data> settingsBlob) {
    return std::make_shared<AudioEncodingParameters>(std::move(settingsBlob));
}

EncodingParameters::EncodingParameters(std::shared_ptr<const Data> settingsBlob)
    : settingsBlob_(std::move(settingsBlob)) {}

EncodingParameters::EncodingParameters(KeyedUnarchiver& coder)
    : codec_(static_cast<std::uint32_t>(coder.decodeInt32(kCodecKey)))
    , quality_(coder.decodeFloat(kQualityKey))
    , settingsBlob_(coder.decodeObject(kSettingsBlobKey, Value::Kind::Data).data()) {}

EncodingParameters::~EncodingParameters() = default;

std::shared_ptr<const Data> EncodingParameters::settingsBlob() const {
    return settingsBlob_.get();
}

void EncodingParameters::setSettingsBlob(std::shared_ptr<const Data> settingsBlob) {
    settingsBlob_.set(std::move(settingsBlob));
}

void EncodingParameters::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeFloat(kQualityKey, quality_);
    // In an archive the field is a signed 32-bit integer, so a code above that range is stored as a negative number.
    coder.encodeInt(kCodecKey, static_cast<std::int32_t>(codec_));
    coder.encodeObject(kSettingsBlobKey, Value(settingsBlob()));
}

VideoEncodingParameters::VideoEncodingParameters(KeyedUnarchiver& coder)
    : EncodingParameters(coder)
    , fps_(coder.decodeFloat(kFpsKey)) {}

void VideoEncodingParameters::encodeWithCoder(KeyedArchiver& coder) const {
    EncodingParameters::encodeWithCoder(coder);
    coder.encodeFloat(kFpsKey, fps_);
}

}  // namespace krv
