// A start request for the other architecture goes back to vtmenu, from the
// loader's connection thread, with the helper server's environment only.
#include <thread>

#include <gtest/gtest.h>

#include "app/VTFBHelperApp.hpp"
#include "app/VTFBHelperDelegate.hpp"
#include "loader/WineLoader.hpp"
#include "base/NotificationCenter.hpp"
#include "shell/HelperServerClient.hpp"
#include "source/VTBundle.hpp"
#include "standin/kit/Bundles.hpp"
#include "standin/kit/StandinTools.hpp"
#include "standin/kit/TestSupport.hpp"

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
    TempDir dir;
    PrivateBus bus;
    Desktop desktop(dir / "desktop");
    StandinTools tools(dir / "tools");
    auto mainApp = desktop.addMainApp({ .bundle = dir / "Vantor.app" });
    tools.install(mainApp);
    auto serverEnvironment = tools.variables();
    serverEnvironment["SERVER_ONLY"] = "yes";
    tools.writeServerEnvironment(dir / "server.env", serverEnvironment);

    // A running main application is found over the bus alone.
    TestProcess running({ (mainApp / "Contents/MacOS/Vantor").string() }, environmentWith({}));
    TestProcess server({ std::string(VT_STANDIN_DIR) + "/vt-standin-helper-server" },
                       environmentWith({ { "VT_STANDIN_SERVER_ENV", (dir / "server.env").string() } }));
    ASSERT_TRUE(waitUntil([&] { return bus.hasOwner(vt::kVantorBundleIdentifier) && bus.hasOwner(vt::kHelperServerBusName); }));

    writeInfoPlist(dir / "Notepad.app", { { "CFBundleName", "Notepad" }, { "VTHelperAppBottleName", "Office" },
                                          { "VantorHelperMenuPath", "Programs/Notepad.lnk" } });
    TestApp app;
    app.setMainBundle(VTBundle::bundleWithPath(dir / "Notepad.app"));
    app.helperDelegate().applicationWillFinishLaunching();
    ASSERT_EQ(app.helperDelegate().settings().vtmenuPath, (mainApp / "Contents/SharedSupport/Vantor/bin/vtmenu").string());

    std::thread connection([&] {
        app.helperDelegate().wineLoaderRejectedRequestForWrongArchitecture(Notification {
            WineLoaderRejectedRequestForWrongArchitectureNotification, nullptr,
            { { WineLoaderRequestedArchitectureKey, std::string("i386") } } });
    });
    connection.join();

    ASSERT_TRUE(tools.waitForRecords("vtmenu", 1));
    auto menu = tools.records("vtmenu").at(0);
    EXPECT_EQ(menu.arguments(), (std::vector<std::string> { "--bottle", "Office", "--arch", "i386", "--install",
                                                            "--filter", "Programs/Notepad.lnk" }));
    EXPECT_EQ(menu.environment, serverEnvironment) << "none of the launcher's own variables";
    EXPECT_EQ(std::filesystem::path(menu.directory), std::filesystem::current_path());
    EXPECT_EQ(menu.standardInput, "null");
    EXPECT_FALSE(app.helperDelegate().program().isRunning()) << "it is not tracked";
}
