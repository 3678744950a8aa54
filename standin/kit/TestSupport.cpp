#include "standin/kit/TestSupport.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <csignal>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vt::test {

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vt-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

void writeFile(const std::filesystem::path& path, const std::string& contents)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

StderrCapture::StderrCapture() : m_file(m_dir / "stderr")
{
    int fd = open(m_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    m_saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
}

StderrCapture::~StderrCapture()
{
    dup2(m_saved, STDERR_FILENO);
    close(m_saved);
}

std::string StderrCapture::text() const { return readFile(m_file); }

void ScopedEnvironment::remember(const std::string& name)
{
    if (m_saved.count(name))
        return;
    const char* old = std::getenv(name.c_str());
    m_saved[name] = old ? std::optional<std::string>(old) : std::nullopt;
}

void ScopedEnvironment::set(const std::string& name, const std::string& value)
{
    remember(name);
    setenv(name.c_str(), value.c_str(), 1);
}

void ScopedEnvironment::unset(const std::string& name)
{
    remember(name);
    unsetenv(name.c_str());
}

ScopedEnvironment::~ScopedEnvironment()
{
    for (const auto& [name, value] : m_saved) {
        if (value)
            setenv(name.c_str(), value->c_str(), 1);
        else
            unsetenv(name.c_str());
    }
}

PrivateBus::PrivateBus() : m_bus(adopt(g_test_dbus_new(G_TEST_DBUS_NONE)))
{
    g_test_dbus_up(m_bus.get());
}

PrivateBus::~PrivateBus() { g_test_dbus_down(m_bus.get()); }

std::string PrivateBus::address() const { return g_test_dbus_get_bus_address(m_bus.get()); }

bool PrivateBus::hasOwner(const std::string& name) const
{
    GErrorHolder error;
    GPtr<GDBusConnection> connection = adopt(g_dbus_connection_new_for_address_sync(
        address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error));
    if (!connection)
        return false;
    GPtr<GVariant> reply = adopt(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE,
        -1, nullptr, error));
    gboolean owned = FALSE;
    if (reply)
        g_variant_get(reply.get(), "(b)", &owned);
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
    return owned;
}

std::map<std::string, std::string> environmentWith(
    const std::map<std::string, std::optional<std::string>>& changes)
{
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        std::string text = *entry;
        auto equals = text.find('=');
        if (equals != std::string::npos)
            environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : changes) {
        if (value)
            environment[name] = *value;
        else
            environment.erase(name);
    }
    return environment;
}

TestProcess::TestProcess(std::vector<std::string> argv, std::map<std::string, std::string> environment)
{
    m_task.setLaunchPath(argv.at(0));
    m_task.setArguments(std::vector<std::string>(argv.begin() + 1, argv.end()));
    m_task.setEnvironment(std::move(environment));
    m_task.launch();
}

TestProcess::~TestProcess()
{
    if (m_task.isRunning()) {
        kill(m_task.processIdentifier(), SIGKILL);
        waitUntil([this] { return !m_task.isRunning(); });
    }
}

std::optional<int> TestProcess::waitForExit(std::chrono::milliseconds timeout)
{
    if (!waitUntil([this] { return !m_task.isRunning(); }, timeout))
        return std::nullopt;
    int status = *m_task.terminationStatus();
    if (!WIFEXITED(status))
        return std::nullopt;
    return WEXITSTATUS(status);
}

void TestProcess::signal(int signalNumber) { kill(m_task.processIdentifier(), signalNumber); }

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    bool timedOut = false;
    TimeoutSource guard("vt run-until time-out", timeout, [&] {
        timedOut = true;
        return false;
    });
    // Conditions may change outside the main loop (another thread, another
    // process), so look again at short intervals even when nothing is dispatched.
    TimeoutSource tick("vt run-until tick", std::chrono::milliseconds(5), [] { return true; });
    while (!done()) {
        if (timedOut)
            return false;
        g_main_context_iteration(nullptr, TRUE);
    }
    return true;
}

} // namespace vt::test
