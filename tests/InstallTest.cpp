// The launcher as an integrator gets it: `cmake --install` of this build puts
// the launcher, the controller seam's header and a pkg-config file under a
// prefix and nothing else, and a Wine library written in C against the
// installed header alone (tests/fixtures/install-client), built with the
// flags pkg-config gives, controls the installed launcher once Wine runs
// inside it.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <set>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "loader/WineLoaderProtocol.hpp"
#include "standin/kit/StandinWorld.hpp"

using namespace vt;
using namespace vt::test;
namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;

struct Outcome {
    bool succeeded = false; // started and exited with status 0
    std::string output;
    std::string errors;
};

// Runs `argv` to its end, with this process's environment and `changes`.
Outcome runToEnd(const Strings& argv, const EnvironmentChanges& changes = {})
{
    std::vector<char*> arguments;
    for (const auto& argument : argv)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    Strings entries;
    for (const auto& [name, value] : environmentWith(changes))
        entries.push_back(name + "=" + value);
    std::vector<char*> environment;
    for (auto& entry : entries)
        environment.push_back(entry.data());
    environment.push_back(nullptr);

    char* output = nullptr;
    char* errors = nullptr;
    int status = 0;
    GErrorHolder error;
    bool started = g_spawn_sync(nullptr, arguments.data(), environment.data(), G_SPAWN_SEARCH_PATH, nullptr, nullptr,
                                &output, &errors, &status, error);
    GCharPtr ownedOutput(output), ownedErrors(errors);
    if (!started)
        return { false, "", error.message() };
    return { WIFEXITED(status) && WEXITSTATUS(status) == 0, output ? output : "", errors ? errors : "" };
}

// The words of a command's output, split as a shell splits $(...).
Strings words(const std::string& text)
{
    Strings result;
    int count = 0;
    char** parsed = nullptr;
    if (text.find_first_not_of(" \t\n") != std::string::npos && g_shell_parse_argv(text.c_str(), &count, &parsed, nullptr)) {
        GStrvPtr owned(parsed);
        result.assign(parsed, parsed + count);
    }
    return result;
}

// The loadable segments of an ELF file, as `readelf -lW` lists them.
Strings loadSegments(const fs::path& file)
{
    Strings segments;
    std::istringstream lines(runToEnd({ "readelf", "-lW", file.string() }).output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("  LOAD "))
            segments.push_back(line);
    }
    return segments;
}

// Every file and link under `root`, relative to it.
std::set<std::string> filesUnder(const fs::path& root)
{
    std::set<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (!entry.is_directory() || entry.is_symlink())
            files.insert(fs::relative(entry.path(), root).string());
    }
    return files;
}

// Whether `calls` holds `expected` in this order, others possibly between.
bool holdsInOrder(const Strings& calls, const Strings& expected)
{
    auto at = calls.begin();
    for (const auto& call : expected) {
        at = std::find(at, calls.end(), call);
        if (at == calls.end())
            return false;
        ++at;
    }
    return true;
}

class Install : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* folder : { VT_INSTALL_BINDIR, VT_INSTALL_INCLUDEDIR, VT_INSTALL_LIBDIR }) {
            if (fs::path(folder).is_absolute())
                GTEST_SKIP() << "this build installs into " << folder << ", outside any prefix chosen at install time";
        }
        GCharPtr pkgConfig(g_find_program_in_path("pkg-config"));
        if (!pkgConfig)
            GTEST_SKIP() << "pkg-config is not installed";
        Outcome installed = runToEnd({ VT_CMAKE_COMMAND, "--install", VT_BUILD_DIR, "--prefix", prefix.path().string() },
                                     { { "DESTDIR", std::nullopt } });
        ASSERT_TRUE(installed.succeeded) << installed.output << installed.errors;
    }

    fs::path installedLauncher() const { return prefix / VT_INSTALL_BINDIR / "vtlauncher"; }
    fs::path installedHeader() const { return prefix / VT_INSTALL_INCLUDEDIR / "vtlauncher/wine_controller.h"; }
    fs::path pkgConfigDirectory() const { return prefix / VT_INSTALL_LIBDIR / "pkgconfig"; }

    // pkg-config's answer about the installed vtlauncher.pc.
    Outcome pkgConfig(const std::string& question) const
    {
        // Only the prefix's file: the machine's own settings stay out.
        return runToEnd({ "pkg-config", question, "vtlauncher" },
                        { { "PKG_CONFIG_PATH", pkgConfigDirectory().string() },
                          { "PKG_CONFIG_LIBDIR", "" },
                          { "PKG_CONFIG_SYSROOT_DIR", std::nullopt } });
    }

    TempDir prefix;
};

} // namespace

TEST_F(Install, PutsTheLauncherItsHeaderAndItsPkgConfigFileThereAndNothingElse)
{
    EXPECT_EQ(filesUnder(prefix.path()),
              (std::set<std::string> { fs::path(VT_INSTALL_BINDIR) / "vtlauncher",
                                       fs::path(VT_INSTALL_INCLUDEDIR) / "vtlauncher/wine_controller.h",
                                       fs::path(VT_INSTALL_LIBDIR) / "pkgconfig/vtlauncher.pc" }))
        << "no stand-in, test, fixture, demo or benchmark program, no vt-place-segment";

    // The launcher keeps the segments its link step laid out for Wine; only
    // the run path that the install takes out of a build's launcher (the
    // 32-bit build's) may differ.
    Strings segments = loadSegments(VT_LAUNCHER_PATH);
    ASSERT_FALSE(segments.empty());
    EXPECT_EQ(loadSegments(installedLauncher()), segments);
    EXPECT_EQ(access(installedLauncher().c_str(), X_OK), 0);

    // pkg-config leads into this prefix, wherever it was chosen.
    Outcome cflags = pkgConfig("--cflags");
    ASSERT_TRUE(cflags.succeeded) << cflags.errors;
    Strings flags = words(cflags.output);
    ASSERT_EQ(flags.size(), 1u) << cflags.output;
    ASSERT_TRUE(flags[0].starts_with("-I")) << cflags.output;
    EXPECT_TRUE(fs::equivalent(flags[0].substr(2) + "/vtlauncher/wine_controller.h", installedHeader()))
        << cflags.output;

    Outcome libs = pkgConfig("--libs");
    ASSERT_TRUE(libs.succeeded) << libs.errors;
    EXPECT_TRUE(words(libs.output).empty()) << "a driver links nothing: " << libs.output;

    Outcome launcher = pkgConfig("--variable=launcher");
    ASSERT_TRUE(launcher.succeeded) << launcher.errors;
    ASSERT_FALSE(words(launcher.output).empty());
    EXPECT_TRUE(fs::equivalent(words(launcher.output).at(0), installedLauncher())) << launcher.output;
}

TEST_F(Install, ACClientBuiltAgainstTheInstalledHeaderControlsTheInstalledLauncher)
{
    if (access(VT_C_COMPILER, X_OK) != 0)
        GTEST_SKIP() << "no C compiler at " << VT_C_COMPILER;

    // As an integrator builds a driver: the build's own C flags (-m32 in a
    // 32-bit build) and pkg-config's, no library.
    Outcome cflags = pkgConfig("--cflags");
    ASSERT_TRUE(cflags.succeeded) << cflags.errors;
    TempDir work;
    fs::path library = work / kWineLibraryName;
    Strings compile { VT_C_COMPILER };
    for (const auto& flag : words(VT_C_FLAGS))
        compile.push_back(flag);
    for (const char* flag : { "-std=c11", "-pedantic", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC" })
        compile.push_back(flag);
    for (const auto& flag : words(cflags.output))
        compile.push_back(flag);
    for (const std::string& rest : { std::string("-o"), library.string(), std::string(VT_INSTALL_CLIENT_SOURCE) })
        compile.push_back(rest);
    Outcome built = runToEnd(compile);
    ASSERT_TRUE(built.succeeded) << built.output << built.errors;

    // The installed launcher in a launcher bundle, the client as the
    // product's Wine library.
    StandinWorld w;
    w.launcherBinary = installedLauncher();
    fs::path productLibrary
        = w.mainApp / "Contents/SharedSupport/Vantor" / kNativeWineLoaderLayout.libraryDirectory / kWineLibraryName;
    fs::remove(productLibrary);
    fs::copy_file(library, productLibrary);
    auto calls = [&] { return w.records.texts("client"); };

    w.startHelperServer();
    TestProcess& launcher = w.startLauncher();
    ASSERT_TRUE(waitUntil([&] { return holdsInOrder(calls(), { "wine_init" }); }, 20s)) << w.launcherLog();
    EXPECT_EQ(w.records.all("client").at(0).value("pid"), std::to_string(launcher.pid()))
        << "Wine runs inside the launcher";

    // A second launch is a reopen and an activation of the running launcher.
    EXPECT_EQ(w.startLauncher().waitForExit(), 0);
    EXPECT_TRUE(waitUntil([&] {
        return holdsInOrder(calls(), { "wine_init", "handle_event 4", "handle_event 5", "application_did_become_active" });
    })) << testing::PrintToString(calls());

    // The client answers the quit questions: it refuses the first, so the
    // launcher is still there to ask again, and agrees to the second.
    launcher.signal(SIGTERM);
    ASSERT_TRUE(waitUntil([&] { return holdsInOrder(calls(), { "should_terminate cancel" }); }))
        << testing::PrintToString(calls());
    launcher.signal(SIGTERM);
    EXPECT_EQ(launcher.waitForExit(), 0) << w.launcherLog();
    EXPECT_TRUE(holdsInOrder(calls(), { "wine_init", "handle_event 6", "should_terminate cancel", "handle_event 6",
                                        "should_terminate now", "application_will_terminate" }))
        << testing::PrintToString(calls());
}
