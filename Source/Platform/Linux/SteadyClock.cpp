#include <thread>

#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {
namespace {

class SteadyClock final : public Clock {
public:
    [[nodiscard]] TimePoint now() const override { return std::chrono::steady_clock::now(); }
    void sleepFor(Duration duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace

Clock& Clock::steady() {
    static auto* clock = new SteadyClock;
    return *clock;
}

}  // namespace krv
