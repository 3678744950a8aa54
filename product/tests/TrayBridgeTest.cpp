// A program's tray icons under Debian's real Wine, through the whole way the
// launcher meets them: check-tray.exe (a program whose icons are known to the
// bit) calls Shell_NotifyIcon in a bottle, the bridge that the product's
// `wine` tool starts beside the window-command tool turns each icon into the
// launcher's tray message, and its forwarder delivers it to a socket that
// stands for the launcher's. Skipped where Wine, Xvfb or MinGW-w64 is missing.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/posix_glue.hpp"
#include "product/common/ProductPaths.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using vt::Fd;

namespace {

const fs::path kRoot = VT_PRODUCT_ROOT;
const fs::path kCheckTray = fs::path(VT_PRODUCT_BUNDLE).parent_path() / "check-tray.exe";
const fs::path kWine = "/usr/lib/wine/wine64";

using Clock = std::chrono::steady_clock;

// A child with pipes on its standard input and output; killed and reaped if
// it is still there at the end.
class Child {
public:
    // Standard error is kept, unless `quiet`.
    Child(const std::vector<std::string>& argv, const std::vector<std::string>& environment, bool quiet = false)
    {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        Fd inRead(in[0]), outWrite(out[1]);
        m_input.reset(in[1]);
        m_output.reset(out[0]);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, inRead.get(), 0);
        ::posix_spawn_file_actions_adddup2(&actions, outWrite.get(), 1);
        if (quiet)
            ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        std::vector<char*> args, env;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        for (const auto& e : environment)
            env.push_back(const_cast<char*>(e.c_str()));
        env.push_back(nullptr);
        int error = ::posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), env.data());
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
            throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
    }
    ~Child()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    void say(const std::string& line) const
    {
        std::string text = line + "\n";
        ASSERT_EQ(::write(m_input.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // The next line it writes (without its line end, "\r" dropped); empty
    // on time-out or at its end.
    std::string line(std::chrono::milliseconds timeout = 20s)
    {
        auto deadline = Clock::now() + timeout;
        for (;;) {
            if (size_t end = m_pending.find('\n'); end != std::string::npos) {
                std::string line = m_pending.substr(0, end);
                m_pending.erase(0, end + 1);
                line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
                return line;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd watch { m_output.get(), POLLIN, 0 };
            if (left.count() <= 0 || ::poll(&watch, 1, static_cast<int>(left.count())) <= 0)
                return "";
            char buffer[4096];
            ssize_t count = ::read(m_output.get(), buffer, sizeof buffer);
            if (count <= 0)
                return "";
            m_pending.append(buffer, static_cast<size_t>(count));
        }
    }
    void closeInput() { m_input.reset(); }
    void terminate()
    {
        if (m_pid > 0 && ::kill(m_pid, SIGTERM) == 0)
            waitForExit(5s);
    }
    // Its exit status, or empty when it is still there after `timeout`.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout)
    {
        for (auto deadline = Clock::now() + timeout; Clock::now() < deadline; std::this_thread::sleep_for(20ms)) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = 0;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
        }
        return std::nullopt;
    }

private:
    pid_t m_pid = 0;
    Fd m_input, m_output;
    std::string m_pending;
};

// The launcher's tray socket: each connection one message.
class TraySocket {
public:
    explicit TraySocket(const fs::path& path)
    {
        m_listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
            || ::listen(m_listener.get(), 16) != 0)
            throw std::runtime_error("cannot listen on " + path.string());
    }
    // The next message, whole; empty when none came within `timeout`.
    std::string next(std::chrono::milliseconds timeout = 10s)
    {
        pollfd watch { m_listener.get(), POLLIN, 0 };
        if (::poll(&watch, 1, static_cast<int>(timeout.count())) <= 0)
            return "";
        Fd connection(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string message;
        char buffer[4096];
        for (ssize_t count; (count = ::read(connection.get(), buffer, sizeof buffer)) > 0;)
            message.append(buffer, static_cast<size_t>(count));
        return message;
    }

private:
    Fd m_listener;
};

// ---- what the launcher must get, from check-tray's pictures ----

enum Picture { Colour, Colour2, Mono, Alpha };
constexpr size_t kHeader = 984;

void put32(std::string& bytes, size_t at, uint32_t value) { std::memcpy(&bytes[at], &value, sizeof value); }
uint32_t get32(const std::string& bytes, size_t at)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

struct Icon {
    int64_t window = 0;
    uint32_t id = 0;
    uint32_t flags = 1 | 2 | 4; // NIF_MESSAGE | NIF_ICON | NIF_TIP
    uint32_t callback = 0;
    uint32_t state = 0;
    uint32_t stateMask = 0;
    Picture picture = Colour;
};

// The 16 x 16 pictures at 32 bits per pixel with their masks, as the
// launcher takes them.
std::string bitsOf(Picture picture)
{
    std::string mask(32, '\0'), colour(16 * 16 * 4, '\0');
    for (int y = 0; y < 16; y++)
        for (int x = 0; x < 16; x++) {
            uint8_t blue, green, red;
            bool seeThrough;
            if (picture == Mono) {
                bool andBit = x < 4, xorBit = (x + y) % 2;
                seeThrough = andBit && !xorBit; // both set inverts the screen: black
                blue = green = red = xorBit && !andBit ? 0xff : 0;
            } else if (picture == Alpha) {
                blue = 0x10, green = 0x20, red = 0x30;
                seeThrough = y * 17 < 128;
            } else {
                int variant = picture == Colour2;
                blue = static_cast<uint8_t>(x * 16 + variant), green = static_cast<uint8_t>(y * 16);
                red = static_cast<uint8_t>(0x80 + variant * 0x40);
                seeThrough = (x + y) % 5 == 0;
            }
            char* pixel = &colour[(y * 16 + x) * 4];
            pixel[0] = static_cast<char>(blue), pixel[1] = static_cast<char>(green);
            pixel[2] = static_cast<char>(red), pixel[3] = static_cast<char>(seeThrough ? 0 : 0xff);
            if (seeThrough)
                mask[y * 2 + x / 8] = static_cast<char>(mask[y * 2 + x / 8] | (0x80 >> (x % 8)));
        }
    return mask + colour;
}

std::string recordOf(const Icon& icon, bool withBits = true)
{
    std::string record(kHeader, '\0');
    std::memcpy(&record[0], &icon.window, sizeof icon.window);
    put32(record, 8, icon.id);
    put32(record, 12, icon.flags);
    put32(record, 16, icon.callback);
    std::string tip = "Tray check " + std::to_string(icon.id);
    for (size_t i = 0; i < tip.size(); i++)
        record[32 + 2 * i] = tip[i]; // UTF-16, little-endian
    put32(record, 288, icon.state);
    put32(record, 292, icon.stateMask);
    put32(record, 968, 16);
    put32(record, 972, 16);
    put32(record, 976, 1);
    put32(record, 980, 32);
    return withBits ? record + bitsOf(icon.picture) : record;
}

std::string messageOf(uint64_t operation, const std::string& record)
{
    std::string message(16, '\0');
    put32(message, 0, 74);
    std::memcpy(&message[4], &operation, sizeof operation);
    put32(message, 12, static_cast<uint32_t>(record.size()));
    return message + record;
}

constexpr uint64_t kAdd = 0, kModify = 1, kDelete = 2;

// What a message is, for a readable failure.
std::string describe(const std::string& message)
{
    if (message.size() < 16 + 12)
        return "a message of " + std::to_string(message.size()) + " bytes";
    uint64_t operation = 0;
    std::memcpy(&operation, message.data() + 4, sizeof operation);
    return "operation " + std::to_string(operation) + " of icon " + std::to_string(get32(message, 16 + 8)) + ", "
        + std::to_string(message.size()) + " bytes";
}

#define EXPECT_MESSAGE(received, wanted)                                                                            \
    do {                                                                                                            \
        std::string got_ = (received), want_ = (wanted);                                                            \
        EXPECT_TRUE(got_ == want_) << "got " << describe(got_) << ", wanted " << describe(want_);                    \
    } while (0)

// Xvfb on a display of its own, for Wine's windows. Xvfb picks the number
// itself: two servers started side by side on one number would leave the
// loser's test on the winner's display until that one ends.
class Display {
public:
    Display()
        : m_server(std::make_unique<Child>(
              std::vector<std::string> { "/usr/bin/Xvfb", "-displayfd", "1", "-nolisten", "tcp" },
              std::vector<std::string> {}))
    {
        if (std::string number = m_server->line(30s); !number.empty())
            m_name = ":" + number;
    }
    // Asked to end, Xvfb takes its lock file with it.
    ~Display() { m_server->terminate(); }
    const std::string& name() const { return m_name; }

private:
    std::unique_ptr<Child> m_server;
    std::string m_name;
};

class TrayBridge : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(kWine))
            GTEST_SKIP() << "Debian's wine64 is not installed (scripts/setup wine)";
        if (!fs::exists("/usr/bin/Xvfb"))
            GTEST_SKIP() << "Xvfb is not installed";
        if (!fs::exists(kRoot / "windows" / "traybridge.exe") || !fs::exists(kCheckTray))
            GTEST_SKIP() << "the Windows programs are not built (x86_64-w64-mingw32-gcc is not installed)";
        m_display = std::make_unique<Display>();
        ASSERT_FALSE(m_display->name().empty()) << "Xvfb did not start";
        m_prefix = m_world / "data" / "Vantor" / "Bottles" / "Tray";
        fs::create_directories(m_prefix);
        // Wine's first set-up talks on standard error whatever WINEDEBUG says.
        Child boot({ kWine, "wineboot", "--init" }, wineEnvironment({ "WINEDLLOVERRIDES=mscoree,mshtml=" }), true);
        ASSERT_EQ(boot.waitForExit(120s), 0) << "wineboot --init failed";
        // Debian's server shuts the bottle down as its last process ends,
        // and a program started meanwhile may go down with it.
        ASSERT_EQ(Child({ vt::product::wineServer(kWine).string(), "-w" }, wineEnvironment()).waitForExit(60s), 0);
    }

    void TearDown() override
    {
        if (!m_prefix.empty())
            Child({ vt::product::wineServer(kWine).string(), "-k" }, wineEnvironment()).waitForExit(20s);
    }

    std::vector<std::string> wineEnvironment(std::vector<std::string> more = {}) const
    {
        more.insert(more.end(),
                    { "WINEPREFIX=" + m_prefix.string(), "WINEDEBUG=-all,err+all", "DISPLAY=" + m_display->name(),
                      "HOME=" + (m_world / "home").string(), "PATH=/usr/bin:/bin" });
        return more;
    }

    // The program, carrying `tag` as the launcher's programs do.
    std::unique_ptr<Child> startProgram(const std::string& tag) const
    {
        return std::make_unique<Child>(std::vector<std::string> { kWine, kCheckTray.string() },
                                       wineEnvironment({ "VT_WINDOW_TAG=" + tag }));
    }

    // The window-command tool as the launcher starts it, and with it the
    // bridge.
    std::unique_ptr<Child> startTool(const std::string& tag, const std::string& socket = "tray.sock") const
    {
        return std::make_unique<Child>(
            std::vector<std::string> { (kRoot / "bin" / "wine").string(), "--bottle", "Tray", "--wl-app",
                                       "sendwndcmd", "-n", "-e", "explorer;apprunner" },
            std::vector<std::string> {
                "XDG_DATA_HOME=" + (m_world / "data").string(), "HOME=" + (m_world / "home").string(),
                "DISPLAY=" + m_display->name(), "WINEDEBUG=-all,err+all", "PATH=/usr/bin:/bin",
                "VT_SYSTRAY_SOCKET=" + (m_world / socket).string(), "VT_WINDOW_TAG=" + tag });
    }

    // The processes of the bottle whose name (Wine's image name) is `name`.
    size_t running(const std::string& name) const
    {
        size_t count = 0;
        for (const auto& entry : fs::directory_iterator("/proc")) {
            std::string environment = vt::test::readFile(entry.path() / "environ");
            std::string comm = vt::test::readFile(entry.path() / "comm");
            if (comm == name + "\n" && environment.find("WINEPREFIX=" + m_prefix.string() + '\0') != std::string::npos)
                count++;
        }
        return count;
    }

    vt::test::TempDir m_world;
    std::unique_ptr<Display> m_display;
    fs::path m_prefix;
};

int64_t windowOf(const std::string& answer)
{
    EXPECT_TRUE(answer.starts_with("ok ")) << "check-tray answered \"" << answer << "\"";
    return answer.starts_with("ok ") ? std::stoll(answer.substr(3)) : 0;
}

// Changes the icon (to colour2, as `icon` says) until the bridge of its
// launcher is up and has caught a change: the launcher gets it as an add,
// since it never had the icon; a later change caught meanwhile is a modify.
void expectAddedOnceBridged(Child& program, TraySocket& launcher, const Icon& icon)
{
    const std::string change = "modify " + std::to_string(icon.id) + " colour2";
    std::string received;
    for (auto deadline = Clock::now() + 60s; received.empty() && Clock::now() < deadline;) {
        program.say(change);
        ASSERT_EQ(windowOf(program.line()), icon.window);
        received = launcher.next(500ms);
    }
    EXPECT_MESSAGE(received, messageOf(kAdd, recordOf(icon)));
    while ((received = launcher.next(1s)) == messageOf(kModify, recordOf(icon))) {
    }
    EXPECT_EQ(received, "") << describe(received);
}

TEST_F(TrayBridge, TheProgramsIconsReachItsLauncherExactlyAsItReadsThemAndNoOtherLauncher)
{
    const std::string tag = "4242";
    TraySocket launcher(m_world / "tray.sock");

    // An icon added before there is a bridge goes to Wine's tray only.
    auto program = startProgram(tag);
    program->say("add 1 colour");
    Icon first { .window = windowOf(program->line(60s)), .id = 1, .callback = 0x8001, .picture = Colour2 };

    auto tool = startTool(tag);
    // Once the bridge is up, the icon's next picture reaches the launcher,
    // as an add: the launcher never had it.
    expectAddedOnceBridged(*program, launcher, first);

    program->say("modify 1 colour");
    windowOf(program->line());
    first.picture = Colour;
    EXPECT_MESSAGE(launcher.next(), messageOf(kModify, recordOf(first)));

    program->say("add 2 mono");
    Icon second { .window = first.window, .id = 2, .callback = 0x8002, .picture = Mono };
    windowOf(program->line());
    EXPECT_MESSAGE(launcher.next(), messageOf(kAdd, recordOf(second)));

    // A modify of the callback alone still carries the whole icon.
    program->say("callback 1 33024");
    windowOf(program->line());
    first.callback = 33024;
    EXPECT_MESSAGE(launcher.next(), messageOf(kModify, recordOf(first)));

    // Hidden, an icon leaves the launcher; shown, it comes back.
    program->say("hide 2");
    windowOf(program->line());
    second.flags |= 8; // NIF_STATE
    second.state = second.stateMask = 1; // NIS_HIDDEN
    EXPECT_MESSAGE(launcher.next(), messageOf(kDelete, recordOf(second, false)));
    program->say("show 2");
    windowOf(program->line());
    second.state = 0;
    EXPECT_MESSAGE(launcher.next(), messageOf(kAdd, recordOf(second)));
    program->say("delete 2");
    windowOf(program->line());
    EXPECT_MESSAGE(launcher.next(), messageOf(kDelete, recordOf(second, false)));

    program->say("add 3 alpha");
    Icon third { .window = first.window, .id = 3, .callback = 0x8003, .picture = Alpha };
    windowOf(program->line());
    EXPECT_MESSAGE(launcher.next(), messageOf(kAdd, recordOf(third)));

    // Another launcher of the bottle, its program started first, then its
    // bridge, above this one's: each launcher gets its own program's icons
    // only, as each bridge passes on what is not its own.
    TraySocket other(m_world / "other.sock");
    auto stranger = startProgram("99");
    stranger->say("add 9 colour");
    Icon strangers { .window = windowOf(stranger->line(60s)), .id = 9, .callback = 0x8009, .picture = Colour2 };
    auto otherTool = startTool("99", "other.sock");
    expectAddedOnceBridged(*stranger, other, strangers);
    program->say("modify 3 alpha");
    windowOf(program->line());
    EXPECT_MESSAGE(launcher.next(), messageOf(kModify, recordOf(third)));
    EXPECT_EQ(other.next(1s), "") << "the other launcher got this launcher's icon";

    // The launcher's activation clicks the icon through the window-command
    // tool; the program's callback gets it.
    tool->say("-t " + tag + " -c 1 -a activatesystray -h " + std::to_string(first.window) + " -m 33024 -s 1");
    EXPECT_EQ(tool->line(), "1:1");
    program->say("clicks");
    EXPECT_EQ(windowOf(program->line()), first.window);
    EXPECT_EQ(program->line(), "click 33024 1 513"); // WM_LBUTTONDOWN
    EXPECT_EQ(program->line(), "click 33024 1 514"); // WM_LBUTTONUP
    EXPECT_EQ(program->line(), "end");

    // Killed without deleting its icons: they go all the same.
    program->say("exit");
    EXPECT_EQ(program->waitForExit(20s), 0);
    EXPECT_MESSAGE(launcher.next(), messageOf(kDelete, recordOf(first, false)));
    EXPECT_MESSAGE(launcher.next(), messageOf(kDelete, recordOf(third, false)));
    EXPECT_EQ(launcher.next(2s), "") << "only the program's icons were the launcher's";
    stranger->say("exit");
    EXPECT_MESSAGE(other.next(), messageOf(kDelete, recordOf(strangers, false)));
    otherTool->closeInput();

    // The launcher's end ends the tool, and with it the bridge.
    tool->closeInput();
    EXPECT_EQ(tool->waitForExit(20s), 0);
    EXPECT_EQ(otherTool->waitForExit(20s), 0);
    EXPECT_TRUE(vt::test::waitUntil([&] { return running("traybridge.exe") == 0; }, 20s));
}

} // namespace
