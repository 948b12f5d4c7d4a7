// A library to preload into a program that uses the client library. It turns on that library's log, which goes to
// standard error, in programs that leave it off.
#include <cstdlib>

#include <KRVQTProcessClient/Logging/Logging.h>

namespace {

__attribute__((constructor)) void turnLogOn() {
    constexpr unsigned kEveryLevel = 15;
    krv::krv_loggingEnabled = true;
    krv::qtClientLogLevel = kEveryLevel;
    ::unsetenv("LD_PRELOAD");  // not for the programs that this one starts
}

}  // namespace
