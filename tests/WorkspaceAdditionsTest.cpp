#include "source/WorkspaceAdditions.hpp"

#include <algorithm>
#include <climits>
#include <csignal>
#include <functional>

#include <gtest/gtest.h>

#include "source/UserDefaults.hpp"
#include "source/VantorNames.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/Records.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using namespace vt::test;
using vt::detail::InstalledCopy;
using Lines = std::vector<std::string>;

namespace {

// The probe's answer when the request was delivered or the copy started and
// no process of its own was left behind.
const Lines answeredYes { "YES", "children none" };

// A copy as the desktop lists it, qualifying in every respect but those a
// case changes; its date in seconds and nanoseconds.
InstalledCopy listed(const std::string& bundle, std::optional<std::string> version,
                     std::optional<time_t> seconds = {}, long nanoseconds = 0)
{
    return { .bundle = bundle, .identifier = kVantorBundleIdentifier, .version = std::move(version), .runnable = true,
             .modified = seconds ? std::optional(timespec { *seconds, nanoseconds }) : std::nullopt };
}

std::string chosen(const std::vector<InstalledCopy>& copies)
{
    auto path = detail::chooseNewestCopy(copies, kVantorBundleIdentifier);
    return path ? path->string() : "none";
}

TEST(NewestCopy, TheHigherFullReleaseWinsWhateverTheDates)
{
    EXPECT_EQ(chosen({ listed("Old", "3.9.1", 3000), listed("Two", "4.2.0", 2000), listed("Ten", "4.10.0", 1000) }),
              "Ten");
    EXPECT_EQ(chosen({ listed("Lowest", "1.0.") }), "Lowest");
    EXPECT_EQ(chosen({}), "none");
    for (const char* refused : { "9.1", "9", "", "0.9.1", "-5.1.0", "4.-1.0", "v9.1.0", "9..1" })
        EXPECT_EQ(chosen({ listed("Refused", refused) }), "none") << refused;
    EXPECT_EQ(chosen({ listed("Unversioned", std::nullopt) }), "none");
}

TEST(NewestCopy, OnAnEqualReleaseTheLaterDateWinsAndOtherwiseTheFirstListed)
{
    // The patch number never counts.
    EXPECT_EQ(chosen({ listed("Patch7", "4.1.7", 1000), listed("Patch0", "4.1.0", 2000) }), "Patch0");
    EXPECT_EQ(chosen({ listed("First", "4.1.0", 1000), listed("Second", "4.1.9", 1000) }), "First");
    EXPECT_EQ(chosen({ listed("Earlier", "4.1.0", 1000, 1), listed("Later", "4.1.0", 1000, 2) }), "Later");
    EXPECT_EQ(chosen({ listed("Later", "4.1.0", 1000, 2), listed("Earlier", "4.1.0", 1000, 1) }), "Later");

    // A copy without a date cannot win a tie; any date beats none.
    EXPECT_EQ(chosen({ listed("Dated", "4.1.0", 1000), listed("Undated", "4.1.0") }), "Dated");
    EXPECT_EQ(chosen({ listed("Undated", "4.1.0"), listed("Dated", "4.1.0", -1) }), "Dated");
    EXPECT_EQ(chosen({ listed("Undated", "4.1.0"), listed("AlsoUndated", "4.1.0") }), "Undated");

    // Only the dates of the best release so far count.
    EXPECT_EQ(chosen({ listed("Old", "4.0.0", 3000), listed("New", "4.1.0", 1000), listed("Newer", "4.1.0", 2000) }),
              "Newer");
    EXPECT_EQ(chosen({ listed("Old", "4.0.0", 3000), listed("New", "4.1.0"), listed("Dated", "4.1.0", 1) }), "Dated");
}

TEST(NewestCopy, OnlyARunnableCopyWithTheIdentifierIgnoringCaseCounts)
{
    auto with = [](std::optional<std::string> identifier, std::string version, bool runnable = true) {
        InstalledCopy copy = listed(identifier.value_or("(none)"), std::move(version));
        copy.identifier = std::move(identifier);
        copy.runnable = runnable;
        return copy;
    };
    EXPECT_EQ(chosen({ with("com.tallowmere.VantorHelper", "9.0.0"), with(std::nullopt, "9.0.0"), with("", "9.0.0"),
                       with(kVantorBundleIdentifier, "9.0.0", false), with("COM.TALLOWMERE.vantor", "4.0.0") }),
              "COM.TALLOWMERE.vantor");

    auto matches = [&](const std::string& identifier, std::string_view wanted) {
        return detail::chooseNewestCopy({ with(identifier, "4.1.0") }, wanted).has_value();
    };
    // Unicode case folding: the Kelvin sign is a k, ß is ss.
    EXPECT_TRUE(matches("org.example.\u212Aiosk", "ORG.EXAMPLE.KIOSK"));
    EXPECT_TRUE(matches("de.example.STRASSE", "de.example.stra\u00DFe"));
    // Not valid UTF-8: ASCII letters only, every other byte as it is.
    EXPECT_TRUE(matches("ORG.EXAMPLE.\xff", "org.example.\xff"));
    EXPECT_FALSE(matches("org.example.\u212Aiosk\xff", "org.example.kiosk\xff"));
    EXPECT_FALSE(matches("org.example.\xfe", "org.example.\xff"));
    EXPECT_FALSE(matches("org.example", "org.example\xff"));
}

// A private desktop, optionally a private bus, and the probe that looks at
// them from a fresh process.
class MainApp : public ::testing::Test {
protected:
    std::string bundle(const std::string& name) const { return (dir / name).string(); }

    // The probe's result lines.
    Lines probe(std::vector<std::string> arguments, std::map<std::string, std::optional<std::string>> extra = {})
    {
        auto changes = desktop.variables();
        // Without a private bus, one that is not there: never the user's.
        changes["DBUS_SESSION_BUS_ADDRESS"] = bus ? bus->address() : "unix:path=" + (dir / "no-bus").string();
        for (auto& [name, value] : extra)
            changes[name] = value;
        std::filesystem::path result = dir / ("probe-result-" + std::to_string(++m_probes));
        std::vector<std::string> argv { VT_FIXTURES_DIR "/vt-workspace-probe", result.string() };
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        TestProcess process(argv, environmentWith(changes));
        EXPECT_EQ(process.waitForExit(), 0);
        return readLines(result);
    }

    std::string lookup(std::optional<std::string> scheme = kVantorURLScheme)
    {
        std::vector<std::string> arguments { "lookup", kVantorBundleIdentifier };
        if (scheme)
            arguments.push_back(*scheme);
        Lines lines = probe(arguments);
        return lines.empty() ? "(no result)" : lines.front();
    }

    // The stand-in main application started from `bundle` on the private
    // bus, once it has registered and handled its start-up activation.
    std::unique_ptr<TestProcess> startMainApp(const std::filesystem::path& bundle)
    {
        auto process = std::make_unique<TestProcess>(
            std::vector<std::string> { (bundle / "Contents/MacOS/Vantor").string() },
            environmentWith({ { "DBUS_SESSION_BUS_ADDRESS", bus->address() },
                              { "VT_STANDIN_RECORDS", records.path().string() } }));
        EXPECT_TRUE(waitUntil([this] { return records.texts("main-app").size() >= 2; }));
        EXPECT_EQ(records.texts("main-app").back(), "activate");
        return process;
    }

    TempDir dir;
    Desktop desktop { dir / "desktop" };
    vt::test::RecordReader records { dir / "records" };
    std::optional<PrivateBus> bus;

private:
    int m_probes = 0;
};

TEST_F(MainApp, TheInstalledCopiesAreReadFromTheDesktopEntriesGioListsInItsOrder)
{
    // Listed first through a link made just now to a bundle dated long ago:
    // the date is the bundle directory's.
    desktop.addMainApp({ .bundle = dir / "real/Target.app", .registersScheme = false, .modified = 500 });
    std::filesystem::create_directory_symlink(dir / "real/Target.app", dir / "Linked.app");
    desktop.addDesktopEntry("linked.desktop", dir / "Linked.app/Contents/MacOS/Vantor", true);
    // A name that the desktop entry has to quote, and an identifier in other
    // letters.
    desktop.addMainApp(
        { .bundle = dir / "Quoted 1 \"$x\".app", .identifier = "COM.TALLOWMERE.vantor", .modified = 1000 });
    desktop.addMainApp({ .bundle = dir / "Second.app", .version = "4.1.9", .modified = 1000 });
    // Still listed, since its desktop entry starts another, runnable file.
    desktop.addMainApp(
        { .bundle = dir / "Broken.app", .version = "9.0.0", .executable = false, .execName = "starter" });
    desktop.addMainApp({ .bundle = dir / "Named.app", .version = "1",
                         .desktopId = std::string(kVantorBundleIdentifier) + ".desktop", .registersScheme = false });

    EXPECT_EQ(lookup(), bundle("Quoted 1 \"$x\".app"));
    // Without a scheme, or when no copy registers it, the identifier's own
    // desktop entry answers.
    EXPECT_EQ(lookup(std::nullopt), bundle("Named.app"));
    EXPECT_EQ(lookup("x-unregistered"), bundle("Named.app"));
}

TEST_F(MainApp, ARunningCopyWinsOverEveryInstalledOne)
{
    bus.emplace();
    desktop.addMainApp({ .bundle = dir / "Installed.app", .version = "9.0.0" });
    MainAppCopy running { .bundle = dir / "Running.app", .version = "1.0.0", .desktopId = "running.desktop",
                          .registersScheme = false };
    desktop.addMainApp(running);

    auto process = startMainApp(running.bundle);
    EXPECT_EQ(probe({ "running", kVantorBundleIdentifier }), Lines { bundle("Running.app") });
    EXPECT_EQ(lookup(), bundle("Running.app"));
    EXPECT_EQ(lookup(std::nullopt), bundle("Running.app"));

    // Updated on disk while it runs: its executable is now a deleted file,
    // and its bundle is still where it was.
    std::filesystem::path executable = running.bundle / "Contents/MacOS/Vantor";
    std::filesystem::copy_file(executable, executable.string() + ".new");
    std::filesystem::rename(executable.string() + ".new", executable);
    EXPECT_EQ(probe({ "running", kVantorBundleIdentifier }), Lines { bundle("Running.app") });

    process->signal(SIGTERM);
    EXPECT_TRUE(waitUntil([&] { return !process->running(); }));
    EXPECT_EQ(probe({ "running", kVantorBundleIdentifier }), Lines { "none" });
    EXPECT_EQ(lookup(), bundle("Installed.app"));
}

TEST_F(MainApp, ARunningCopyIsToldToOpenAndActivatedOnlyWhenAllowedToSwitch)
{
    bus.emplace();
    auto process = startMainApp(desktop.addMainApp({ .bundle = dir / "Vantor.app" }));
    Lines expected = records.texts("main-app");
    std::string first = "file://" + bundle("Notepad.app");
    std::string second = "file://" + bundle("Paint.app");

    // The open is sent without waiting for the application to act on it;
    // it arrives all the same, in order, though the asking process has ended.
    EXPECT_EQ(probe({ "open", kVantorBundleIdentifier, kVantorURLScheme, "0x300", first }), answeredYes);
    expected.push_back("open " + first);
    EXPECT_TRUE(waitUntil([&] { return records.texts("main-app") == expected; })) << records.texts("main-app").size();

    EXPECT_EQ(probe({ "open", kVantorBundleIdentifier, kVantorURLScheme, "0", second }), answeredYes);
    expected.insert(expected.end(), { "open " + second, "activate" });
    EXPECT_EQ(records.texts("main-app"), expected);

    // Launching what already runs leaves it alone.
    EXPECT_EQ(probe({ "launch", kVantorBundleIdentifier, kVantorURLScheme, "0" }), answeredYes);
    EXPECT_EQ(records.texts("main-app"), expected);
    EXPECT_TRUE(process->running());
}

TEST_F(MainApp, TheChosenCopyIsStartedWithTheUrlsInheritingNoTokenDescriptorSignalStateOrDirectory)
{
    std::filesystem::path out = dir / "started.record";
    std::string script = "#!/bin/sh\n"
                         "{\n"
                         "  echo \"exec $0\"\n"
                         "  echo \"args $*\"\n"
                         "  echo \"stdin $(readlink /proc/$$/fd/0)\"\n"
                         "  if [ -e /proc/$$/fd/9 ]; then echo 'fd9 open'; else echo 'fd9 closed'; fi\n"
                         "  echo \"tokens ${DESKTOP_STARTUP_ID-unset} ${XDG_ACTIVATION_TOKEN-unset}\"\n"
                         // Signals from 32 on belong to the C library, which keeps them as it likes.
                         "  echo \"ignored $(( 0x$(sed -n 's/^SigIgn:\\t//p' /proc/$$/status) & 0x7fffffff ))\"\n"
                         "  echo \"blocked $(( 0x$(sed -n 's/^SigBlk:\\t//p' /proc/$$/status) & 0x7fffffff ))\"\n"
                         "  echo \"cwd $(pwd)\"\n"
                         "} > '"
        + out.string() + ".tmp' && mv '" + out.string() + ".tmp' '" + out.string() + "'\n";
    writeFile(dir / "record.sh", script);
    desktop.addMainApp({ .bundle = dir / "Old.app", .version = "3.0.0" });
    desktop.addMainApp({ .bundle = dir / "Scripted.app", .binary = dir / "record.sh" });

    EXPECT_EQ(probe({ "open", kVantorBundleIdentifier, kVantorURLScheme, "768", "a:1", "b:2" },
                    { { "DESKTOP_STARTUP_ID", "startup" }, { "XDG_ACTIVATION_TOKEN", "token" } }),
              answeredYes);
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(out); }));
    EXPECT_EQ(readLines(out), (Lines { "exec " + bundle("Scripted.app/Contents/MacOS/Vantor"), "args a:1 b:2",
                                       "stdin /dev/null", "fd9 closed", "tokens unset unset", "ignored 0",
                                       "blocked 0", "cwd /" }));
}

TEST_F(MainApp, NothingToStartAnswersNoAndLogsNothing)
{
    StderrCapture capture;
    EXPECT_EQ(probe({ "open", kVantorBundleIdentifier, kVantorURLScheme, "768", "a:1" }),
              (Lines { "NO", "children none" }));
    EXPECT_EQ(probe({ "launch", kVantorBundleIdentifier, "-", "768" }), (Lines { "NO", "children none" }));
    EXPECT_EQ(lookup(), "none");
    EXPECT_EQ(capture.text(), "");
}

TEST(MainAppAssertion, AMissingIdentifierIsAProgrammingError)
{
    struct Case {
        const char* function;
        int line;
        std::function<void()> call;
    };
    for (const Case& c : std::vector<Case> {
             { "VT_absolutePathForAppBundleWithIdentifier", 35,
               [] { VT_absolutePathForAppBundleWithIdentifier(std::nullopt, kVantorURLScheme); } },
             { "VT_launchAppWithBundleIdentifier", 127,
               [] { VT_launchAppWithBundleIdentifier(std::nullopt, kVantorURLScheme, 0x300); } },
             { "VT_openURLs", 158, [] { VT_openURLs({ "a:1" }, std::nullopt, std::nullopt, 0x300); } },
         }) {
        StderrCapture capture;
        try {
            c.call();
            ADD_FAILURE() << c.function << " returned";
        } catch (const AssertionFailure& failure) {
            EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: bundleIdentifier != nil");
        }
        std::string text = capture.text();
        std::string line = std::string("*** Assertion failure in ") + c.function
            + ", NSWorkspace+VantorAdditions:" + std::to_string(c.line) + "\n";
        EXPECT_TRUE(text.ends_with(line)) << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    }
}

TEST(MainAppNames, BundleVersionsScanAsFullReleaseNumbers)
{
    using detail::BundleVersion;
    using detail::scanBundleVersion;
    EXPECT_EQ(scanBundleVersion("4.1.3"), (BundleVersion { 4, 1 }));
    EXPECT_EQ(scanBundleVersion("4.1."), (BundleVersion { 4, 1 }));
    EXPECT_EQ(scanBundleVersion("10.20.x beta"), (BundleVersion { 10, 20 }));
    EXPECT_EQ(scanBundleVersion(" 4 .\t1\n. 3"), (BundleVersion { 4, 1 }));
    EXPECT_EQ(scanBundleVersion("\u00A04.\u20031."), (BundleVersion { 4, 1 }));
    EXPECT_EQ(scanBundleVersion("+4.-0."), (BundleVersion { 4, 0 }));
    EXPECT_EQ(scanBundleVersion("-2.1."), (BundleVersion { -2, 1 }));
    EXPECT_EQ(scanBundleVersion("99999999999.1."), (BundleVersion { INT_MAX, 1 }));
    for (const char* refused : { "4.1", "4", "", "4..1.", "4. .1.", "v4.1.", "4 1.", "4.1 3", "+.1.", "4.+ 1." })
        EXPECT_EQ(scanBundleVersion(refused), std::nullopt) << refused;

    EXPECT_EQ(detail::applicationObjectPath("com.tallowmere.Vantor"), "/com/tallowmere/Vantor");
    EXPECT_EQ(detail::applicationObjectPath("org.example.my-app"), "/org/example/my_app");
}

TEST(VantorDefaults, DisableWineIntegrationTakesThePlatformsBooleanReading)
{
    TempDir dir;
    Desktop desktop(dir / "desktop");
    ScopedEnvironment environment;
    environment.set("XDG_CONFIG_HOME", desktop.configHome().string());

    const std::vector<std::pair<PlistValue, bool>> readings {
        { true, true }, { false, false }, { 1, true }, { -1, true }, { 0, false }, { 0.5, true }, { 0.0, false },
        { "YES", true }, { "yes", true }, { "True", true }, { "tomato", true }, { "NO", false }, { "1", false },
        { "", false }, { " yes", false }, { PlistData { 1 }, false }, { PlistArray { "YES" }, false },
        { PlistDict { { "a", true } }, false },
    };
    // The file is written anew for each row, so this also proves nothing is cached.
    for (const auto& [value, expected] : readings) {
        desktop.writeVantorDefaults({ { "DisableWineIntegration", value } });
        EXPECT_EQ(vantorDisableWineIntegration(), expected) << toXmlPropertyList(value);
    }

    desktop.writeVantorDefaults({ { "SomethingElse", true } });
    EXPECT_FALSE(vantorDisableWineIntegration());
    writeFile(desktop.configHome() / "com.tallowmere.Vantor.plist", "<plist><dict><key>Disable");
    EXPECT_FALSE(vantorDisableWineIntegration());
    writeFile(desktop.configHome() / "com.tallowmere.Vantor.plist",
                        toXmlPropertyList(PlistArray { "DisableWineIntegration", true }));
    EXPECT_FALSE(vantorDisableWineIntegration());
    std::filesystem::remove(desktop.configHome() / "com.tallowmere.Vantor.plist");
    EXPECT_FALSE(vantorDisableWineIntegration());
    EXPECT_EQ(vantorUserDefault("DisableWineIntegration"), std::nullopt);
}

TEST(VantorDefaults, LiveInTheHomeConfigDirectoryWithoutAnAbsoluteXdgConfigHome)
{
    TempDir dir;
    ScopedEnvironment environment;
    environment.set("HOME", dir.path().string());
    std::filesystem::create_directories(dir / ".config");
    writeFile(dir / ".config/com.tallowmere.Vantor.plist",
                        toBinaryPropertyList(PlistDict { { "DisableWineIntegration", "Yes" } }));

    environment.unset("XDG_CONFIG_HOME");
    EXPECT_TRUE(vantorDisableWineIntegration());
    environment.set("XDG_CONFIG_HOME", "relative/config");
    EXPECT_TRUE(vantorDisableWineIntegration());
    environment.set("XDG_CONFIG_HOME", (dir / "elsewhere").string());
    EXPECT_FALSE(vantorDisableWineIntegration());
}

} // namespace
