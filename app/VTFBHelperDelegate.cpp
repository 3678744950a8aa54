#include "app/VTFBHelperDelegate.hpp"

#include <unistd.h>

#include "app/VTFBHelperApp.hpp"
#include "loader/WineLoader.hpp"
#include "base/NotificationCenter.hpp"
#include "base/PlatformLog.hpp"
#include "source/VTBundle.hpp"
#include "base/VTLog.hpp"
#include "source/WorkspaceAdditions.hpp"

namespace vt {

using namespace std::chrono_literals;

namespace {
    constexpr int kHelperServerAttempts = 10;
    // The main application comes up behind the user's windows and stays out
    // of the recent items.
    constexpr uint32_t kLaunchInBackground = kLaunchDontSwitch | kLaunchDontAddToRecents;

    void replaceAll(std::string& text, std::string_view pattern, const std::string& replacement)
    {
        for (size_t at = text.find(pattern); at != std::string::npos; at = text.find(pattern, at + replacement.size()))
            text.replace(at, pattern.size(), replacement);
    }
} // namespace

VTFBHelperDelegate::VTFBHelperDelegate(VTFBHelperApp& application) : m_application(application)
{
    m_iconList.reserve(2);
    m_taskArray.reserve(2);
}

VTFBHelperDelegate::~VTFBHelperDelegate()
{
    // The loader's notification and every task's end: nothing may reach a
    // delegate that is gone.
    NotificationCenter::defaultCenter().removeObserver(this);
}

std::optional<std::string> VTFBHelperDelegate::infoString(const char* key) const
{
    const VTBundle* bundle = m_application.mainBundle();
    return bundle ? bundle->stringForInfoDictionaryKey(key) : std::nullopt;
}

void VTFBHelperDelegate::applicationWillFinishLaunching()
{
    m_application.setGetURLHandler([this](const std::string& url) { handleGetURLEvent(url); });

    // Starts the main application in the background if it isn't running and
    // hands it this launcher's bundle; the answer is not needed.
    if (const VTBundle* bundle = m_application.mainBundle()) {
        GCharPtr uri(g_filename_to_uri((bundle->bundlePath().string() + "/").c_str(), nullptr, nullptr));
        if (uri)
            VT_openURLs({ uri.get() }, std::string(kVantorBundleIdentifier), std::string(kVantorURLScheme),
                        kLaunchInBackground);
    }

    if (!connectToHelperServer()) {
        platformLog("Unable to locate a Vantor helper server.  We should really tell someone about this.\n");
        m_application.terminate();
        return;
    }

    m_bottleName = infoString("VTHelperAppBottleName");
    if (!waitForBottle()) {
        platformLog("The Vantor helper server was there, but now it's gone.\n");
        m_application.terminate();
        return;
    }

    m_menuPath = infoString("VantorHelperMenuPath");
    findProductTools();
    startSendWndCmd();
    formatMenuItemsWithBundleName(m_application.mainMenu());
    VTLog("start-up done: bottle %@, menu %@, tools in %@", m_bottleName.value_or("(none)"),
          m_menuPath.value_or("(none)"), m_vantorRoot.value_or("(none)"));
}

bool VTFBHelperDelegate::connectToHelperServer()
{
    for (int attempt = 1; attempt <= kHelperServerAttempts && !m_helperServerProxy; ++attempt) {
        m_helperServerProxy = HelperServerClient::lookUp();
        VTLog("looking for the helper server, attempt %d: %s", attempt, m_helperServerProxy ? "found" : "not found");
        // The last failed attempt sleeps too, before the launcher gives up.
        if (!m_helperServerProxy)
            m_application.sleepDuringLaunch(1s);
    }
    return m_helperServerProxy != nullptr;
}

bool VTFBHelperDelegate::waitForBottle()
{
    // No limit on purpose: a bottle may take long to get ready (an update,
    // a first start), and the launcher waits as long as the server is there.
    try {
        while (!m_helperServerProxy->isServerReadyForBottle(m_bottleName.value_or(""))) {
            VTLog("bottle %@ is not ready yet", m_bottleName.value_or("(none)"));
            m_application.sleepDuringLaunch(1s);
        }
        return true;
    } catch (const HelperServerError& error) {
        VTLog("asking whether the bottle is ready failed: %s", error.what());
        return false;
    }
}

void VTFBHelperDelegate::findProductTools()
{
    auto mainApplication = VT_absolutePathForAppBundleWithIdentifier(std::string(kVantorBundleIdentifier),
                                                                     std::string(kVantorURLScheme));
    auto bundle = mainApplication ? VTBundle::bundleWithPath(*mainApplication) : nullptr;
    if (!bundle) {
        VTLog("the Vantor application was not found; the product's tools are unknown");
        return;
    }
    std::filesystem::path root = bundle->sharedSupportPath() / "Vantor";
    m_vantorRoot = root.string();
    m_vtmenuPath = (root / "bin" / "vtmenu").string();
    m_vtstartPath = (root / "bin" / "vtstart").string();
    m_winePath = (root / "bin" / "wine").string();
}

void VTFBHelperDelegate::formatMenuItemsWithBundleName(Menu& menu)
{
    std::optional<std::string> bundleName = infoString("CFBundleName");
    if (!bundleName) {
        VTLog("the bundle has no name; menu titles keep their %%@");
        return;
    }
    for (auto& item : menu.items) {
        if (item.separator)
            continue;
        if (item.attributedTitle && !item.attributedTitle->text.empty()) {
            if (item.attributedTitle->text.find("%@") != std::string::npos)
                replaceAll(item.attributedTitle->text, "%@", *bundleName);
        } else if (!item.title.empty() && item.title.find("%@") != std::string::npos) {
            replaceAll(item.title, "%@", *bundleName);
        }
        if (item.submenu)
            formatMenuItemsWithBundleName(*item.submenu);
    }
}

void VTFBHelperDelegate::applicationDidFinishLaunching() {}

void VTFBHelperDelegate::activateMainApplication()
{
    VT_activateRunningAppWithBundleIdentifier(kVantorBundleIdentifier);
}

TerminateReply VTFBHelperDelegate::applicationShouldTerminate(Application&)
{
    // Once Wine runs inside the launcher, its own controller decides.
    if (const vt_wine_controller* controller = m_application.wineController()) {
        if (controller->should_terminate)
            return static_cast<TerminateReply>(controller->should_terminate(controller->context));
    }
    if (m_taskArray.empty())
        return TerminateReply::Now;

    activateMainApplication();
    // A Windows-style end of session: the program may refuse, and nothing is
    // ever killed, so the user's unsaved work survives a refused quit.
    TerminateReply reply = TerminateReply::Cancel;
    if (sendMessageToTaggedWindows("close")) {
        if (sendMessageToTaggedWindows("queryendsession")) {
            sendMessageToTaggedWindows("endsession");
            sendMessageToTaggedWindows("shutdown");
            reply = TerminateReply::Now;
        } else {
            sendMessageToTaggedWindows("endsessioncancel");
        }
    }
    m_application.hide();
    return reply;
}

void VTFBHelperDelegate::applicationWillTerminate()
{
    NotificationCenter::defaultCenter().removeObserver(this);
    m_application.delayedCalls().cancelAll();
    if (!m_launchNotifySocketName.empty())
        ::unlink(m_launchNotifySocketName.c_str());
}

bool VTFBHelperDelegate::startLaunchNotify()
{
    // The launch-notify socket comes with the tray icons; until then the
    // Windows side is not told of one.
    return false;
}

} // namespace vt
