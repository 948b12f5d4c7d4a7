#include <KRVQTProcessClient/Logging/Logging.h>

namespace krv {

std::atomic<bool> krv_loggingEnabled{false};
std::atomic<std::uint32_t> qtClientLogLevel{0};
std::atomic<std::uint32_t> applicationLogLevel{0};
std::atomic<std::uint32_t> additionalApplicationLogLevel{0};

namespace {

std::atomic<std::int32_t> quicktimeLevel{0};

}  // namespace

std::int32_t Logging::quicktimeLoggingLevel() noexcept {
    return quicktimeLevel.load(std::memory_order_relaxed);
}

void Logging::setQuicktimeLoggingLevel(std::int32_t level) noexcept {
    quicktimeLevel.store(level, std::memory_order_relaxed);
}

}  // namespace krv
