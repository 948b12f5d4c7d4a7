#include "WindowCloser.h"

#include <algorithm>
#include <memory>
#include <span>
#include <stdexcept>

#include <X11/Xlib.h>

namespace krv::test {
namespace {

using Connection = std::unique_ptr<Display, decltype(&XCloseDisplay)>;

template <typename T>
std::unique_ptr<T, decltype(&XFree)> owned(T* data) {
    return {data, &XFree};
}

bool isShown(Display* display, Window window) {
    XWindowAttributes attributes;
    return XGetWindowAttributes(display, window, &attributes) != 0 && attributes.map_state == IsViewable;
}

bool canBeClosed(Display* display, Window window, Atom closing) {
    Atom* protocols = nullptr;
    int count = 0;
    if (XGetWMProtocols(display, window, &protocols, &count) == 0) {
        return false;
    }
    const auto owner = owned(protocols);
    return std::count(protocols, protocols + count, closing) > 0;
}

/// Returns the window of an application, or 0 if there is none yet.
Window shownWindow(Display* display, Atom closing) {
    Window root = 0;
    Window parent = 0;
    Window* children = nullptr;
    unsigned int count = 0;
    XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count);
    const auto owner = owned(children);
    for (const Window window : std::span(children, count)) {
        if (isShown(display, window) && canBeClosed(display, window, closing)) {
            return window;
        }
    }
    return 0;
}

}  // namespace

void closeWindowOn(const std::string& display) {
    const Connection connection(XOpenDisplay(display.c_str()), &XCloseDisplay);
    if (!connection) {
        throw std::runtime_error("no X server at " + display);
    }
    Display* const server = connection.get();
    const Atom closing = XInternAtom(server, "WM_DELETE_WINDOW", False);
    // Before the first look, so that no window is missed.
    XSelectInput(server, DefaultRootWindow(server), SubstructureNotifyMask);
    Window window = shownWindow(server, closing);
    while (window == 0) {
        XEvent event;
        XNextEvent(server, &event);
        window = shownWindow(server, closing);
    }
    XEvent request{};
    request.xclient.type = ClientMessage;
    request.xclient.window = window;
    request.xclient.message_type = XInternAtom(server, "WM_PROTOCOLS", False);
    request.xclient.format = 32;
    request.xclient.data.l[0] = static_cast<long>(closing);
    request.xclient.data.l[1] = CurrentTime;
    XSendEvent(server, window, False, NoEventMask, &request);
    XSync(server, False);
}

}  // namespace krv::test
