#pragma once

#include <cstdint>
#include <memory>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

class KeyedUnarchiver;

/// Compression settings of one kind of track. The library sends them to the server without interpreting them. The media
/// server takes the two classes below, not this one.
///
/// settingsBlob is thread-safe; the scalars are not.
class KRV_EXPORT EncodingParameters : public Archivable {
public:
    /// Creates settings with codec 0 and quality 0, the server's defaults.
    [[nodiscard]] static std::shared_ptr<EncodingParameters>
    encodingParametersWithData(std::shared_ptr<const Data> settingsBlob);

    explicit EncodingParameters(std::shared_ptr<const Data> settingsBlob);
    explicit EncodingParameters(KeyedUnarchiver& coder);
    ~EncodingParameters() override;
    EncodingParameters(const EncodingParameters&) = delete;
    EncodingParameters& operator=(const EncodingParameters&) = delete;

    /// Four-character code of the codec, with its first character in the highest byte; 0 for the default.
    [[nodiscard]] std::uint32_t codec() const noexcept { return codec_; }
    void setCodec(std::uint32_t codec) noexcept { codec_ = codec; }

    /// Above 0 and at most 1; 0 for the encoder's default.
    [[nodiscard]] float quality() const noexcept { return quality_; }
    void setQuality(float quality) noexcept { quality_ = quality; }

    /// Further settings, opaque to the library; may be null.
    [[nodiscard]] std::shared_ptr<const Data> settingsBlob() const;
    void setSettingsBlob(std::shared_ptr<const Data> settingsBlob);

    [[nodiscard]] std::string_view className() const noexcept override { return "EncodingParameters"; }
    void encodeWithCoder(KeyedArchiver& coder) const override;

private:
    std::uint32_t codec_ = 0;
    float quality_ = 0.0F;
    Guarded<std::shared_ptr<const Data>> settingsBlob_;
};

/// Settings of a video track.
class KRV_EXPORT VideoEncodingParameters final : public EncodingParameters {
public:
    [[nodiscard]] static std::shared_ptr<VideoEncodingParameters>
    encodingParametersWithData(std::shared_ptr<const Data> settingsBlob);

    using EncodingParameters::EncodingParameters;
    explicit VideoEncodingParameters(KeyedUnarchiver& coder);

    /// Frames per second; 0 keeps the timing of the source.
    [[nodiscard]] float fps() const noexcept { return fps_; }
    void setFps(float fps) noexcept { fps_ = fps; }

    [[nodiscard]] std::string_view className() const noexcept override { return "VideoEncodingParameters"; }
    [[nodiscard]] std::string_view superclassName() const noexcept override { return "EncodingParameters"; }
    void encodeWithCoder(KeyedArchiver& coder) const override;

private:
    float fps_ = 0.0F;
};

/// Settings of an audio track, without further fields.
class KRV_EXPORT AudioEncodingParameters final : public EncodingParameters {
public:
    [[nodiscard]] static std::shared_ptr<AudioEncodingParameters>
    encodingParametersWithData(std::shared_ptr<const Data> settingsBlob);

    using EncodingParameters::EncodingParameters;

    [[nodiscard]] std::string_view className() const noexcept override { return "AudioEncodingParameters"; }
    [[nodiscard]] std::string_view superclassName() const noexcept override { return "EncodingParameters"; }
};

}  // namespace krv
