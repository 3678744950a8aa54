#include "product/helper_server/X11Windows.hpp"

#include <cerrno>
#include <optional>
#include <string_view>

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "base/posix_glue.hpp"

namespace vt::product {

namespace {
    // Windows come and go while we look at them: a BadWindow (or the
    // BadDrawable and BadMatch that follow from it) is the window having
    // gone, which is no fault. Xlib's own handler would end the process.
    int onXError(Display* display, XErrorEvent* event) noexcept
    {
        if (event->error_code == BadWindow || event->error_code == BadDrawable || event->error_code == BadMatch)
            return 0;
        char text[256] = {};
        XGetErrorText(display, event->error_code, text, sizeof text);
        try {
            platformLog("X error while raising windows: %@ (request %d)", text, int(event->request_code));
        } catch (...) {
        }
        return 0;
    }

    // Xlib ends the process after a lost connection unless both of these
    // return; the connection is unusable from then on, and every call on it
    // fails at once, so the question ends with nothing found.
    int onXIOError(Display*) noexcept { return 0; }

    void onXConnectionLost(Display* display, void*) noexcept
    {
        try {
            platformLog("lost the X connection to %@ while raising windows", DisplayString(display));
        } catch (...) {
        }
    }

    // Whether the process's environment holds exactly `entry`; nothing when
    // it cannot be read.
    std::optional<bool> environmentHolds(unsigned long pid, std::string_view entry)
    {
        std::string path = "/proc/" + std::to_string(pid) + "/environ";
        Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file)
            return std::nullopt;
        std::string environment;
        char buffer[16384];
        for (;;) {
            ssize_t count = ::read(file.get(), buffer, sizeof buffer);
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                return std::nullopt;
            if (count == 0)
                break;
            environment.append(buffer, static_cast<size_t>(count));
        }
        size_t start = 0;
        while (start < environment.size()) {
            size_t end = environment.find('\0', start);
            if (end == std::string::npos)
                end = environment.size();
            if (std::string_view(environment).substr(start, end - start) == entry)
                return true;
            start = end + 1;
        }
        return false;
    }
} // namespace

X11Windows::X11Windows(const std::string& displayName)
{
    m_display = XOpenDisplay(displayName.c_str());
    if (!m_display)
        throw X11Error("cannot open display \"" + displayName + "\"");
    XSetIOErrorExitHandler(m_display, onXConnectionLost, nullptr);
    m_previousErrorHandler = XSetErrorHandler(onXError);
    m_previousIOErrorHandler = XSetIOErrorHandler(onXIOError);
}

X11Windows::~X11Windows()
{
    // Closing flushes, and the errors it brings in still go to our handler.
    XCloseDisplay(m_display);
    XSetErrorHandler(m_previousErrorHandler);
    XSetIOErrorHandler(m_previousIOErrorHandler);
}

std::vector<unsigned long> X11Windows::windowProperty(Window window, const char* name, Atom type)
{
    Atom property = XInternAtom(m_display, name, False);
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    std::vector<unsigned long> values;
    if (XGetWindowProperty(m_display, window, property, 0, 1 << 20, False, type, &actualType, &format, &count,
                           &remaining, &data)
            == Success
        && data && actualType == type && format == 32) {
        // Xlib hands 32-bit items over as longs, whatever a long's size.
        auto* items = reinterpret_cast<unsigned long*>(data);
        values.assign(items, items + count);
    }
    if (data)
        XFree(data);
    return values;
}

std::vector<Window> X11Windows::topLevelWindows()
{
    Window root = DefaultRootWindow(m_display);
    for (const char* list : { "_NET_CLIENT_LIST_STACKING", "_NET_CLIENT_LIST" }) {
        std::vector<unsigned long> clients = windowProperty(root, list, XA_WINDOW);
        if (!clients.empty())
            return std::vector<Window>(clients.begin(), clients.end());
    }
    // No window manager: the root's children, lowest first, as the server
    // stacks them.
    std::vector<Window> windows;
    Window rootReturn = None;
    Window parent = None;
    Window* children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(m_display, root, &rootReturn, &parent, &children, &count))
        return windows;
    for (unsigned int i = 0; i < count; ++i) {
        XWindowAttributes attributes;
        if (XGetWindowAttributes(m_display, children[i], &attributes) && attributes.map_state == IsViewable
            && !attributes.override_redirect)
            windows.push_back(children[i]);
    }
    if (children)
        XFree(children);
    return windows;
}

bool X11Windows::isWineWindow(Window window)
{
    XClassHint hint {};
    if (!XGetClassHint(m_display, window, &hint))
        return false;
    // Wine names the class after the program ("notepad.exe") and falls back
    // to "Wine" where it has no program name.
    bool wine = false;
    if (hint.res_class) {
        std::string_view name(hint.res_class);
        wine = name == "Wine"
            || (name.size() > 4 && strcasecmp(hint.res_class + name.size() - 4, ".exe") == 0);
    }
    if (hint.res_name)
        XFree(hint.res_name);
    if (hint.res_class)
        XFree(hint.res_class);
    return wine;
}

std::vector<Window> X11Windows::windowsWithTag(int64_t tag)
{
    std::string entry = "VT_WINDOW_TAG=" + std::to_string(tag);
    std::vector<Window> tagged;
    for (Window window : topLevelWindows()) {
        std::vector<unsigned long> pid = windowProperty(window, "_NET_WM_PID", XA_CARDINAL);
        // The tag is the launcher's pid: a program that runs inside its
        // launcher opens windows of that very process, whose environment
        // as the system shows it is the one the launcher started with.
        std::optional<bool> carriesTag = pid.empty()  ? std::nullopt
            : static_cast<int64_t>(pid.front()) == tag ? std::optional<bool>(true)
                                                       : environmentHolds(pid.front(), entry);
        if (carriesTag ? *carriesTag : isWineWindow(window))
            tagged.push_back(window);
    }
    return tagged;
}

void X11Windows::raise(const std::vector<Window>& windows)
{
    if (windows.empty())
        return;
    // Mapping brings a minimized window back; a window manager turns the
    // raise of a window it manages into a raise of its frame.
    for (Window window : windows)
        XMapRaised(m_display, window);
    // Source 2, a pager: the user asked for it, so the window manager lets
    // the window take the focus, whatever its rules against focus stealing.
    Window root = DefaultRootWindow(m_display);
    XEvent event {};
    event.xclient.type = ClientMessage;
    event.xclient.window = windows.back();
    event.xclient.message_type = XInternAtom(m_display, "_NET_ACTIVE_WINDOW", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = 2;
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(m_display, root, False, SubstructureRedirectMask | SubstructureNotifyMask, &event);
    XFlush(m_display);
}

} // namespace vt::product
