#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace krv::test {

/// The window of an application on an X server without a window manager, as a person at the desktop handles it.
class ApplicationWindow {
public:
    /// Waits until an application shows a window. Throws std::runtime_error if there is no such server.
    explicit ApplicationWindow(const std::string& display);
    ~ApplicationWindow();
    ApplicationWindow(const ApplicationWindow&) = delete;
    ApplicationWindow& operator=(const ApplicationWindow&) = delete;

    /// Asks the window to close, as a window manager does when its close button is clicked.
    void close();
    /// Drags files from elsewhere over the window and drops them there. Returns when the application has taken their
    /// names. Throws std::runtime_error if it refuses them.
    void drop(const std::vector<std::string>& files);
    /// Clicks everywhere at the right edge of the content below the title, where the buttons of rows are, until enough.
    void clickAlongTheRightEdge(const std::function<bool()>& enough);
    /// Returns how many pixels of the window have a vivid colour, as movies have and plain windows have not.
    [[nodiscard]] std::size_t vividPixels();

private:
    class Internals;
    const std::unique_ptr<Internals> internals_;
};

}  // namespace krv::test
