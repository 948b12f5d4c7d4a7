#include "Converter.h"

#include <memory>
#include <utility>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace {

/// Passes the numbers on, and cancels if the same one comes for too long.
class Watch final : public krv::OperationProgress {
public:
    Watch(std::function<void(float)> onProgress, std::chrono::milliseconds patience)
        : onProgress_(std::move(onProgress))
        , patience_(patience) {}

    bool operation(const std::shared_ptr<krv::KRVOperationBase>& /*record*/, float progress) override {
        const auto now = std::chrono::steady_clock::now();
        if (progress != last_) {
            last_ = progress;
            changed_ = now;
        }
        onProgress_(progress);
        stalled_ = now - changed_ > patience_;
        return !stalled_;
    }
    [[nodiscard]] bool stalled() const { return stalled_; }

private:
    const std::function<void(float)> onProgress_;
    const std::chrono::milliseconds patience_;
    float last_ = -1;
    std::chrono::steady_clock::time_point changed_;
    bool stalled_ = false;
};

}  // namespace

Conversion convert(const std::string& source, const std::string& destination,
                   const std::function<void(float)>& onProgress, std::chrono::milliseconds patience) {
    const auto watch = std::make_shared<Watch>(onProgress, patience);
    std::shared_ptr<const krv::Error> error;
    try {
        krv::KRVQuicktimeProcessClient::defaultClient()->convertMovie(source, destination, krv::VideoConversion::H264,
                                                                      false, watch, &error);
    } catch (const krv::Exception&) {
        return {Conversion::Outcome::Unreachable, "The media server cannot be reached. Try again later."};
    }
    if (watch->stalled()) {
        return {Conversion::Outcome::Stalled, "The conversion does not advance."};
    }
    if (error) {
        return {Conversion::Outcome::Failed, error->localizedDescription()};
    }
    return {};
}
