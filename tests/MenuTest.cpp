// The bundle's menu: read from its file and given the bundle's name.
#include <gtest/gtest.h>

#include "app/VTFBHelperApp.hpp"
#include "app/VTFBHelperDelegate.hpp"
#include "source/VTBundle.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace vt;
using namespace vt::test;

namespace {

PlistDict item(const std::string& title, const std::string& action = {})
{
    PlistDict d { { "title", title } };
    if (!action.empty())
        d["action"] = action;
    return d;
}

struct BundleMenu : ::testing::Test {
    TempDir dir;
    std::filesystem::path bundle = dir / "Notepad.app";
    VTFBHelperApp app;

    void useBundle(const std::optional<PlistArray>& menu)
    {
        writeInfoPlist(bundle, { { "CFBundleName", "Notepad" }, { "CFBundleIdentifier", "com.example.Notepad" } });
        if (menu) {
            std::filesystem::create_directories(bundle / "Contents/Resources");
            writeFile(bundle / "Contents/Resources/MainMenu.plist", toXmlPropertyList(*menu));
        }
        app.setMainBundle(VTBundle::bundleWithPath(bundle));
    }
};

} // namespace

TEST_F(BundleMenu, EveryPercentAtIsReplacedAtEveryDepth)
{
    PlistDict nested = item("Help for %@");
    nested["submenu"] = PlistArray { item("About %@ and %@"), item("Plain") };
    PlistDict attributed { { "attributedTitle", PlistDict { { "text", "Hide %@" }, { "font", "Bold" } } },
                           { "title", "ignored %@" }, { "action", "hide" } };
    useBundle(PlistArray { nested, PlistDict { { "separator", true } }, attributed, item("Quit %@", "quit"),
                           item("100%% sure"), item("") });

    Menu& menu = app.mainMenu();
    app.helperDelegate().formatMenuItemsWithBundleName(menu);

    ASSERT_EQ(menu.items.size(), 6u);
    EXPECT_EQ(menu.items[0].title, "Help for Notepad");
    ASSERT_TRUE(menu.items[0].submenu);
    EXPECT_EQ(menu.items[0].submenu->items[0].title, "About Notepad and Notepad");
    EXPECT_EQ(menu.items[0].submenu->items[1].title, "Plain");
    EXPECT_TRUE(menu.items[1].separator);
    EXPECT_TRUE(menu.items[1].title.empty());
    // An attributed title takes precedence and keeps its attributes.
    ASSERT_TRUE(menu.items[2].attributedTitle);
    EXPECT_EQ(menu.items[2].attributedTitle->text, "Hide Notepad");
    EXPECT_EQ(menu.items[2].attributedTitle->attributes.at("font"), "Bold");
    EXPECT_EQ(menu.items[2].title, "ignored %@");
    EXPECT_EQ(menu.items[2].action, "hide");
    EXPECT_EQ(menu.items[3].title, "Quit Notepad");
    EXPECT_EQ(menu.items[3].action, "quit");
    EXPECT_EQ(menu.items[4].title, "100%% sure") << "only the two characters %@ are a placeholder";
}

TEST_F(BundleMenu, WithoutAMenuFileTheMenuIsOneQuitItem)
{
    useBundle(std::nullopt);
    app.helperDelegate().formatMenuItemsWithBundleName(app.mainMenu());
    ASSERT_EQ(app.mainMenu().items.size(), 1u);
    EXPECT_EQ(app.mainMenu().items[0].title, "Quit Notepad");
    EXPECT_EQ(app.mainMenu().items[0].action, "quit");
}

TEST_F(BundleMenu, AMenuFileThatIsNoListGivesTheDefault)
{
    useBundle(std::nullopt);
    std::filesystem::create_directories(bundle / "Contents/Resources");
    writeFile(bundle / "Contents/Resources/MainMenu.plist", "<plist><dict><key>a</key></plist>");
    EXPECT_EQ(loadBundleMenu(bundle).items.size(), 1u);
}
