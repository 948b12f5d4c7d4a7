#include <cerrno>
#include <cstring>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Platform/FreeDescriptors.h>

namespace krv {

void requireFreeDescriptors(int count, std::string_view purpose) {
    std::vector<int> opened;
    opened.reserve(static_cast<std::size_t>(count));
    int failure = 0;
    while (failure == 0 && opened.size() < static_cast<std::size_t>(count)) {
        const int descriptor = ::eventfd(0, EFD_CLOEXEC);
        if (descriptor >= 0) {
            opened.push_back(descriptor);
        } else {
            failure = errno;
        }
    }
    for (const int descriptor : opened) {
        ::close(descriptor);
    }
    if (failure != 0) {
        throw Exception(std::string(kOutOfDescriptorsException),
                        fmt::format("There are no file descriptors left for {}: {}", purpose, std::strerror(failure)));
    }
}

}  // namespace krv
