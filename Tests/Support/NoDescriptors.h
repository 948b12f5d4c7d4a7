#pragma once

#include <sys/resource.h>

namespace krv::test {

/// Leaves this process no descriptor to open until it is destroyed. Open descriptors stay usable.
class NoDescriptors {
public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{0, before_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit before_{};
};

}  // namespace krv::test
