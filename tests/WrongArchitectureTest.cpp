// A start request for the other architecture goes back to vtmenu, from the
// loader's connection thread, with the helper server's environment only.
#include <thread>

#include <gtest/gtest.h>

#include "app/VTFBHelperApp.hpp"
#include "app/VTFBHelperDelegate.hpp"
#include "base/NotificationCenter.hpp"
#include "loader/WineLoader.hpp"
#include "shell/HelperServerClient.hpp"
#include "source/VTBundle.hpp"
#include "standin/kit/StandinWorld.hpp"

using namespace vt;
using namespace vt::test;

namespace {
class TestApp : public VTFBHelperApp {
protected:
    [[noreturn]] void exitAfterTermination() override { throw std::runtime_error("terminated"); }
};
} // namespace

TEST(WrongArchitecture, HandsTheEntryBackToVtmenuWithTheServersEnvironmentOnly)
{
    StandinWorld world;
    world.serverDictionary["SERVER_ONLY"] = "yes";

    // A running main application is found over the bus alone.
    TestProcess running({ (world.mainApp / "Contents/MacOS/Vantor").string() }, environmentWith({}));
    world.startHelperServer();
    ASSERT_TRUE(waitUntil([&] { return world.bus.hasOwner(vt::kVantorBundleIdentifier) && world.bus.hasOwner(vt::kHelperServerBusName); }));

    writeInfoPlist(world.dir / "Notepad.app", { { "CFBundleName", "Notepad" }, { "VTHelperAppBottleName", "Office" },
                                          { "VantorHelperMenuPath", "Programs/Notepad.lnk" } });
    TestApp app;
    app.setMainBundle(VTBundle::bundleWithPath(world.dir / "Notepad.app"));
    app.helperDelegate().applicationWillFinishLaunching();
    ASSERT_EQ(app.helperDelegate().settings().vtmenuPath, (world.mainApp / "Contents/SharedSupport/Vantor/bin/vtmenu").string());

    std::thread connection([&] {
        app.helperDelegate().wineLoaderRejectedRequestForWrongArchitecture(Notification {
            WineLoaderRejectedRequestForWrongArchitectureNotification, nullptr,
            { { WineLoaderRequestedArchitectureKey, std::string("i386") } } });
    });
    connection.join();

    ASSERT_TRUE(world.records.waitForTools(1, "vtmenu"));
    auto menu = world.records.tools("vtmenu").at(0);
    EXPECT_EQ(menu.arguments(), (std::vector<std::string> { "--bottle", "Office", "--arch", "i386", "--install",
                                                            "--filter", "Programs/Notepad.lnk" }));
    EXPECT_EQ(menu.environment, world.serverDictionary) << "none of the launcher's own variables";
    EXPECT_EQ(std::filesystem::path(menu.directory), std::filesystem::current_path());
    EXPECT_EQ(menu.standardInput, "null");
    EXPECT_FALSE(app.helperDelegate().program().isRunning()) << "it is not tracked";
}
