#pragma once

#include <string>

namespace krv::test {

/// Waits until an application shows a window on an X server without a window manager, and asks that window to close, as
/// a window manager does when a person clicks its close button. Throws std::runtime_error if there is no such server.
void closeWindowOn(const std::string& display);

}  // namespace krv::test
