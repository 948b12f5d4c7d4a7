// Dragging follows the protocol XDND, version 5: Enter, Position until the window accepts, Drop. Then the application asks
// for the selection, gets the names as a list of URLs, and says that it has finished.
#include "ApplicationWindow.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <span>
#include <stdexcept>
#include <string_view>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>

namespace krv::test {
namespace {

template <typename T>
std::unique_ptr<T, decltype(&XFree)> owned(T* data) {
    return {data, &XFree};
}

/// Returns the URL of a file.
std::string urlOf(const std::string& file) {
    constexpr std::string_view kHex = "0123456789ABCDEF";
    std::string url = "file://";
    for (const char each : file) {
        const auto byte = static_cast<unsigned char>(each);
        if (std::isalnum(byte) != 0 || std::string_view("/-._~").find(each) != std::string_view::npos) {
            url += each;
        } else {
            url += {'%', kHex[byte >> 4U], kHex[byte & 0xFU]};
        }
    }
    return url;
}

bool isVivid(unsigned long pixel) {
    constexpr unsigned long kStrong = 120;
    const auto [darkest, brightest] =
        std::minmax({pixel >> 16U & 0xFFU, pixel >> 8U & 0xFFU, pixel & 0xFFU});  // of red, green and blue
    return brightest - darkest > kStrong;
}

}  // namespace

class ApplicationWindow::Internals {
public:
    explicit Internals(const std::string& display)
        : connection_(XOpenDisplay(display.c_str()), &XCloseDisplay) {
        if (!connection_) {
            throw std::runtime_error("no X server at " + display);
        }
        // Before the first look, so that no window is missed.
        XSelectInput(server(), DefaultRootWindow(server()), SubstructureNotifyMask);
        window_ = shownWindow();
        while (window_ == 0) {
            XEvent event;
            XNextEvent(server(), &event);
            window_ = shownWindow();
        }
    }

    [[nodiscard]] Atom atom(const char* name) const { return XInternAtom(server(), name, False); }

    void tell(const char* message, const std::array<long, 5>& values) const {
        XEvent event{};
        event.xclient.type = ClientMessage;
        event.xclient.window = window_;
        event.xclient.message_type = atom(message);
        event.xclient.format = 32;
        std::copy(values.begin(), values.end(), event.xclient.data.l);
        XSendEvent(server(), window_, False, NoEventMask, &event);
        XFlush(server());
    }

    void drop(const std::string& urls) {
        const Window source = XCreateSimpleWindow(server(), DefaultRootWindow(server()), 0, 0, 1, 1, 0, 0, 0);
        XSetSelectionOwner(server(), atom("XdndSelection"), source, CurrentTime);
        const auto id = static_cast<long>(source);
        tell("XdndEnter", {id, 5L << 24U, static_cast<long>(atom("text/uri-list")), 0, 0});
        const std::array<long, 5> position{id, 0, middle(), CurrentTime, static_cast<long>(atom("XdndActionCopy"))};
        tell("XdndPosition", position);
        for (int refusals = 0;;) {
            XEvent event;
            XNextEvent(server(), &event);
            if (event.type == SelectionRequest) {
                give(event.xselectionrequest, urls);
            } else if (event.type == ClientMessage && event.xclient.message_type == atom("XdndStatus")) {
                if ((event.xclient.data.l[1] & 1) != 0) {
                    tell("XdndDrop", {id, 0, CurrentTime, 0, 0});
                } else if (++refusals == kMostRefusals) {
                    throw std::runtime_error("the window refuses what is dragged over it");
                } else {
                    tell("XdndPosition", position);
                }
            } else if (event.type == ClientMessage && event.xclient.message_type == atom("XdndFinished")) {
                XDestroyWindow(server(), source);
                return;
            }
        }
    }

    void clickAlongTheRightEdge(const std::function<bool()>& enough) const {
        constexpr int kTitle = 60;
        constexpr int kRows = 120;
        constexpr int kFarthest = 140;
        constexpr int kStep = 12;
        XWindowAttributes attributes;
        XGetWindowAttributes(server(), window_, &attributes);
        while (!enough()) {
            for (int fromRight = kStep; fromRight <= kFarthest && !enough(); fromRight += kStep) {
                for (int y = kTitle; y <= kTitle + kRows && !enough(); y += kStep) {
                    click(attributes.x + attributes.width - fromRight, attributes.y + y);
                }
            }
        }
    }

    [[nodiscard]] std::size_t vividPixels() const {
        XWindowAttributes attributes;
        XGetWindowAttributes(server(), window_, &attributes);
        XImage* const image = XGetImage(server(), window_, 0, 0, static_cast<unsigned>(attributes.width),
                                        static_cast<unsigned>(attributes.height), AllPlanes, ZPixmap);
        if (!image) {
            return 0;
        }
        std::size_t vivid = 0;
        for (int y = 0; y < attributes.height; ++y) {
            for (int x = 0; x < attributes.width; ++x) {
                vivid += isVivid(XGetPixel(image, x, y)) ? 1U : 0U;
            }
        }
        XDestroyImage(image);
        return vivid;
    }

private:
    /// A window may need a moment until it knows what is under the pointer.
    static constexpr int kMostRefusals = 1000;

    [[nodiscard]] Display* server() const { return connection_.get(); }

    /// Clicks there on the screen with the left button of the mouse.
    void click(int x, int y) const {
        XTestFakeMotionEvent(server(), DefaultScreen(server()), x, y, CurrentTime);
        XTestFakeButtonEvent(server(), Button1, True, CurrentTime);
        XTestFakeButtonEvent(server(), Button1, False, CurrentTime);
        XSync(server(), False);
    }

    [[nodiscard]] bool isShown(Window window) const {
        XWindowAttributes attributes;
        return XGetWindowAttributes(server(), window, &attributes) != 0 && attributes.map_state == IsViewable;
    }

    [[nodiscard]] bool canBeClosed(Window window) const {
        Atom* protocols = nullptr;
        int count = 0;
        if (XGetWMProtocols(server(), window, &protocols, &count) == 0) {
            return false;
        }
        const auto owner = owned(protocols);
        return std::count(protocols, protocols + count, atom("WM_DELETE_WINDOW")) > 0;
    }

    /// Returns the window of an application, or 0 if there is none yet.
    [[nodiscard]] Window shownWindow() const {
        Window root = 0;
        Window parent = 0;
        Window* children = nullptr;
        unsigned int count = 0;
        XQueryTree(server(), DefaultRootWindow(server()), &root, &parent, &children, &count);
        const auto owner = owned(children);
        for (const Window window : std::span(children, count)) {
            if (isShown(window) && canBeClosed(window)) {
                return window;
            }
        }
        return 0;
    }

    /// Returns the middle of the window on the screen, as a message holds it.
    [[nodiscard]] long middle() const {
        XWindowAttributes attributes;
        XGetWindowAttributes(server(), window_, &attributes);
        const long x = attributes.x + attributes.width / 2;
        const long y = attributes.y + attributes.height / 2;
        return x << 16U | y;
    }

    void give(const XSelectionRequestEvent& request, const std::string& urls) const {
        XEvent answer{};
        answer.xselection.type = SelectionNotify;
        answer.xselection.requestor = request.requestor;
        answer.xselection.selection = request.selection;
        answer.xselection.target = request.target;
        answer.xselection.time = request.time;
        if (request.target == atom("text/uri-list")) {
            answer.xselection.property = request.property;
            XChangeProperty(server(), request.requestor, request.property, request.target, 8, PropModeReplace,
                            reinterpret_cast<const unsigned char*>(urls.data()), static_cast<int>(urls.size()));
        }
        XSendEvent(server(), request.requestor, False, NoEventMask, &answer);
        XFlush(server());
    }

    const std::unique_ptr<Display, decltype(&XCloseDisplay)> connection_;
    Window window_ = 0;
};

ApplicationWindow::ApplicationWindow(const std::string& display)
    : internals_(std::make_unique<Internals>(display)) {}

ApplicationWindow::~ApplicationWindow() = default;

void ApplicationWindow::close() {
    internals_->tell("WM_PROTOCOLS", {static_cast<long>(internals_->atom("WM_DELETE_WINDOW")),
                                      static_cast<long>(CurrentTime), 0, 0, 0});
}

void ApplicationWindow::drop(const std::vector<std::string>& files) {
    std::string urls;
    for (const std::string& file : files) {
        urls += urlOf(file) + "\r\n";
    }
    internals_->drop(urls);
}

void ApplicationWindow::clickAlongTheRightEdge(const std::function<bool()>& enough) {
    internals_->clickAlongTheRightEdge(enough);
}

std::size_t ApplicationWindow::vividPixels() {
    return internals_->vividPixels();
}

}  // namespace krv::test
