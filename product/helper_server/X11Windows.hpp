// The X11 windows of a program, found and raised with libX11 on a display
// connection of their own: one connection per question, so that an X server
// that goes away costs one question and never the process.
//
// A program's windows are the top-level windows that the window manager
// lists (_NET_CLIENT_LIST_STACKING, else _NET_CLIENT_LIST; without a window
// manager, the root's viewable children) whose process (_NET_WM_PID) has
// exactly VT_WINDOW_TAG=<tag> in its environment (/proc/<pid>/environ). A
// window whose process cannot be asked (no _NET_WM_PID, a process that is
// gone or not ours to read) counts when its WM_CLASS class is Wine's, "Wine"
// or a program's name ending in ".exe": it is a window of a bottle, and a program's window is better raised with others
// than not at all.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <X11/Xlib.h>

namespace vt::product {

class X11Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class X11Windows {
public:
    // Connects to `displayName` (as DISPLAY names it); throws X11Error when it
    // cannot. While this lives, X errors about windows that vanish under it
    // are ignored, and a lost connection fails the question, rather than
    // either ending the process (Xlib's handlers are the process's own).
    explicit X11Windows(const std::string& displayName);
    ~X11Windows();
    X11Windows(const X11Windows&) = delete;
    X11Windows& operator=(const X11Windows&) = delete;

    // The program's windows, lowest first.
    std::vector<Window> windowsWithTag(int64_t tag);
    // Maps and raises each of `windows` in turn, so that they keep their
    // order among themselves above all others, and asks the window manager
    // to activate the last, the topmost.
    void raise(const std::vector<Window>& windows);

private:
    std::vector<Window> topLevelWindows();
    std::vector<unsigned long> windowProperty(Window window, const char* name, Atom type);
    bool isWineWindow(Window window);

    Display* m_display = nullptr;
    XErrorHandler m_previousErrorHandler = nullptr;
    XIOErrorHandler m_previousIOErrorHandler = nullptr;
};

} // namespace vt::product
