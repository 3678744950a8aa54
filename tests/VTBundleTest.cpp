#include "source/VTBundle.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include "standin/kit/Bundles.hpp"
#include "standin/kit/TestSupport.hpp"

using vt::PlistArray;
using vt::PlistDict;
using vt::VTBundle;
using vt::test::TempDir;
using vt::test::writeFile;

namespace {

// Changes the working directory for the scope.
class ScopedCurrentDirectory {
public:
    explicit ScopedCurrentDirectory(const std::filesystem::path& path) : m_saved(std::filesystem::current_path())
    {
        std::filesystem::current_path(path);
    }
    ~ScopedCurrentDirectory() { std::filesystem::current_path(m_saved); }

private:
    std::filesystem::path m_saved;
};

TEST(VTBundle, ReadsTheInformationDictionary)
{
    TempDir dir;
    std::filesystem::path path = dir / "Notepad.app";
    vt::test::writeInfoPlist(path, {
        { "CFBundleIdentifier", "com.example.notepad" },
        { "CFBundleExecutable", "Notepad" },
        { "CFBundleVersion", 7 },
        { "CFBundleDocumentTypes", PlistArray { PlistDict { { "CFBundleTypeExtensions", PlistArray { "txt" } } } } },
    });

    auto bundle = VTBundle::bundleWithPath(path);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->bundlePath(), path);
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.notepad");
    // Named, not checked: there is no such file.
    EXPECT_EQ(bundle->executablePath(), path / "Contents/MacOS/Notepad");
    EXPECT_EQ(bundle->sharedSupportPath(), path / "Contents/SharedSupport");
    EXPECT_EQ(bundle->resourcePath(), path / "Contents/Resources");

    const vt::PlistValue* types = bundle->objectForInfoDictionaryKey("CFBundleDocumentTypes");
    ASSERT_TRUE(types && types->asArray());
    EXPECT_EQ(*types->asArray()->at(0).find("CFBundleTypeExtensions")->asArray()->at(0).asString(), "txt");
    // A number is no string, and an absent key is nothing.
    EXPECT_EQ(bundle->stringForInfoDictionaryKey("CFBundleVersion"), std::nullopt);
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleName"), nullptr);
}

TEST(VTBundle, NamesNoExecutableOutsideItsOwnMacOSFolder)
{
    TempDir dir;
    // Only a plain file name counts: anything else would let an Info.plist
    // start a program that is not in its bundle.
    for (const char* name : { "/bin/sh", "../../evil", "sub/Tool", "..", ".", "" }) {
        vt::test::writeInfoPlist(dir / "A.app", { { "CFBundleExecutable", name } });
        auto bundle = VTBundle::bundleWithPath(dir / "A.app");
        ASSERT_TRUE(bundle);
        EXPECT_EQ(bundle->executablePath(), std::nullopt) << name;
    }
}

TEST(VTBundle, IsNoBundleWithoutAnInformationDictionary)
{
    TempDir dir;
    EXPECT_FALSE(VTBundle::bundleWithPath(dir / "missing.app"));

    std::filesystem::create_directories(dir / "NoInfo.app/Contents/MacOS");
    EXPECT_FALSE(VTBundle::bundleWithPath(dir / "NoInfo.app"));

    std::filesystem::create_directories(dir / "DirectoryInfo.app/Contents/Info.plist");
    EXPECT_FALSE(VTBundle::bundleWithPath(dir / "DirectoryInfo.app"));

    std::filesystem::create_directories(dir / "Garbage.app/Contents");
    writeFile(dir / "Garbage.app/Contents/Info.plist", "<plist><dict><key>a</key>");
    EXPECT_FALSE(VTBundle::bundleWithPath(dir / "Garbage.app"));

    std::filesystem::create_directories(dir / "Array.app/Contents");
    writeFile(dir / "Array.app/Contents/Info.plist", vt::toXmlPropertyList(PlistArray { "a" }));
    EXPECT_FALSE(VTBundle::bundleWithPath(dir / "Array.app"));
}

TEST(VTBundle, IsNoBundleWhenTheInformationFileCannotBeRead)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "permissions do not stop the superuser from reading";
    TempDir dir;
    vt::test::writeInfoPlist(dir / "B.app", { { "CFBundleIdentifier", "com.example.b" } });
    std::filesystem::permissions(dir / "B.app/Contents/Info.plist", std::filesystem::perms::none);
    EXPECT_FALSE(VTBundle::bundleWithPath(dir / "B.app"));
}

TEST(VTBundle, SeesABundleReplacedOnDisk)
{
    TempDir dir;
    vt::test::writeInfoPlist(dir / "B.app",
                             { { "CFBundleIdentifier", "com.example.old" }, { "CFBundleVersion", "1.0.0" } });
    auto before = VTBundle::bundleWithPath(dir / "B.app");
    ASSERT_TRUE(before);

    // Replaced the way an installer does it: a new directory moved into place.
    vt::test::writeInfoPlist(dir / "New.app",
                             { { "CFBundleIdentifier", "com.example.new" }, { "CFBundleVersion", "2.0.0" } });
    std::filesystem::remove_all(dir / "B.app");
    std::filesystem::rename(dir / "New.app", dir / "B.app");

    auto after = VTBundle::bundleWithPath(dir / "B.app");
    ASSERT_TRUE(after);
    EXPECT_EQ(after->bundleIdentifier(), "com.example.new");
    EXPECT_EQ(after->stringForInfoDictionaryKey("CFBundleVersion"), "2.0.0");
    // An object already made keeps what it read.
    EXPECT_EQ(before->bundleIdentifier(), "com.example.old");
}

TEST(MainBundle, IsFoundFromTheExecutablePathAsInvoked)
{
    TempDir dir;
    std::filesystem::path binary = vt::test::installScript(dir / "L.app", "Launcher", "#!/bin/sh\n");
    EXPECT_EQ(VTBundle::mainBundlePathFromExecutable(binary.c_str()), dir / "L.app");

    {
        ScopedCurrentDirectory inside(dir.path());
        for (const char* relative : { "L.app/Contents/MacOS/Launcher", "./L.app/Contents/./MacOS/Launcher" }) {
            auto bundle = VTBundle::mainBundlePathFromExecutable(relative);
            ASSERT_TRUE(bundle) << relative;
            EXPECT_TRUE(bundle->is_absolute()) << *bundle;
            EXPECT_TRUE(std::filesystem::equivalent(*bundle, dir / "L.app")) << *bundle;
        }
    }

    // A link to the binary in another bundle belongs to that bundle.
    std::filesystem::create_directories(dir / "Link.app/Contents/MacOS");
    std::filesystem::create_symlink(binary, dir / "Link.app/Contents/MacOS/Launcher");
    EXPECT_EQ(VTBundle::mainBundlePathFromExecutable((dir / "Link.app/Contents/MacOS/Launcher").c_str()),
              dir / "Link.app");

    EXPECT_EQ(VTBundle::mainBundlePathFromExecutable("/usr/bin/Launcher"), std::nullopt);
    EXPECT_EQ(VTBundle::mainBundlePathFromExecutable("/x/Contents/MacOS/../MacOS/Launcher"), std::nullopt);
}

TEST(MainBundle, ABareNameIsLookedUpThroughTheRunningExecutable)
{
    TempDir dir;
    std::filesystem::path probe
        = vt::test::installExecutable(dir / "P.app", "probe", VT_FIXTURES_DIR "/vt-workspace-probe");
    // Started by PATH lookup, as a shell does: argv[0] has no slash.
    vt::test::TestProcess process({ "/bin/bash", "-c", "exec -a probe \"$0\" \"$1\" main-bundle", probe.string(),
                                    (dir / "result").string() },
                                  vt::test::environmentWith({}));
    ASSERT_EQ(process.waitForExit(), 0);
    EXPECT_EQ(vt::test::readLines(dir / "result"), std::vector<std::string> { (dir / "P.app").string() });
}

} // namespace
