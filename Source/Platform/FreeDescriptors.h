#pragma once

#include <string_view>

namespace krv {

/// Throws Exception "OutOfDescriptors" if this process cannot open that many more file descriptors at this moment. For
/// libraries that end the process when they get none: asking first leaves them only the moment in between. Internal to
/// the library. Thread-safe.
void requireFreeDescriptors(int count, std::string_view purpose);

}  // namespace krv
