// Makes the product's bottles ready to run programs: a bottle is a Wine
// prefix under the user's data folder (product/common/ProductPaths.hpp), and
// the first question about a bottle that is not ready yet starts
//
//   <wine> wineboot --init          Wine's own first set-up of the prefix
//   <wine> reg add HKCR\.txt ...    text documents open in Notepad
//   <wine> reg add HKCU\Software\Wine\DllOverrides /v winemenubuilder.exe ...
//                                   Wine's own menu builder off for good:
//                                   the product makes the launchers, and
//                                   Wine's desktop entries would take the
//                                   desktop's document types over
//   <wine> reg add "HKCU\Software\Wine\X11 Driver" /v ShowSystray ... N
//                                   no captioned "Wine System Tray" window:
//                                   the launcher shows the programs' tray
//                                   icons itself
//   <wineserver> -w                 until the bottle's wineserver has ended,
//                                   so that its registry is on disk
//
// one after the other, in the background, with WINEPREFIX set to the prefix
// (and the menu builder off from the first step); then Notepad gets a
// shortcut in the bottle's Start menu, Programs/Accessories/Notepad.lnk, as
// Windows gives it one (a new Wine prefix has none), and the ready marker is
// written. Until the marker is there the bottle is
// not ready. A set-up that fails is logged and forgotten, so that the next
// question starts it again.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "base/glib_glue.hpp"

namespace vt::product {

// Wine quiet on standard error, and without the Mono and Gecko installers
// that Debian's Wine otherwise offers in a dialog, waiting for a user who is
// not there, on the first start of every prefix.
inline constexpr const char* kQuietWineDebug = "-all";
inline constexpr const char* kNoMonoOrGeckoOverrides = "mscoree,mshtml=";
// The same, with Wine's menu builder kept from making desktop entries and
// taking document types while a bottle is made.
inline constexpr const char* kBottleSetUpOverrides = "mscoree,mshtml=;winemenubuilder.exe=d";

class BottlePreparation {
public:
    // `ready` is told each bottle this preparation has made ready.
    explicit BottlePreparation(std::function<void(const std::string& bottle)> ready = {});
    // Stops listening for the set-ups under way. Their processes go on: a
    // wineboot ended half-way spoils the prefix, one left to end does not,
    // and the marker not written yet means the next start checks again.
    ~BottlePreparation();
    BottlePreparation(const BottlePreparation&) = delete;
    BottlePreparation& operator=(const BottlePreparation&) = delete;

    // Whether `bottle` is ready. When it is not, its set-up is started unless
    // it already runs. A bad name or a missing Wine answers false and is
    // logged once.
    bool isReady(const std::string& bottle);

private:
    struct Step;
    struct SetUp;

    void start(const std::string& bottle, const std::filesystem::path& prefix, const std::filesystem::path& wine);
    void runNextStep(SetUp& setUp);
    static void onStepEnded(GObject* process, GAsyncResult* result, gpointer data) noexcept;
    void finish(SetUp& setUp);
    void fail(SetUp& setUp, const std::string& step, const char* why);

    std::function<void(const std::string&)> m_ready;
    GPtr<GCancellable> m_cancellable;
    std::map<std::string, std::unique_ptr<SetUp>> m_setUps;
    std::set<std::string> m_badNamesLogged;
    bool m_missingWineLogged = false;
};

} // namespace vt::product
