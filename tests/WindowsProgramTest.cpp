// The argument lists of the Windows program's processes, on literal settings.
#include <gtest/gtest.h>

#include "app/WindowsProgram.hpp"

using namespace vt;
using Strings = std::vector<std::string>;

namespace {
LauncherSettings office()
{
    LauncherSettings settings;
    settings.bottleName = "Office";
    settings.menuPath = "Programs/Notepad.lnk";
    return settings;
}
} // namespace

TEST(ProgramArguments, EachWayOfStartingHasItsList)
{
    auto s = office();
    EXPECT_EQ(programArguments::untitled(s), (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader",
                                                        "macdrv", "--start", "Programs/Notepad.lnk" }));
    EXPECT_EQ(programArguments::document(s, "/d/a b.txt"),
              (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--", "/d/a b.txt" }));
    EXPECT_EQ(programArguments::menuEntryWithFile(s, "/d/x.pdf"),
              (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--start",
                         "Programs/Notepad.lnk", "/d/x.pdf" }));
    EXPECT_EQ(programArguments::url(s, "https://example.com/?q=a b"),
              (Strings { "--bottle", "Office", "--enable-alt-loader", "macdrv--", "https://example.com/?q=a b" }));
    EXPECT_EQ(programArguments::otherArchitecture(s, "i386"),
              (Strings { "--bottle", "Office", "--arch", "i386", "--install", "--filter", "Programs/Notepad.lnk" }));
}

TEST(ProgramArguments, AMissingSettingEndsTheListThere)
{
    auto noMenu = office();
    noMenu.menuPath.reset();
    EXPECT_EQ(programArguments::untitled(noMenu),
              (Strings { "--bottle", "Office", "--wait-children", "--enable-alt-loader", "macdrv", "--start" }));
    // The file still follows the shortened list.
    EXPECT_EQ(programArguments::menuEntryWithFile(noMenu, "/f").back(), "/f");
    EXPECT_EQ(programArguments::otherArchitecture(noMenu, "i386"), std::nullopt) << "all seven or nothing";

    LauncherSettings noBottle;
    EXPECT_EQ(programArguments::url(noBottle, "https://example.com"), (Strings { "--bottle" }));
}

TEST(ProgramArguments, TheExtensionIsTheLastComponentsTextAfterItsLastDot)
{
    EXPECT_EQ(pathExtension("/d/Report.final.TXT"), "TXT");
    EXPECT_EQ(pathExtension("/d.dir/README"), std::nullopt);
    EXPECT_EQ(pathExtension("/d/.profile"), "profile");
    EXPECT_EQ(pathExtension("/d/trailing."), "");
}
