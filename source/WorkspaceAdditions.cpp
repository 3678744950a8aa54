#include "source/WorkspaceAdditions.hpp"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

#include "base/glib_glue.hpp"
#include "base/PlatformLog.hpp"
#include "base/VTLog.hpp"
#include "source/VTBundle.hpp"

namespace vt {

namespace {

    // The product's own assertion: its log line names the product's source
    // file and line, which is what its support staff look for in reports.
    [[noreturn]] void requiredIdentifierMissing(const char* function, int line)
    {
        platformLog("*** Assertion failure in %s, NSWorkspace+VantorAdditions:%d", function, line);
        throw AssertionFailure("Invalid parameter not satisfying: bundleIdentifier != nil");
    }

    GPtr<GDBusConnection> sessionBus()
    {
        GErrorHolder error;
        return adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error));
    }

    // How long the main thread waits for the main application (or the bus)
    // to answer. Its answers change little (whether it was told, whether it
    // came forward) and the request stays queued for it either way, so a
    // main application that hangs costs the launcher this, not GDBus's 25
    // seconds, each time it is asked.
    constexpr int kCallTimeoutMilliseconds = 1000;

    // The running main application is only ever asked, never started by the
    // bus: starting it is our decision, with our rules.
    GPtr<GVariant> call(GDBusConnection* bus, const char* destination, const char* path, const char* interface,
                        const char* method, GVariant* parameters, const GVariantType* replyType)
    {
        GErrorHolder error;
        GPtr<GVariant> reply = adopt(g_dbus_connection_call_sync(bus, destination, path, interface, method, parameters,
                                                                 replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                                 kCallTimeoutMilliseconds, nullptr, error));
        if (!reply && g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
            platformLog("%s did not answer %s within %d ms; the launcher goes on without its answer.", destination,
                        method, kCallTimeoutMilliseconds);
        return reply;
    }

    // Sends the call and goes on: the platform's open takes a request
    // without waiting for the application to act on it. A time-out or a
    // refusal is said once the main loop hears of it.
    void send(GDBusConnection* bus, const char* destination, const char* path, const char* interface,
              const char* method, GVariant* parameters)
    {
        struct Call {
            std::string destination, method;
        };
        auto onReply = [](GObject* source, GAsyncResult* result, gpointer data) noexcept {
            std::unique_ptr<Call> call(static_cast<Call*>(data));
            GErrorHolder error;
            GPtr<GVariant> reply = adopt(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error));
            if (!reply && g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
                platformLog("%@ did not answer %@ within %d ms; the launcher went on without its answer.",
                            call->destination, call->method, kCallTimeoutMilliseconds);
            else if (!reply)
                VTLog("%@ refused %@: %@", call->destination, call->method, error.message());
        };
        g_dbus_connection_call(bus, destination, path, interface, method, parameters, nullptr,
                               G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMilliseconds, nullptr, onReply,
                               new Call { destination, method });
    }

    std::optional<std::filesystem::path> bundleOfProcess(uint32_t pid)
    {
        std::error_code error;
        std::filesystem::path executable
            = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
        if (error)
            return std::nullopt;
        // Only the directories count: a copy updated while it runs, whose
        // executable reads "<x> (deleted)", is still found in its bundle.
        return VTBundle::bundlePathForExecutable(executable);
    }

    // The program of the entry's Exec line, unquoted: GIO's own answer
    // (g_app_info_get_executable) keeps the quotes that a bundle path with a
    // space in it needs.
    std::optional<std::filesystem::path> bundleOfAppInfo(GAppInfo* info)
    {
        const char* commandLine = g_app_info_get_commandline(info);
        int argc = 0;
        char** parsed = nullptr;
        bool parsedOK = commandLine && g_shell_parse_argv(commandLine, &argc, &parsed, nullptr);
        GStrvPtr argv(parsed);
        if (!parsedOK || argc < 1 || argv.get()[0][0] != '/')
            return std::nullopt;
        return VTBundle::bundlePathForExecutable(argv.get()[0]);
    }

    // The desktop's own answer for an identifier: the desktop entry named
    // after it.
    std::optional<std::filesystem::path> bundleOfDesktopEntry(const std::string& bundleIdentifier)
    {
        std::string desktopId = bundleIdentifier + ".desktop";
        GPtr<GDesktopAppInfo> info = adopt(g_desktop_app_info_new(desktopId.c_str()));
        if (!info)
            return std::nullopt;
        return bundleOfAppInfo(G_APP_INFO(info.get()));
    }

    bool equalIgnoringCase(std::string_view a, std::string_view b)
    {
        // Case folding needs valid UTF-8; a binary Info.plist can hold
        // anything in an ASCII string.
        if (!g_utf8_validate(a.data(), static_cast<gssize>(a.size()), nullptr)
            || !g_utf8_validate(b.data(), static_cast<gssize>(b.size()), nullptr))
            return a.size() == b.size() && g_ascii_strncasecmp(a.data(), b.data(), a.size()) == 0;
        GCharPtr foldedA(g_utf8_casefold(a.data(), static_cast<gssize>(a.size())));
        GCharPtr foldedB(g_utf8_casefold(b.data(), static_cast<gssize>(b.size())));
        return std::strcmp(foldedA.get(), foldedB.get()) == 0;
    }

    bool isExecutableFile(const std::filesystem::path& path)
    {
        struct stat st;
        return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
    }

    // stat follows every symbolic link on the way, so this is the date of
    // the bundle directory itself, not of a link to it.
    std::optional<struct timespec> modificationDate(const std::filesystem::path& bundle)
    {
        struct stat st;
        if (stat(bundle.c_str(), &st) != 0)
            return std::nullopt;
        return st.st_mtim;
    }

    bool isLater(const struct timespec& date, const std::optional<struct timespec>& than)
    {
        if (!than)
            return true; // the distant past
        return date.tv_sec > than->tv_sec || (date.tv_sec == than->tv_sec && date.tv_nsec > than->tv_nsec);
    }

    // What GIO lists as handlers of the scheme, in its order, as their
    // bundles are on disk now.
    std::vector<detail::InstalledCopy> copiesRegisteringScheme(const std::string& scheme)
    {
        std::vector<detail::InstalledCopy> copies;
        std::string contentType = "x-scheme-handler/" + scheme;
        GObjectList infos(g_app_info_get_all_for_type(contentType.c_str()));
        for (GList* item = infos.get(); item; item = item->next) {
            auto path = bundleOfAppInfo(static_cast<GAppInfo*>(item->data));
            auto bundle = path ? VTBundle::bundleWithPath(*path) : nullptr;
            if (!bundle)
                continue;
            auto executable = bundle->executablePath();
            copies.push_back({ .bundle = *path,
                               .identifier = bundle->bundleIdentifier(),
                               .version = bundle->stringForInfoDictionaryKey("CFBundleVersion"),
                               .runnable = executable && isExecutableFile(*executable),
                               .modified = modificationDate(*path) });
        }
        return copies;
    }

    // Runs in the started program just before exec: it begins with every
    // signal at its default and none blocked, whatever we ignore or block.
    // Only async-signal-safe calls here.
    void resetSignals(gpointer) noexcept
    {
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = SIG_DFL;
        for (int signalNumber = 1; signalNumber < NSIG; ++signalNumber)
            sigaction(signalNumber, &action, nullptr);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }

    // Starts the program in the background, detached: GLib forks twice and
    // reaps the middle process, so no zombie of it stays with us, and closes
    // every descriptor above standard error in the child.
    bool startDetached(const std::filesystem::path& executable, const std::vector<std::string>& arguments)
    {
        std::vector<std::string> argvStrings { executable.string() };
        argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& argument : argvStrings)
            argv.push_back(argument.data());
        argv.push_back(nullptr);

        // Without a startup or activation token the desktop does not hand it
        // the focus: it comes up in the background.
        GStrvPtr environment(g_get_environ());
        for (const char* token : { "DESKTOP_STARTUP_ID", "XDG_ACTIVATION_TOKEN" })
            environment.reset(g_environ_unsetenv(environment.release(), token));

        // The started copy outlives us; it must not keep our working
        // directory busy.
        GErrorHolder error;
        return g_spawn_async("/", argv.data(), environment.get(), G_SPAWN_STDIN_FROM_DEV_NULL, resetSignals, nullptr,
                             nullptr, error);
    }

    bool deliverToRunningCopy(const std::vector<std::string>& urls, const std::string& bundleIdentifier,
                              uint32_t options)
    {
        GPtr<GDBusConnection> bus = sessionBus();
        if (!bus)
            return false;
        std::string path = detail::applicationObjectPath(bundleIdentifier);
        if (!g_dbus_is_name(bundleIdentifier.c_str()) || !g_variant_is_object_path(path.c_str()))
            return false;

        // Takes `parameters` (floating); true when the copy answered.
        auto callApplication = [&](const char* method, GVariant* parameters) {
            return call(bus.get(), bundleIdentifier.c_str(), path.c_str(), "org.freedesktop.Application", method,
                        parameters, nullptr)
                != nullptr;
        };
        auto noPlatformData = [] { return g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0); };

        bool delivered = true;
        if (!urls.empty()) {
            VariantBuilder uris(G_VARIANT_TYPE_STRING_ARRAY);
            for (const auto& url : urls)
                g_variant_builder_add(uris.get(), "s", url.c_str());
            // The desktop's interface carries no hint (GApplication's own
            // org.gtk.Application.Open does). Accepted once sent: the
            // application opens in its own time, and the launcher's
            // start-up does not wait for it.
            send(bus.get(), bundleIdentifier.c_str(), path.c_str(), "org.freedesktop.Application", "Open",
                 g_variant_new("(@as@a{sv})", uris.end(), noPlatformData()));
        }
        if (!(options & kLaunchDontSwitch)) {
            bool activated = callApplication("Activate", g_variant_new("(@a{sv})", noPlatformData()));
            if (urls.empty())
                delivered = activated;
        }
        return delivered;
    }

    // The white space the product's version reading skips: the Unicode
    // separators, the ASCII controls from tab to carriage return, and NEXT
    // LINE.
    bool isScannerWhiteSpace(gunichar c)
    {
        if ((c >= 0x09 && c <= 0x0D) || c == 0x85)
            return true;
        GUnicodeType type = g_unichar_type(c);
        return type == G_UNICODE_SPACE_SEPARATOR || type == G_UNICODE_LINE_SEPARATOR
            || type == G_UNICODE_PARAGRAPH_SEPARATOR;
    }

    class VersionScanner {
    public:
        explicit VersionScanner(std::string_view text) : m_text(text) {}

        bool scanInt(int& result)
        {
            skipWhiteSpace();
            size_t at = m_at;
            bool negative = false;
            if (at < m_text.size() && (m_text[at] == '+' || m_text[at] == '-'))
                negative = m_text[at++] == '-';
            size_t digitsStart = at;
            long long value = 0;
            while (at < m_text.size() && m_text[at] >= '0' && m_text[at] <= '9') {
                // An overlong number saturates rather than fails.
                if (value <= INT_MAX)
                    value = value * 10 + (m_text[at] - '0');
                ++at;
            }
            if (at == digitsStart)
                return false;
            if (negative)
                result = value > INT_MAX ? INT_MIN : static_cast<int>(-value);
            else
                result = value > INT_MAX ? INT_MAX : static_cast<int>(value);
            m_at = at;
            return true;
        }

        bool scanDot()
        {
            skipWhiteSpace();
            if (m_at < m_text.size() && m_text[m_at] == '.') {
                ++m_at;
                return true;
            }
            return false;
        }

    private:
        void skipWhiteSpace()
        {
            while (m_at < m_text.size()) {
                const char* at = m_text.data() + m_at;
                gunichar c = g_utf8_get_char_validated(at, static_cast<gssize>(m_text.size() - m_at));
                if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2) || !isScannerWhiteSpace(c))
                    return;
                m_at = static_cast<size_t>(g_utf8_next_char(at) - m_text.data());
            }
        }

        std::string_view m_text;
        size_t m_at = 0;
    };

} // namespace

namespace detail {

    std::optional<BundleVersion> scanBundleVersion(std::string_view version)
    {
        // The second dot is required on purpose: "4.1.3" and "4.1." pass,
        // "4.1" and "4" do not, so that only full release numbers count.
        VersionScanner scanner(version);
        BundleVersion result;
        if (scanner.scanInt(result.majorNumber) && scanner.scanDot() && scanner.scanInt(result.minorNumber)
            && scanner.scanDot())
            return result;
        return std::nullopt;
    }

    std::optional<std::filesystem::path> chooseNewestCopy(const std::vector<InstalledCopy>& copies,
                                                          std::string_view bundleIdentifier)
    {
        const InstalledCopy* best = nullptr;
        int bestMajor = -1;
        int bestMinor = -1;
        for (const auto& copy : copies) {
            if (!copy.identifier || !equalIgnoringCase(*copy.identifier, bundleIdentifier) || !copy.runnable)
                continue;
            auto version = copy.version ? scanBundleVersion(*copy.version) : std::nullopt;
            if (!version || version->majorNumber < 1 || version->minorNumber < 0)
                continue;

            // The patch number never counts: copies that differ only there
            // are told apart by date, and on a full tie the first listed
            // stays. A copy without a date cannot win a tie.
            bool better = version->majorNumber > bestMajor
                || (version->majorNumber == bestMajor && version->minorNumber > bestMinor)
                || (version->majorNumber == bestMajor && version->minorNumber == bestMinor && copy.modified
                    && isLater(*copy.modified, best ? best->modified : std::nullopt));
            if (!better)
                continue;
            bestMajor = version->majorNumber;
            bestMinor = version->minorNumber;
            best = &copy;
        }
        if (!best)
            return std::nullopt;
        return best->bundle;
    }

    std::string applicationObjectPath(std::string_view applicationId)
    {
        // GApplication's rule: dots become slashes, dashes underscores.
        std::string path = "/";
        for (char c : applicationId)
            path += c == '.' ? '/' : c == '-' ? '_' : c;
        return path;
    }

} // namespace detail

std::optional<std::filesystem::path> VT_findRunningAppBundleWithIdentifier(const std::string& bundleIdentifier)
{
    if (!g_dbus_is_name(bundleIdentifier.c_str()) || g_dbus_is_unique_name(bundleIdentifier.c_str()))
        return std::nullopt;
    GPtr<GDBusConnection> bus = sessionBus();
    if (!bus)
        return std::nullopt;
    GPtr<GVariant> reply = call(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                "GetConnectionUnixProcessID", g_variant_new("(s)", bundleIdentifier.c_str()),
                                G_VARIANT_TYPE("(u)"));
    if (!reply)
        return std::nullopt;
    guint32 pid = 0;
    g_variant_get(reply.get(), "(u)", &pid);
    return bundleOfProcess(pid);
}

std::optional<std::filesystem::path> VT_absolutePathForAppBundleWithIdentifier(
    const std::optional<std::string>& bundleIdentifier, const std::optional<std::string>& scheme)
{
    if (!bundleIdentifier)
        requiredIdentifierMissing(__func__, 35);

    // A running copy always wins, whatever its version.
    if (auto running = VT_findRunningAppBundleWithIdentifier(*bundleIdentifier))
        return running;
    if (scheme) {
        if (auto best = detail::chooseNewestCopy(copiesRegisteringScheme(*scheme), *bundleIdentifier))
            return best;
    }
    return bundleOfDesktopEntry(*bundleIdentifier);
}

bool VT_activateRunningAppWithBundleIdentifier(const std::string& bundleIdentifier)
{
    if (!VT_findRunningAppBundleWithIdentifier(bundleIdentifier))
        return false;
    return deliverToRunningCopy({}, bundleIdentifier, 0);
}

bool VT_launchAppWithBundleIdentifier(const std::optional<std::string>& bundleIdentifier,
                                      const std::optional<std::string>& scheme, uint32_t options)
{
    if (!bundleIdentifier)
        requiredIdentifierMissing(__func__, 127);

    // A running copy is left exactly as it is: not activated, not told.
    if (VT_findRunningAppBundleWithIdentifier(*bundleIdentifier))
        return true;
    return VT_openURLs({}, bundleIdentifier, scheme, options);
}

bool VT_openURLs(const std::vector<std::string>& urls, const std::optional<std::string>& bundleIdentifier,
                 const std::optional<std::string>& scheme, uint32_t options)
{
    if (!bundleIdentifier)
        requiredIdentifierMissing(__func__, 158);

    if (VT_findRunningAppBundleWithIdentifier(*bundleIdentifier))
        return deliverToRunningCopy(urls, *bundleIdentifier, options);

    auto path = VT_absolutePathForAppBundleWithIdentifier(bundleIdentifier, scheme);
    if (!path)
        return false;
    auto bundle = VTBundle::bundleWithPath(*path);
    auto executable = bundle ? bundle->executablePath() : std::nullopt;
    if (!executable)
        return false;
    return startDetached(*executable, urls);
}

} // namespace vt
