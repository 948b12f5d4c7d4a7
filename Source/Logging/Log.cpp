#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {

std::uint32_t logLevelWord(LogContext context) noexcept {
    if (!krv_loggingEnabled.load(std::memory_order_relaxed)) {
        return 0;
    }
    const auto& word = context == kLogContextApplication ? applicationLogLevel : qtClientLogLevel;
    return word.load(std::memory_order_relaxed);
}

bool logPasses(LogFlag flag, const LogSite& site) noexcept {
    if ((logLevelWord(site.context) & flag) == 0) {
        return false;
    }
    return (additionalApplicationLogLevel.load(std::memory_order_relaxed) & site.mask) == site.mask;
}

}  // namespace krv
