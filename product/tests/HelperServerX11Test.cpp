// Raising a program's windows on a real X server: Xvfb on a display of its
// own, with openbox on it where openbox is installed. The programs are this
// test binary itself, started again to show one window each.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "shell/HelperServerClient.hpp"
#include "standin/kit/TestSupport.hpp"

#include "product/helper_server/X11Windows.hpp"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <unistd.h>

using namespace std::chrono_literals;
using vt::product::X11Windows;
using vt::test::waitUntil;

namespace {

// Started again with VT_TEST_WINDOW_TITLE set, the test binary is a program
// that maps one window with that title, its WM_CLASS class from
// VT_TEST_WINDOW_CLASS and, unless VT_TEST_WINDOW_NO_PID is set, its
// _NET_WM_PID; it lives until it is killed or its X server goes.
int showOneWindow(const char* title)
{
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return 2;
    int screen = DefaultScreen(display);
    Window window = XCreateSimpleWindow(display, RootWindow(display, screen), 40, 40, 320, 200, 1,
                                        BlackPixel(display, screen), WhitePixel(display, screen));
    XStoreName(display, window, title);
    const char* windowClass = std::getenv("VT_TEST_WINDOW_CLASS");
    std::string className = windowClass ? windowClass : "Fixture";
    std::string instanceName = "fixture";
    XClassHint hint { instanceName.data(), className.data() };
    XSetClassHint(display, window, &hint);
    if (!std::getenv("VT_TEST_WINDOW_NO_PID")) {
        unsigned long pid = static_cast<unsigned long>(getpid());
        XChangeProperty(display, window, XInternAtom(display, "_NET_WM_PID", False), XA_CARDINAL, 32,
                        PropModeReplace, reinterpret_cast<unsigned char*>(&pid), 1);
    }
    XMapWindow(display, window);
    for (;;) {
        XEvent event;
        XNextEvent(display, &event);
    }
}

[[maybe_unused]] const bool showsOneWindowInstead = [] {
    if (const char* title = std::getenv("VT_TEST_WINDOW_TITLE"))
        std::_Exit(showOneWindow(title));
    return false;
}();

// Openbox's own windows come and go while the test walks the tree.
int ignoreVanishedWindows(Display*, XErrorEvent* event) noexcept
{
    if (event->error_code != BadWindow)
        ADD_FAILURE() << "X error " << int(event->error_code) << " on request " << int(event->request_code);
    return 0;
}

std::string programPath(const char* name)
{
    vt::GCharPtr path(g_find_program_in_path(name));
    return path ? path.get() : "";
}

// Xvfb on a display number it picks itself (taking the number is atomic, so
// a test beside this one never ends up on this one's server), openbox on it
// when installed, and a connection of the test's own to look at the windows
// with.
class XServer {
public:
    XServer()
    {
        // Xvfb writes the number it took, and a line end, to its display
        // descriptor once it listens.
        std::vector<std::string> argv {
            "/bin/sh", "-c", "exec Xvfb -displayfd 3 -nolisten tcp -screen 0 800x600x24 3>\"$0\"",
            (m_numberFile / "display").string(),
        };
        m_server = std::make_unique<vt::test::TestProcess>(std::move(argv), vt::test::environmentWith({}));
        std::string number;
        waitUntil([&] {
            number = vt::test::readFile(m_numberFile / "display");
            return !m_server->running() || number.ends_with('\n');
        }, 30s);
        if (!number.ends_with('\n'))
            throw std::runtime_error("Xvfb did not start: " + m_server->standardError());
        m_name = ":" + number.substr(0, number.size() - 1);
        m_connection = XOpenDisplay(m_name.c_str());
        if (!m_connection)
            throw std::runtime_error("cannot connect to Xvfb on " + m_name);
        XSetErrorHandler(ignoreVanishedWindows);
        if (std::string openbox = programPath("openbox"); !openbox.empty()) {
            m_windowManager = std::make_unique<vt::test::TestProcess>(
                std::vector<std::string> { openbox }, vt::test::environmentWith({ { "DISPLAY", m_name } }));
            // Openbox drops the windows mapped while it is still starting, so
            // it is ready once it has taken one in.
            Window root = DefaultRootWindow(m_connection);
            Window probe = XCreateSimpleWindow(m_connection, root, 0, 0, 10, 10, 0, 0, 0);
            bool managing = waitUntil([&] {
                XMapWindow(m_connection, probe);
                XSync(m_connection, False);
                return tree(probe).first != root;
            });
            XDestroyWindow(m_connection, probe);
            XSync(m_connection, False);
            if (!managing)
                throw std::runtime_error("openbox did not start");
        }
    }

    ~XServer()
    {
        m_windowManager.reset();
        if (m_connection)
            XCloseDisplay(m_connection);
        // Asked to end, Xvfb takes its lock file with it.
        if (m_server && m_server->running()) {
            m_server->signal(SIGTERM);
            m_server->waitForExit();
        }
    }

    const std::string& name() const { return m_name; }
    bool hasWindowManager() const { return m_windowManager != nullptr; }
    // Ends the X server under whoever is still connected, the test's own
    // connection and the window manager excepted.
    void kill()
    {
        m_windowManager.reset();
        XCloseDisplay(std::exchange(m_connection, nullptr));
        m_server->signal(SIGTERM);
        m_server->waitForExit();
    }

    // The viewable window with this title.
    Window window(const std::string& title)
    {
        std::vector<Window> pending { DefaultRootWindow(m_connection) };
        while (!pending.empty()) {
            Window window = pending.back();
            pending.pop_back();
            char* name = nullptr;
            XWindowAttributes attributes {};
            if (XFetchName(m_connection, window, &name) && name) {
                bool found = title == name;
                XFree(name);
                if (found && XGetWindowAttributes(m_connection, window, &attributes)
                    && attributes.map_state == IsViewable)
                    return window;
            }
            std::vector<Window> children = tree(window).second;
            pending.insert(pending.end(), children.begin(), children.end());
        }
        return None;
    }

    // Where the window (its frame, under a window manager) stands among the
    // root's children: higher is above.
    int stackingPosition(Window window)
    {
        Window root = DefaultRootWindow(m_connection);
        for (Window parent = tree(window).first; parent != root && parent != None; parent = tree(window).first)
            window = parent;
        std::vector<Window> stack = tree(root).second;
        for (size_t i = 0; i < stack.size(); ++i)
            if (stack[i] == window)
                return static_cast<int>(i);
        return -1;
    }

    Window activeWindow() { return rootProperty("_NET_ACTIVE_WINDOW", XA_WINDOW); }

private:
    // The window's parent and children, lowest child first.
    std::pair<Window, std::vector<Window>> tree(Window window)
    {
        Window root = None;
        Window parent = None;
        Window* children = nullptr;
        unsigned int count = 0;
        std::vector<Window> list;
        if (XQueryTree(m_connection, window, &root, &parent, &children, &count) && children) {
            list.assign(children, children + count);
            XFree(children);
        }
        return { parent, list };
    }

    unsigned long rootProperty(const char* name, Atom type)
    {
        Atom actualType = None;
        int format = 0;
        unsigned long count = 0;
        unsigned long remaining = 0;
        unsigned char* data = nullptr;
        unsigned long value = 0;
        if (XGetWindowProperty(m_connection, DefaultRootWindow(m_connection), XInternAtom(m_connection, name, False),
                               0, 1, False, type, &actualType, &format, &count, &remaining, &data)
                == Success
            && data && count == 1 && format == 32)
            value = *reinterpret_cast<unsigned long*>(data);
        if (data)
            XFree(data);
        return value;
    }

    vt::test::TempDir m_numberFile;
    std::unique_ptr<vt::test::TestProcess> m_server;
    std::unique_ptr<vt::test::TestProcess> m_windowManager;
    Display* m_connection = nullptr;
    std::string m_name;
};

struct ShownWindow {
    std::string title;
    std::optional<std::string> tag;
    std::string windowClass = "Fixture";
    bool withProcess = true;
};

class HelperServerX11Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (programPath("Xvfb").empty())
            GTEST_SKIP() << "Xvfb is not installed: the raising of windows is not tried here";
        x = std::make_unique<XServer>();
    }

    // Shows the window and waits until it is up, so that each one shown
    // stands above those before it.
    Window show(const ShownWindow& shown)
    {
        programs.push_back(std::make_unique<vt::test::TestProcess>(
            std::vector<std::string> { std::filesystem::read_symlink("/proc/self/exe").string() },
            vt::test::environmentWith({
                { "DISPLAY", x->name() },
                { "VT_WINDOW_TAG", shown.tag },
                { "VT_TEST_WINDOW_TITLE", shown.title },
                { "VT_TEST_WINDOW_CLASS", shown.windowClass },
                { "VT_TEST_WINDOW_NO_PID", shown.withProcess ? std::nullopt : std::optional<std::string>("1") },
            })));
        Window window = None;
        waitUntil([&] { return (window = x->window(shown.title)) != None; });
        // Under a window manager a new window may be stacked and focused a
        // moment after it shows.
        if (x->hasWindowManager())
            waitUntil([&] { return x->activeWindow() == window; }, 2s);
        return window;
    }

    // Whether `lower` stand below `upper`, in that order, and the last of
    // them is the active window where a window manager says which one is.
    bool stackedInOrder(const std::vector<Window>& windows)
    {
        for (size_t i = 1; i < windows.size(); ++i)
            if (x->stackingPosition(windows[i - 1]) >= x->stackingPosition(windows[i]))
                return false;
        return !x->hasWindowManager() || x->activeWindow() == windows.back();
    }

    std::unique_ptr<XServer> x;
    std::vector<std::unique_ptr<vt::test::TestProcess>> programs;
};

} // namespace

TEST_F(HelperServerX11Test, RaisesTheTaggedWindowsAboveTheOthersInTheirOrder)
{
    Window first = show({ "first of 101", "101" });
    Window second = show({ "second of 101", "101" });
    Window other = show({ "only one of 202", "202" });

    EXPECT_EQ(X11Windows(x->name()).windowsWithTag(202), std::vector<Window> { other });
    // Tag 101's windows as they stand now, lowest first, then raised.
    {
        X11Windows windows(x->name());
        std::vector<Window> tagged = windows.windowsWithTag(101);
        ASSERT_EQ(tagged, (std::vector<Window> { first, second }));
        windows.raise(tagged);
    }
    EXPECT_TRUE(waitUntil([&] { return stackedInOrder({ other, first, second }); }, 5s));

    // And back: 202's window comes above both, which keep their order.
    {
        X11Windows windows(x->name());
        windows.raise(windows.windowsWithTag(202));
    }
    EXPECT_TRUE(waitUntil([&] { return stackedInOrder({ first, second, other }); }, 5s));
}

TEST_F(HelperServerX11Test, AWineWindowCountsOnlyWhenItsProcessCannotBeAsked)
{
    Window unknownWine = show({ "Wine, no process", std::nullopt, "Wine", false });
    Window unknownProgram = show({ "a program's own class, no process", std::nullopt, "notepad.EXE", false });
    show({ "something else, no process", std::nullopt, "Other", false });
    show({ "Wine, another program", "303", "Wine" });
    show({ "plain, untagged", std::nullopt });

    EXPECT_EQ(X11Windows(x->name()).windowsWithTag(101), (std::vector<Window> { unknownWine, unknownProgram }));
}

TEST_F(HelperServerX11Test, AWindowOfTheLauncherItselfBelongsToItsProgram)
{
    // A program inside its launcher: the window's process is the tag, and
    // its environment as the system shows it carries no tag at all.
    Window inside = show({ "inside its launcher", std::nullopt });
    show({ "another, untagged", std::nullopt });
    EXPECT_EQ(X11Windows(x->name()).windowsWithTag(programs.front()->pid()), std::vector<Window> { inside });
}

TEST_F(HelperServerX11Test, AVanishedWindowOrALostServerFailsTheQuestionNotTheProcess)
{
    Window window = show({ "first of 101", "101" });
    EXPECT_THROW(X11Windows(":4711"), vt::product::X11Error);

    X11Windows windows(x->name());
    // A window that has gone by the time it is raised.
    windows.raise({ window + 4711 });
    EXPECT_EQ(windows.windowsWithTag(101), std::vector<Window> { window });
    x->kill();
    EXPECT_TRUE(windows.windowsWithTag(101).empty());
    windows.raise({ window });
}

TEST_F(HelperServerX11Test, TheMainApplicationRaisesOnRequest)
{
    Window tagged = show({ "first of 101", "101" });
    Window other = show({ "only one of 202", "202" });

    vt::test::PrivateBus bus;
    vt::test::TempDir data;
    vt::test::TestProcess app({ VT_PRODUCT_BUNDLE "/Contents/MacOS/Vantor" },
                              vt::test::environmentWith({ { "DISPLAY", x->name() },
                                                          { "XDG_DATA_HOME", data.path().string() } }),
                              { .keepStandardError = true });
    ASSERT_TRUE(waitUntil([&] { return bus.hasOwner(vt::kHelperServerBusName); }));
    auto client = vt::HelperServerClient::lookUp();
    ASSERT_TRUE(client);
    client->raiseWindowsWithTag(101);
    EXPECT_TRUE(waitUntil([&] { return stackedInOrder({ other, tagged }); }, 5s));
    EXPECT_TRUE(waitUntil([&] {
        return app.standardError().find("RaiseWindowsWithTag 101: raised 1 windows") != std::string::npos;
    })) << app.standardError();
}
