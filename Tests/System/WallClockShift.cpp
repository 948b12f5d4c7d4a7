// A library to preload into a program. krvShiftWallClock() shifts the program's wall clock, and no other clock, as a
// person or a time server does.
#include <atomic>
#include <ctime>

#include <dlfcn.h>
#include <sys/time.h>

namespace {

std::atomic<long> shift{0};

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void krvShiftWallClock(long seconds) {
    shift += seconds;
}

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* result) noexcept {
    static auto* const real = next<int(clockid_t, timespec*)>("clock_gettime");
    const int status = real(clock, result);
    if (status == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        result->tv_sec += shift;
    }
    return status;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* result, void* /*zone*/) noexcept {
    timespec now{};
    const int status = clock_gettime(CLOCK_REALTIME, &now);
    result->tv_sec = now.tv_sec;
    result->tv_usec = now.tv_nsec / 1000;
    return status;
}

__attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}
}
