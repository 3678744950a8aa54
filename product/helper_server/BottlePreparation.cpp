#include "product/helper_server/BottlePreparation.hpp"

#include <stdexcept>
#include <vector>

#include <unistd.h>

#include "base/PlatformLog.hpp"
#include "product/common/ProductPaths.hpp"
#include "product/common/StartMenu.hpp"
#include "product/launchers/ShellLink.hpp"

namespace vt::product {

// One step of a set-up: what it is called in the log, and what runs.
struct BottlePreparation::Step {
    std::string name;
    std::vector<std::string> argv;
};

struct BottlePreparation::SetUp {
    BottlePreparation* owner = nullptr;
    std::string bottle;
    std::filesystem::path prefix;
    std::vector<Step> steps;
    size_t nextStep = 0;
    std::chrono::steady_clock::time_point started;
};

namespace {
    const char* const kNotepadShortcut = "Programs/Accessories/Notepad.lnk";

    // One step of a set-up, run in the bottle with the main application's
    // environment and standard error, so that Wine's own complaints land in
    // its log. Standard input is the null device.
    GPtr<GSubprocess> spawnInBottle(const std::vector<std::string>& argv, const std::filesystem::path& prefix,
                                    GErrorHolder& error)
    {
        GPtr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
        g_subprocess_launcher_setenv(launcher.get(), "WINEPREFIX", prefix.c_str(), TRUE);
        g_subprocess_launcher_setenv(launcher.get(), "WINEDEBUG", kQuietWineDebug, TRUE);
        g_subprocess_launcher_setenv(launcher.get(), "WINEDLLOVERRIDES", kBottleSetUpOverrides, TRUE);
        std::vector<const char*> arguments;
        for (const auto& argument : argv)
            arguments.push_back(argument.c_str());
        arguments.push_back(nullptr);
        return adopt(g_subprocess_launcher_spawnv(launcher.get(), arguments.data(), error));
    }

    // A wait that ended because the preparation went away: nothing is left
    // to report to.
    bool wasCancelled(const GErrorHolder& error) { return error.matches(G_IO_ERROR, G_IO_ERROR_CANCELLED); }
} // namespace

BottlePreparation::BottlePreparation(std::function<void(const std::string&)> ready)
    : m_ready(std::move(ready)), m_cancellable(adopt(g_cancellable_new()))
{
}

BottlePreparation::~BottlePreparation() { g_cancellable_cancel(m_cancellable.get()); }

bool BottlePreparation::isReady(const std::string& bottle)
{
    if (auto problem = bottleNameProblem(bottle)) {
        if (m_badNamesLogged.insert(bottle).second)
            platformLog("IsServerReadyForBottle: %@", *problem);
        return false;
    }
    std::filesystem::path prefix = bottlePrefix(bottle);
    if (prefixIsReady(prefix))
        return true;
    if (m_setUps.contains(bottle))
        return false;
    std::optional<std::filesystem::path> wine = wineLoader();
    if (!wine || ::access(wine->c_str(), X_OK) != 0) {
        // Asked once a second by every launcher that waits: said once.
        if (!m_missingWineLogged)
            platformLog("cannot make bottles ready: Wine is not installed (%@)",
                        wine ? "VT_PRODUCT_WINE names " + wine->string() + ", which cannot be run"
                             : std::string("no /usr/lib/wine/wine64, no wine64 or wine on the PATH"));
        m_missingWineLogged = true;
        return false;
    }
    start(bottle, prefix, *wine);
    return false;
}

void BottlePreparation::start(const std::string& bottle, const std::filesystem::path& prefix,
                              const std::filesystem::path& wine)
{
    auto setUp = std::make_unique<SetUp>();
    setUp->owner = this;
    setUp->bottle = bottle;
    setUp->prefix = prefix;
    // Wine's own set-up gives Notepad the text documents' type but never
    // names .txt as one, so a text file opened in the bottle would find no
    // program. Where the desktop has no tray of its own, Wine puts the
    // programs' icons in a window of its own, beside the launcher's badges
    // for the same icons. wineboot ends before the bottle's wineserver does,
    // and the server keeps the registry in memory until it ends: only then
    // is the prefix whole.
    setUp->steps = {
        { "wineboot --init", { wine.string(), "wineboot", "--init" } },
        { "text documents to Notepad", { wine.string(), "reg", "add", "HKCR\\.txt", "/ve", "/d", "txtfile", "/f" } },
        { "no menu builder",
          { wine.string(), "reg", "add", "HKCU\\Software\\Wine\\DllOverrides", "/v", "winemenubuilder.exe", "/t",
            "REG_SZ", "/d", "", "/f" } },
        { "no Wine System Tray window",
          { wine.string(), "reg", "add", "HKCU\\Software\\Wine\\X11 Driver", "/v", "ShowSystray", "/t", "REG_SZ",
            "/d", "N", "/f" } },
        { "wineserver -w", { wineServer(wine).string(), "-w" } },
    };
    setUp->started = std::chrono::steady_clock::now();
    // Bottles hold the user's programs and documents: nobody else's to read.
    if (g_mkdir_with_parents(prefix.c_str(), 0700) != 0) {
        fail(*setUp, "making " + prefix.string(), g_strerror(errno));
        return;
    }
    platformLog("making bottle \"%@\" ready in %@", bottle, prefix);
    SetUp& running = *setUp;
    m_setUps[bottle] = std::move(setUp);
    runNextStep(running);
}

void BottlePreparation::runNextStep(SetUp& setUp)
{
    if (setUp.nextStep == setUp.steps.size()) {
        finish(setUp);
        return;
    }
    const Step& step = setUp.steps[setUp.nextStep];
    GErrorHolder error;
    GPtr<GSubprocess> process = spawnInBottle(step.argv, setUp.prefix, error);
    if (!process) {
        fail(setUp, step.name, error.message());
        return;
    }
    g_subprocess_wait_check_async(process.get(), m_cancellable.get(), onStepEnded, &setUp);
}

void BottlePreparation::onStepEnded(GObject* process, GAsyncResult* result, gpointer data) noexcept
{
    GErrorHolder error;
    bool ended = g_subprocess_wait_check_finish(G_SUBPROCESS(process), result, error);
    if (wasCancelled(error))
        return;
    auto& setUp = *static_cast<SetUp*>(data);
    try {
        if (!ended) {
            setUp.owner->fail(setUp, setUp.steps[setUp.nextStep].name, error.message());
            return;
        }
        ++setUp.nextStep;
        setUp.owner->runNextStep(setUp);
    } catch (const std::exception& e) {
        setUp.owner->fail(setUp, "the set-up", e.what());
    }
}

void BottlePreparation::finish(SetUp& setUp)
{
    GErrorHolder error;
    std::filesystem::path shortcut = startMenuFolders(setUp.prefix).front() / kNotepadShortcut;
    std::error_code exists;
    if (!std::filesystem::exists(shortcut, exists)) {
        ShellLink notepad;
        notepad.target = "C:\\windows\\system32\\notepad.exe";
        notepad.description = "Write and edit plain text";
        std::vector<uint8_t> bytes = writeShellLink(notepad);
        if (g_mkdir_with_parents(shortcut.parent_path().c_str(), 0755) != 0
            || !g_file_set_contents(shortcut.c_str(), reinterpret_cast<const char*>(bytes.data()),
                                    static_cast<gssize>(bytes.size()), error)) {
            fail(setUp, "writing " + shortcut.string(), error ? error.message() : g_strerror(errno));
            return;
        }
    }
    std::filesystem::path marker = setUp.prefix / kReadyMarker;
    if (!g_file_set_contents(marker.c_str(), "", 0, error)) {
        fail(setUp, "writing " + marker.string(), error.message());
        return;
    }
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - setUp.started;
    platformLog("bottle \"%@\" is ready: made in %.1f s", setUp.bottle, took.count());
    std::string bottle = setUp.bottle;
    m_setUps.erase(bottle);
    if (m_ready)
        m_ready(bottle);
}

void BottlePreparation::fail(SetUp& setUp, const std::string& step, const char* why)
{
    platformLog("cannot make bottle \"%@\" ready: %@: %@; the next question tries again", setUp.bottle, step, why);
    // `setUp` may be the map's own entry: copy the key before it goes.
    std::string bottle = setUp.bottle;
    m_setUps.erase(bottle);
}

} // namespace vt::product
