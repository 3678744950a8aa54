// The launcher in a hostile or broken world: a helper server that vanishes
// or hangs, a main application that never answers, a window-command tool
// that dies mid-answer, menu files built to exhaust it, and a flood of tray
// senders with a silent one among them. Each ends in a clear line and a
// launcher that goes on, or ends as it must, in bounded time.
#include <poll.h>
#include <pthread.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "integration/LaunchNotifySocket.hpp"
#include "loader/WineLoaderProtocol.hpp"
#include "integration/WindowCommandChannel.hpp"
#include "shell/HelperServerClient.hpp"
#include "shell/Menu.hpp"
#include "source/PropertyList.hpp"
#include "standin/kit/StandinWorld.hpp"
#include "standin/tray/TrayRecord.hpp"

using namespace std::chrono_literals;
using namespace vt::test;

namespace {

using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

// A thread with a small stack: a thousand of them fit in a 32-bit address
// space, and a parser's recursion shows up long before 8 MiB would.
class SmallStackThread {
public:
    SmallStackThread(std::function<void()> body, size_t stackBytes) : m_body(std::move(body))
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, stackBytes);
        m_started = pthread_create(&m_thread, &attributes, run, this) == 0;
        pthread_attr_destroy(&attributes);
    }
    ~SmallStackThread() { join(); }
    SmallStackThread(const SmallStackThread&) = delete;
    SmallStackThread& operator=(const SmallStackThread&) = delete;

    bool started() const { return m_started; }
    void join()
    {
        if (std::exchange(m_started, false))
            pthread_join(m_thread, nullptr);
    }

private:
    static void* run(void* self)
    {
        static_cast<SmallStackThread*>(self)->m_body();
        return nullptr;
    }

    std::function<void()> m_body;
    pthread_t m_thread {};
    bool m_started = false;
};

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

// A world whose launcher runs the program in processes of its own (no Wine
// library), so activation and quitting are the launcher's to handle.
class Hostile : public ::testing::Test {
protected:
    Hostile()
    {
        std::filesystem::remove(w.mainApp / "Contents/SharedSupport/Vantor" / vt::kNativeWineLoaderLayout.libraryDirectory
                                / vt::kWineLibraryName);
    }

    // Starts the launcher and waits until the window-command tool and the
    // program run and the launch's own activation has asked for windows.
    TestProcess& launch()
    {
        TestProcess& launcher = w.startLauncher();
        EXPECT_TRUE(w.records.waitForTools(2)) << w.launcherLog();
        EXPECT_TRUE(w.records.waitFor("request", 1)) << w.launcherLog();
        return launcher;
    }

    // A second launch of the bundle, forwarded to the running launcher.
    void launchAgain(const Strings& arguments)
    {
        EXPECT_EQ(w.startLauncher(arguments).waitForExit(), 0) << w.launcherLog(++runs);
    }

    Strings commandsAfter(size_t skip) const
    {
        Strings texts = w.records.commandTexts();
        return Strings(texts.begin() + std::min(skip, texts.size()), texts.end());
    }

    StandinWorld w;
    size_t runs = 0; // the launcher's runs after the first
};

// ---------------------------------------------------------------------------
// The helper server after start-up.

// Killed, alive without its name, or hung (SIGKILL, SIGUSR1, SIGUSR2).
class VanishingHelperServer : public Hostile, public ::testing::WithParamInterface<int> {};

TEST_P(VanishingHelperServer, EveryLaterRequestFailsInBoundedTimeWithALineAndTheLauncherGoesOn)
{
    const bool hung = GetParam() == SIGUSR2;
    w.startHelperServer();
    auto& launcher = launch();
    w.signalHelperServer(GetParam());
    ASSERT_TRUE(waitUntil([&] { return hung || !w.bus.hasOwner(vt::kHelperServerBusName); }));

    auto asked = Clock::now();
    launchAgain({ (w.dir / "letter.odt").string() });
    ASSERT_TRUE(w.waitForLog("/vtmenu for bottle Office: the Vantor helper server gave no environment "
                             "(GetEnvironmentForXConnection: "))
        << w.launcherLog();
    EXPECT_LT(Clock::now() - asked, vt::kHelperServerCallTimeout + 8s);
    if (hung) {
        EXPECT_GE(Clock::now() - asked, vt::kHelperServerCallTimeout);
        EXPECT_NE(w.launcherLog().find("Timeout was reached"), std::string::npos) << w.launcherLog();
    }
    EXPECT_EQ(w.records.tools("vtmenu").size(), 1u);

    // A raise is one-way: only a server without its name can be noticed.
    // The windows are asked about all the same.
    size_t seen = w.records.commandTexts().size() + 1;
    launchAgain({});
    ASSERT_TRUE(w.records.waitFor("request", seen)) << w.launcherLog();
    const std::string raise = "Cannot ask the Vantor helper server to raise the program's windows: "
                              "RaiseWindowsWithTag: nobody owns com.tallowmere.Vantor.HelperServer any more.";

    // The end of session needs only the window-command tool.
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_EQ(commandsAfter(seen), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    EXPECT_EQ(occurrences(w.launcherLog(), raise), hung ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(AfterStartUp, VanishingHelperServer, ::testing::Values(SIGKILL, SIGUSR1, SIGUSR2),
                         [](const auto& info) {
                             return std::string(info.param == SIGKILL ? "Killed"
                                                    : info.param == SIGUSR1 ? "NameLost"
                                                                            : "Hung");
                         });

TEST_F(Hostile, AHelperServerThatHangsDuringStartUpEndsTheLauncherAsAVanishedOne)
{
    w.startHelperServer({ { "VT_STANDIN_SILENT_AFTER", "0" } });
    auto started = Clock::now();
    auto& launcher = w.startLauncher();
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_LT(Clock::now() - started, vt::kHelperServerCallTimeout + 8s);
    EXPECT_NE(w.launcherLog().find("The Vantor helper server was there, but now it's gone.\n"), std::string::npos)
        << w.launcherLog();
    EXPECT_TRUE(w.records.tools().empty());
}

// ---------------------------------------------------------------------------
// The main application owns its name and never answers.

TEST_F(Hostile, AMainApplicationThatNeverAnswersCostsBoundedWaits)
{
    TestProcess mainApp({ (w.mainApp / "Contents/MacOS/Vantor").string() },
                        w.environment({ { "VT_STANDIN_MAIN_APP_HUNG", "1" } }));
    ASSERT_TRUE(waitUntil([&] {
        auto events = w.records.texts("main-app");
        return std::find(events.begin(), events.end(), "hung") != events.end();
    }));
    w.startHelperServer();

    // Start-up hands it the bundle without waiting for it: the program is
    // started before the open's time is up. The launch's activation waits,
    // a bounded time, to bring it forward.
    auto& launcher = launch();
    const std::string open = "com.tallowmere.Vantor did not answer Open within 1000 ms; the launcher went on without "
                             "its answer.";
    const std::string activate = "com.tallowmere.Vantor did not answer Activate within 1000 ms";
    ASSERT_TRUE(w.waitForLog(activate)) << w.launcherLog();
    ASSERT_TRUE(w.waitForLog(open)) << w.launcherLog();
    EXPECT_LT(w.launcherLog().find("started " + (w.mainApp / "Contents/SharedSupport/Vantor/bin/vtmenu").string()),
              w.launcherLog().find(open))
        << w.launcherLog();

    // The quit brings it forward too, and goes on.
    size_t seen = w.records.commandTexts().size();
    auto asked = Clock::now();
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_LT(Clock::now() - asked, 8s);
    EXPECT_EQ(occurrences(w.launcherLog(), activate), 2u);
    EXPECT_EQ(commandsAfter(seen), (Strings { "close", "queryendsession", "endsession", "shutdown" }));
    EXPECT_TRUE(mainApp.running());
}

// ---------------------------------------------------------------------------
// The window-command tool dies.

struct ToolDeath {
    const char* name;
    const char* command; // the command the tool dies on
    const char* script;  // how (standin/tools/sendwndcmd_main.cpp)
    Strings sent;        // what the quit gets across
    std::string logged;  // what the launcher says
};

class DyingWindowCommandTool : public Hostile, public ::testing::WithParamInterface<ToolDeath> {};

TEST_P(DyingWindowCommandTool, TheCommandAnswersNoTheQuitIsCancelledAndLaterCommandsWriteNothing)
{
    const ToolDeath& death = GetParam();
    w.setAnswer(death.command, death.script);
    w.startHelperServer();
    auto& launcher = launch();

    size_t seen = w.records.commandTexts().size();
    launcher.signal(SIGTERM);
    ASSERT_TRUE(w.waitForLog(death.logged)) << w.launcherLog();
    ASSERT_TRUE(w.waitForLog("a process of the Windows program ended: the window-command tool")) << w.launcherLog();
    EXPECT_EQ(commandsAfter(seen), death.sent);
    // The quit is settled only once its cancel has found no tool either; a
    // quit before that would join it. (The activation's answer hides and
    // unhides too, so "hide" counts nothing here.)
    ASSERT_TRUE(waitUntil([&] { return occurrences(w.launcherLog(), " quit cancelled\n") == 1; })) << w.launcherLog();
    EXPECT_TRUE(launcher.running()) << "no SIGPIPE, no quit while the program runs";

    // The tool is not started again: the next quit is refused without a word to anyone.
    launcher.signal(SIGTERM);
    ASSERT_TRUE(waitUntil([&] { return occurrences(w.launcherLog(), " quit cancelled\n") == 2; })) << w.launcherLog();
    EXPECT_EQ(commandsAfter(seen), death.sent);
    EXPECT_EQ(w.records.tools("wine").size(), 1u);
    EXPECT_TRUE(launcher.running());
}

INSTANTIATE_TEST_SUITE_P(
    Deaths, DyingWindowCommandTool,
    ::testing::Values(
        // Half an answer, cut inside the identifier: a mismatch.
        ToolDeath { "HalfAnAnswer", "close", "half", { "close" },
                    "Message mismatch.  Expected helperDelegateCommand1 and got helperDelega.\n" },
        // No answer at all. The command after it goes to nobody: its write
        // fails with EPIPE, or lands in the pipe in the instant before the
        // tool's input is closed and finds no answer (see the channel's own
        // test below for the failed write).
        ToolDeath { "NoAnswer", "queryendsession", "exit", { "close", "queryendsession" },
                    "Message mismatch.  Expected helperDelegateCommand2 and got .\n" }),
    [](const auto& info) { return std::string(info.param.name); });

TEST(HostileWindowCommandChannel, AToolThatClosedItsInputIsNotWaitedFor)
{
    // The launcher ignores SIGPIPE; so does this process while it plays it.
    struct IgnoredSigpipe {
        void (*saved)(int) = std::signal(SIGPIPE, SIG_IGN);
        ~IgnoredSigpipe() { std::signal(SIGPIPE, saved); }
    } ignored;
    StderrCapture log;
    TempDir dir;
    vt::WindowCommandChannel channel([] {});
    // Still running with its output open: reading an answer would wait for ever.
    auto tool = std::make_unique<vt::VTTask>();
    tool->setLaunchPath("/bin/sh");
    tool->setArguments({ "-c", "exec 0<&-; : > \"$0\"; exec sleep 30", (dir / "closed").string() });
    ASSERT_TRUE(channel.start(std::move(tool)));
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(dir / "closed"); }));

    auto sent = Clock::now();
    std::optional<bool> answer;
    channel.sendMessageToTaggedWindows("close", [&](bool confirmed) { answer = confirmed; });
    ASSERT_TRUE(waitUntil([&] { return answer.has_value(); }));
    EXPECT_EQ(answer, false);
    EXPECT_LT(Clock::now() - sent, 5s);
    EXPECT_NE(log.text().find("The window-command tool did not take helperDelegateCommand0 (close): Broken pipe.\n"),
              std::string::npos)
        << log.text();
    ::kill(channel.task()->processIdentifier(), SIGKILL);
}

// ---------------------------------------------------------------------------
// Menu files built to exhaust the launcher.

std::string nestedXml(size_t depth)
{
    std::string open, close;
    for (size_t i = 0; i < depth; ++i) {
        open += "<array>";
        close += "</array>";
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + open + close + "</plist>\n";
}

// A binary list of `objects`, each an array of the objects numbered in its entry.
std::string binaryList(const std::vector<std::vector<uint32_t>>& objects)
{
    auto bigEndian = [](std::string& out, uint64_t value, int width) {
        for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
            out += char(value >> shift);
    };
    std::string out = "bplist00";
    std::vector<uint64_t> offsets;
    for (const auto& refs : objects) {
        offsets.push_back(out.size());
        if (refs.size() < 15) {
            out += char(0xA0 | refs.size());
        } else {
            out += char(0xAF);
            out += char(0x12);
            bigEndian(out, refs.size(), 4);
        }
        for (uint32_t ref : refs)
            bigEndian(out, ref, 4);
    }
    uint64_t table = out.size();
    for (uint64_t offset : offsets)
        bigEndian(out, offset, 8);
    out += std::string(6, '\0');
    out += char(8); // offset width
    out += char(4); // reference width
    bigEndian(out, objects.size(), 8);
    bigEndian(out, 0, 8);
    bigEndian(out, table, 8);
    return out;
}

std::string nestedBinary(uint32_t depth)
{
    std::vector<std::vector<uint32_t>> objects(depth + 1);
    for (uint32_t i = 0; i < depth; ++i)
        objects[i] = { i + 1 };
    return binaryList(objects);
}

// Each array twice refers to the next: 2^levels values from a few hundred bytes.
std::string sharedBinary(uint32_t levels)
{
    std::vector<std::vector<uint32_t>> objects(levels + 1);
    for (uint32_t i = 0; i < levels; ++i)
        objects[i] = { i + 1, i + 1 };
    return binaryList(objects);
}

std::string menuOfSubmenus(size_t depth)
{
    vt::PlistDict item { { "title", "deepest" } };
    for (size_t i = 1; i < depth; ++i)
        item = vt::PlistDict { { "title", "level" }, { "submenu", vt::PlistArray { item } } };
    return vt::toXmlPropertyList(vt::PlistArray { item });
}

class HostileMenu : public ::testing::Test {
protected:
    // The menu read from a bundle whose menu file holds `contents`.
    vt::Menu menuFrom(const std::string& contents)
    {
        std::filesystem::create_directories(dir / "B.app/Contents/Resources");
        writeFile(dir / "B.app/Contents/Resources/MainMenu.plist", contents);
        return vt::loadBundleMenu(dir / "B.app");
    }
    std::string line(const std::string& problem) const
    {
        return "The menu file " + (dir / "B.app/Contents/Resources/MainMenu.plist").string() + " is not used: "
            + problem + "; the launcher shows its default menu.";
    }

    TempDir dir;
};

} // namespace

TEST_F(HostileMenu, AFileBeyondAnyLimitGivesTheDefaultMenuWithOneLine)
{
    const std::string tenMegabytes = "<plist><array><dict><key>title</key><string>" + std::string(10 << 20, 'x')
        + "</string></dict></array></plist>";
    std::string wide = "<plist><array>";
    for (size_t i = 0; i <= vt::kMaximumMenuItems; ++i)
        wide += "<dict><key>title</key><string>x</string></dict>";
    wide += "</array></plist>";
    const struct {
        const char* name;
        std::string contents;
        std::string problem;
    } cases[] = {
        { "ten megabytes", tenMegabytes, "it is larger than 1048576 bytes" },
        { "10,000 levels of XML", nestedXml(10000), "it is nested deeper than 128 levels" },
        { "10,000 levels, binary", nestedBinary(10000), "it is nested deeper than 128 levels" },
        { "a billion values in 400 bytes", sharedBinary(30),
          "it holds more than " + std::to_string(vt::kMaximumPropertyListValues) + " values" },
        { "a cycle", binaryList({ { 1 }, { 0 } }), "it is not a property list" },
        { "17 levels of submenus", menuOfSubmenus(17), "its submenus go deeper than 16 levels" },
        { "too many items", wide, "it holds more than 4096 items" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        StderrCapture log;
        vt::Menu menu = menuFrom(c.contents);
        ASSERT_EQ(menu.items.size(), 1u);
        EXPECT_EQ(menu.items[0].title, "Quit %@");
        EXPECT_EQ(occurrences(log.text(), "The menu file "), 1u) << log.text();
        EXPECT_NE(log.text().find(line(c.problem)), std::string::npos) << log.text();
    }

    // At the limits, all is read.
    StderrCapture log;
    vt::Menu deepest = menuFrom(menuOfSubmenus(16));
    size_t depth = 1;
    for (const vt::Menu* menu = &deepest; menu->items.at(0).submenu; menu = menu->items.at(0).submenu.get())
        ++depth;
    EXPECT_EQ(depth, 16u);
    EXPECT_EQ(vt::parsePropertyList(nestedXml(128).data(), nestedXml(128).size())->asArray()->size(), 1u);
    EXPECT_TRUE(vt::parsePropertyList(nestedBinary(127).data(), nestedBinary(127).size()));
    EXPECT_TRUE(vt::parsePropertyList(sharedBinary(15).data(), sharedBinary(15).size()));
    EXPECT_EQ(log.text(), "");
}

TEST_F(HostileMenu, DeepListsAreRefusedWithoutRecursionEvenOnASmallStack)
{
    // libplist's binary reader recurses once per level and its release of a
    // list does too: 100,000 levels overrun even the main thread's 8 MiB.
    struct Job {
        std::string document;
        std::optional<vt::PlistValue> value;
        std::string problem;
    };
    std::vector<Job> jobs { { nestedXml(100000), {}, {} }, { nestedBinary(100000), {}, {} },
                            { sharedBinary(60), {}, {} } };
    for (Job& job : jobs) {
        SmallStackThread thread(
            [&job] { job.value = vt::parsePropertyList(job.document.data(), job.document.size(), &job.problem); },
            64 * 1024);
        ASSERT_TRUE(thread.started());
        thread.join();
        EXPECT_FALSE(job.value);
    }
    EXPECT_EQ(jobs[0].problem, "it is nested deeper than 128 levels");
    EXPECT_EQ(jobs[1].problem, "it is nested deeper than 128 levels");
    EXPECT_EQ(jobs[2].problem, "it holds more than " + std::to_string(vt::kMaximumPropertyListValues) + " values");
}

// ---------------------------------------------------------------------------
// The tray watcher under load.

namespace {

// The address sanitizer keeps what is freed in quarantine, hundreds of MiB.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kResidentSizeMeans = false;
#else
constexpr bool kResidentSizeMeans = true;
#endif

size_t residentKibibytes(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoul(line.substr(6));
    }
    return 0;
}

} // namespace

TEST_F(Hostile, AThousandConcurrentTraySendersAndASilentOneLoseNothingAndKeepTheirOrder)
{
    constexpr int kSenders = 1000, kEach = 3;
    // Each message names its sender and place in an operation the launcher
    // does not know, which it logs as it applies it: the log is the order.
    constexpr uint64_t kBase = 1000000;
    auto operation = [](int sender, int sequence) { return kBase + uint64_t(sender) * 10 + uint64_t(sequence); };

    w.startHelperServer();
    auto& launcher = launch();
    const std::string path = w.records.tools("vtmenu").at(0).environment["VT_SYSTRAY_SOCKET"];
    ASSERT_FALSE(path.empty());
    ASSERT_TRUE(vt::standin::sendTrayBytes(path, vt::standin::trayMessage(vt::kNativeTrayLayout, 7, {})));
    ASSERT_TRUE(w.waitForLog("Unknown systray message: 7\n")) << w.launcherLog();
    const size_t before = residentKibibytes(launcher.pid());

    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    vt::Fd silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(silent.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

    std::atomic<int> failures = 0, finished = 0;
    std::vector<std::unique_ptr<SmallStackThread>> senders;
    for (int sender = 0; sender < kSenders; ++sender) {
        senders.push_back(std::make_unique<SmallStackThread>(
            [&, sender] {
                for (int sequence = 0; sequence < kEach; ++sequence) {
                    auto bytes = vt::standin::trayMessage(vt::kNativeTrayLayout, operation(sender, sequence), {});
                    if (!vt::standin::sendTrayBytes(path, bytes))
                        ++failures;
                }
                ++finished;
            },
            256 * 1024));
        ASSERT_TRUE(senders.back()->started()) << "sender " << sender;
    }
    // The launcher's log comes through a pipe that only the main loop empties.
    EXPECT_TRUE(waitUntil([&] { return finished == kSenders; }, 60s));
    senders.clear();
    EXPECT_EQ(failures, 0);

    const std::regex unknown("Unknown systray message: (\\d+)\n");
    std::map<int, std::vector<int>> sequences;
    size_t applied = 0;
    auto readLog = [&] {
        sequences.clear();
        applied = 0;
        const std::string log = w.launcherLog();
        for (std::sregex_iterator it(log.begin(), log.end(), unknown), end; it != end; ++it) {
            uint64_t value = std::stoull((*it)[1]);
            if (value < kBase)
                continue;
            sequences[int((value - kBase) / 10)].push_back(int((value - kBase) % 10));
            ++applied;
        }
        return applied == size_t(kSenders * kEach);
    };
    ASSERT_TRUE(waitUntil(readLog, 60s)) << applied << " of " << kSenders * kEach << " applied";
    ASSERT_EQ(sequences.size(), size_t(kSenders));
    for (const auto& [sender, sequence] : sequences)
        ASSERT_EQ(sequence, (std::vector<int> { 0, 1, 2 })) << "sender " << sender;

    // The silent one was served its deadline, after the first of the others.
    ASSERT_TRUE(w.waitForLog("Read message 0.\n")) << w.launcherLog();
    const std::string log = w.launcherLog();
    EXPECT_LT(log.find("Unknown systray message: " + std::to_string(operation(0, 0))), log.find("Read message 0.\n"));
    // It is said as the message is read, and the connection closes just
    // after.
    pollfd closing { silent.get(), POLLIN, 0 };
    EXPECT_EQ(::poll(&closing, 1, 10000), 1);
    char byte;
    EXPECT_EQ(::recv(silent.get(), &byte, 1, MSG_DONTWAIT), 0) << "the launcher has closed it";

    const size_t after = residentKibibytes(launcher.pid());
    if (kResidentSizeMeans) {
        EXPECT_LT(after, before + 4096) << "RSS before " << before << " KiB, after " << after << " KiB";
    }
    EXPECT_TRUE(launcher.running());
}
