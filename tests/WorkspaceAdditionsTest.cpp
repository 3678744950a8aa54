#include "source/WorkspaceAdditions.hpp"

#include <algorithm>
#include <climits>
#include <csignal>
#include <functional>

#include <gtest/gtest.h>

#include "source/UserDefaults.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/Records.hpp"
#include "standin/kit/TestSupport.hpp"

using vt::PlistArray;
using vt::PlistData;
using vt::PlistDict;
using vt::PlistValue;
using vt::test::Desktop;
using vt::test::environmentWith;
using vt::test::MainAppCopy;
using vt::kVantorBundleIdentifier;
using vt::kVantorURLScheme;
using vt::test::readLines;
using vt::test::TempDir;
using vt::test::TestProcess;
using vt::test::waitUntil;
using Lines = std::vector<std::string>;

namespace {

// A private desktop, optionally a private bus, and the probe that looks at
// them from a fresh process.
class MainApp : public ::testing::Test {
protected:
    // A copy that is never started: any small executable does.
    MainAppCopy copy(const std::string& name, std::optional<std::string> version, std::optional<int64_t> modified = {})
    {
        MainAppCopy copy;
        copy.bundle = dir / name;
        copy.version = std::move(version);
        copy.modified = modified;
        copy.binary = "/bin/true";
        return copy;
    }

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

    std::string lookup(std::optional<std::string> scheme = vt::kVantorURLScheme, const std::string& id = vt::kVantorBundleIdentifier)
    {
        std::vector<std::string> arguments { "lookup", id };
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
    std::optional<vt::test::PrivateBus> bus;

private:
    int m_probes = 0;
};

TEST_F(MainApp, AHigherVersionWinsWhateverTheDates)
{
    desktop.addMainApp(copy("Old.app", "3.9.1", 3000));
    desktop.addMainApp(copy("Minor2.app", "4.2.0", 2000));
    // A name that the desktop entry has to quote.
    desktop.addMainApp(copy("Minor 10 \"$x\".app", "4.10.0", 1000));
    EXPECT_EQ(lookup(), bundle("Minor 10 \"$x\".app"));
}

TEST_F(MainApp, ThePatchNumberNeverCountsTheLaterDateDecides)
{
    desktop.addMainApp(copy("Patch7.app", "4.1.7", 1000));
    desktop.addMainApp(copy("Patch0.app", "4.1.0", 2000));
    EXPECT_EQ(lookup(), bundle("Patch0.app"));
}

TEST_F(MainApp, OnAFullTieTheFirstListedStays)
{
    desktop.addMainApp(copy("First.app", "4.1.0", 1000));
    desktop.addMainApp(copy("Second.app", "4.1.9", 1000));
    EXPECT_EQ(lookup(), bundle("First.app"));
}

TEST_F(MainApp, TheDateIsTheBundleDirectorysBehindSymbolicLinks)
{
    // Listed first through a link made just now to a bundle dated long ago:
    // the bundle's date counts, so the copy listed second is newer.
    auto target = copy("real/Target.app", "4.1.0", 500);
    target.registersScheme = false;
    desktop.addMainApp(target);
    std::filesystem::create_directory_symlink(dir / "real/Target.app", dir / "Linked.app");
    desktop.addDesktopEntry("linked.desktop", dir / "Linked.app/Contents/MacOS/Vantor", true);
    desktop.addMainApp(copy("Real.app", "4.1.0", 1000));
    EXPECT_EQ(lookup(), bundle("Real.app"));
}

TEST_F(MainApp, VersionsThatAreNoFullReleaseNeverWinAndTheIdentifierDecides)
{
    for (const auto& [name, version] : std::vector<std::pair<std::string, std::optional<std::string>>> {
             { "OneDot.app", "9.1" }, { "Major0.app", "0.9.1" }, { "Empty.app", "" }, { "None.app", std::nullopt },
             { "Negative.app", "-5.1.0" }, { "Letters.app", "v9.1.0" }, { "MinorMissing.app", "9..1" } })
        desktop.addMainApp(copy(name, version));
    EXPECT_EQ(lookup(), "none");

    auto fallback = copy("Fallback.app", "2");
    fallback.desktopId = std::string(vt::kVantorBundleIdentifier) + ".desktop";
    fallback.registersScheme = false;
    desktop.addMainApp(fallback);
    EXPECT_EQ(lookup(), bundle("Fallback.app"));
}

TEST_F(MainApp, WithoutASchemeOnlyTheIdentifiersDesktopEntryCounts)
{
    desktop.addMainApp(copy("Registered.app", "9.0.0"));
    auto named = copy("Named.app", "1.0.0");
    named.desktopId = std::string(vt::kVantorBundleIdentifier) + ".desktop";
    named.registersScheme = false;
    desktop.addMainApp(named);
    EXPECT_EQ(lookup(vt::kVantorURLScheme), bundle("Registered.app"));
    EXPECT_EQ(lookup(std::nullopt), bundle("Named.app"));
}

TEST_F(MainApp, TheIdentifierMatchesWithoutRegardToCase)
{
    desktop.addMainApp(copy("Plain.app", "4.0.0"));
    auto shouting = copy("Shouting.app", "5.0.0");
    shouting.identifier = "COM.TALLOWMERE.vantor";
    desktop.addMainApp(shouting);
    auto other = copy("Other.app", "9.0.0");
    other.identifier = "com.tallowmere.VantorHelper";
    desktop.addMainApp(other);
    EXPECT_EQ(lookup(), bundle("Shouting.app"));
}

TEST_F(MainApp, ACopyWhoseExecutableCannotRunIsNeverChosen)
{
    // GIO still lists it: its desktop entry starts another, runnable file.
    auto broken = copy("Broken.app", "9.0.0");
    broken.executable = false;
    broken.execName = "starter";
    desktop.addMainApp(broken);
    auto missing = copy("Missing.app", "9.0.0");
    missing.execName = "starter";
    desktop.addMainApp(missing);
    std::filesystem::remove(dir / "Missing.app/Contents/MacOS/Vantor");
    desktop.addMainApp(copy("Working.app", "4.0.0"));
    EXPECT_EQ(lookup(), bundle("Working.app"));
}

TEST_F(MainApp, ARunningCopyWinsOverEveryInstalledOne)
{
    bus.emplace();
    desktop.addMainApp(copy("Installed.app", "9.0.0"));
    MainAppCopy running;
    running.bundle = dir / "Running.app";
    running.version = "1.0.0";
    running.registersScheme = false;
    running.desktopId = "running.desktop";
    desktop.addMainApp(running);

    auto process = startMainApp(running.bundle);
    EXPECT_EQ(probe({ "running", vt::kVantorBundleIdentifier }), Lines { bundle("Running.app") });
    EXPECT_EQ(lookup(), bundle("Running.app"));
    EXPECT_EQ(lookup(std::nullopt), bundle("Running.app"));

    // Updated on disk while it runs: its executable is now a deleted file,
    // and its bundle is still where it was.
    std::filesystem::path executable = running.bundle / "Contents/MacOS/Vantor";
    std::filesystem::remove(executable);
    std::filesystem::copy_file(vt::test::standinMainAppBinary(), executable);
    EXPECT_EQ(probe({ "running", vt::kVantorBundleIdentifier }), Lines { bundle("Running.app") });

    process->signal(SIGTERM);
    EXPECT_TRUE(waitUntil([&] { return !process->running(); }));
    EXPECT_EQ(probe({ "running", vt::kVantorBundleIdentifier }), Lines { "none" });
    EXPECT_EQ(lookup(), bundle("Installed.app"));
}

TEST_F(MainApp, ARunningCopyIsToldToOpenAndActivatedOnlyWhenAllowedToSwitch)
{
    bus.emplace();
    auto process = startMainApp(desktop.addMainApp({ .bundle = dir / "Vantor.app" }));
    Lines expected = records.texts("main-app");
    std::string first = "file://" + bundle("Notepad.app");
    std::string second = "file://" + bundle("Paint.app");

    EXPECT_EQ(probe({ "open", vt::kVantorBundleIdentifier, vt::kVantorURLScheme, "0x300", first }), (Lines { "YES", "children none" }));
    expected.push_back("open " + first);
    EXPECT_EQ(records.texts("main-app"), expected);

    EXPECT_EQ(probe({ "open", vt::kVantorBundleIdentifier, vt::kVantorURLScheme, "0", second }), (Lines { "YES", "children none" }));
    expected.push_back("open " + second);
    expected.push_back("activate");
    EXPECT_EQ(records.texts("main-app"), expected);

    // Launching what already runs leaves it alone.
    EXPECT_EQ(probe({ "launch", vt::kVantorBundleIdentifier, vt::kVantorURLScheme, "0" }), (Lines { "YES", "children none" }));
    EXPECT_EQ(records.texts("main-app"), expected);
    EXPECT_TRUE(process->running());
}

TEST_F(MainApp, TheChosenCopyIsStartedWithTheUrlsWhenNoneRuns)
{
    bus.emplace();
    desktop.addMainApp(copy("Old.app", "3.0.0"));
    std::filesystem::path chosen = desktop.addMainApp({ .bundle = dir / "Vantor.app", .version = "4.1.0" });
    std::string url = "file://" + bundle("Notepad.app");

    EXPECT_EQ(probe({ "open", vt::kVantorBundleIdentifier, vt::kVantorURLScheme, "0x300", url },
                    { { "VT_STANDIN_RECORDS", records.path().string() } }),
              (Lines { "YES", "children none" }));
    ASSERT_TRUE(waitUntil([this] { return records.texts("main-app").size() >= 2; }));
    EXPECT_EQ(records.texts("main-app"), (Lines { "started " + (chosen / "Contents/MacOS/Vantor").string() + " " + url,
                                          "open " + url }));

    auto pid = vt::test::busNameOwnerProcess(bus->address(), vt::kVantorBundleIdentifier);
    ASSERT_TRUE(pid);
    EXPECT_TRUE(vt::test::terminateAndWait(*pid));
}

TEST_F(MainApp, AStartedCopyInheritsNoTokenDescriptorSignalStateOrDirectory)
{
    std::filesystem::path out = dir / "started.record";
    std::string script = "#!/bin/sh\n"
                         "{\n"
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
    vt::test::writeFile(dir / "record.sh", script);
    auto scripted = copy("Scripted.app", "4.1.0");
    scripted.binary = dir / "record.sh";
    desktop.addMainApp(scripted);

    EXPECT_EQ(probe({ "open", vt::kVantorBundleIdentifier, vt::kVantorURLScheme, "768", "a:1", "b:2" },
                    { { "DESKTOP_STARTUP_ID", "startup" }, { "XDG_ACTIVATION_TOKEN", "token" } }),
              (Lines { "YES", "children none" }));
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(out); }));
    EXPECT_EQ(readLines(out), (Lines { "args a:1 b:2", "stdin /dev/null", "fd9 closed", "tokens unset unset",
                                       "ignored 0", "blocked 0", "cwd /" }));
}

TEST_F(MainApp, NothingToStartAnswersNoAndLogsNothing)
{
    vt::test::StderrCapture capture;
    EXPECT_EQ(probe({ "open", vt::kVantorBundleIdentifier, vt::kVantorURLScheme, "768", "a:1" }), (Lines { "NO", "children none" }));
    EXPECT_EQ(probe({ "launch", vt::kVantorBundleIdentifier, "-", "768" }), (Lines { "NO", "children none" }));
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
               [] { vt::VT_absolutePathForAppBundleWithIdentifier(std::nullopt, vt::kVantorURLScheme); } },
             { "VT_launchAppWithBundleIdentifier", 127,
               [] { vt::VT_launchAppWithBundleIdentifier(std::nullopt, vt::kVantorURLScheme, 0x300); } },
             { "VT_openURLs", 158, [] { vt::VT_openURLs({ "a:1" }, std::nullopt, std::nullopt, 0x300); } },
         }) {
        vt::test::StderrCapture capture;
        try {
            c.call();
            ADD_FAILURE() << c.function << " returned";
        } catch (const vt::AssertionFailure& failure) {
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
    using vt::detail::BundleVersion;
    using vt::detail::scanBundleVersion;
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

    EXPECT_EQ(vt::detail::applicationObjectPath("com.tallowmere.Vantor"), "/com/tallowmere/Vantor");
    EXPECT_EQ(vt::detail::applicationObjectPath("org.example.my-app"), "/org/example/my_app");
}

TEST(VantorDefaults, DisableWineIntegrationTakesThePlatformsBooleanReading)
{
    TempDir dir;
    Desktop desktop(dir / "desktop");
    vt::test::ScopedEnvironment environment;
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
        EXPECT_EQ(vt::vantorDisableWineIntegration(), expected) << vt::toXmlPropertyList(value);
    }

    desktop.writeVantorDefaults({ { "SomethingElse", true } });
    EXPECT_FALSE(vt::vantorDisableWineIntegration());
    vt::test::writeFile(desktop.configHome() / "com.tallowmere.Vantor.plist", "<plist><dict><key>Disable");
    EXPECT_FALSE(vt::vantorDisableWineIntegration());
    vt::test::writeFile(desktop.configHome() / "com.tallowmere.Vantor.plist",
                        vt::toXmlPropertyList(PlistArray { "DisableWineIntegration", true }));
    EXPECT_FALSE(vt::vantorDisableWineIntegration());
    std::filesystem::remove(desktop.configHome() / "com.tallowmere.Vantor.plist");
    EXPECT_FALSE(vt::vantorDisableWineIntegration());
    EXPECT_EQ(vt::vantorUserDefault("DisableWineIntegration"), std::nullopt);
}

TEST(VantorDefaults, LiveInTheHomeConfigDirectoryWithoutAnAbsoluteXdgConfigHome)
{
    TempDir dir;
    vt::test::ScopedEnvironment environment;
    environment.set("HOME", dir.path().string());
    std::filesystem::create_directories(dir / ".config");
    vt::test::writeFile(dir / ".config/com.tallowmere.Vantor.plist",
                        vt::toBinaryPropertyList(PlistDict { { "DisableWineIntegration", "Yes" } }));

    environment.unset("XDG_CONFIG_HOME");
    EXPECT_TRUE(vt::vantorDisableWineIntegration());
    environment.set("XDG_CONFIG_HOME", "relative/config");
    EXPECT_TRUE(vt::vantorDisableWineIntegration());
    environment.set("XDG_CONFIG_HOME", (dir / "elsewhere").string());
    EXPECT_FALSE(vt::vantorDisableWineIntegration());
}

} // namespace
