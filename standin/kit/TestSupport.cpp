#include "standin/kit/TestSupport.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vt::test {

GPtr<GDBusConnection> connectToBus(const std::string& address, GErrorHolder& error)
{
    return adopt(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error));
}

namespace {
    // One call to the bus daemon at `busAddress` on a connection of its own,
    // so that nothing in this process keeps a reference to the bus.
    GPtr<GVariant> callBusDaemon(const std::string& busAddress, const char* method, const std::string& name,
                                 const char* replyType)
    {
        GErrorHolder error;
        GPtr<GDBusConnection> connection = connectToBus(busAddress, error);
        if (!connection)
            return nullptr;
        GPtr<GVariant> reply = adopt(g_dbus_connection_call_sync(
            connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
            g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
            error));
        g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
        return reply;
    }

    gboolean dispatchDescriptor(GSource*, GSourceFunc callback, gpointer data) noexcept { return callback(data); }
} // namespace

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

StderrCapture::StderrCapture() : m_file(m_dir / "stderr"), m_saved(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
{
    Fd file(open(m_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    dup2(file.get(), STDERR_FILENO);
}

StderrCapture::~StderrCapture() { dup2(m_saved.get(), STDERR_FILENO); }

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
    GPtr<GVariant> reply = callBusDaemon(address(), "NameHasOwner", name, "(b)");
    gboolean owned = FALSE;
    if (reply)
        g_variant_get(reply.get(), "(b)", &owned);
    return owned;
}

std::optional<pid_t> busNameOwnerProcess(const std::string& busAddress, const std::string& name)
{
    GPtr<GVariant> reply = callBusDaemon(busAddress, "GetConnectionUnixProcessID", name, "(u)");
    if (!reply)
        return std::nullopt;
    guint32 pid = 0;
    g_variant_get(reply.get(), "(u)", &pid);
    return static_cast<pid_t>(pid);
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

OwnedSource watchDescriptor(int fd, const char* name, std::function<bool()> callback)
{
    // No prepare or check: GLib dispatches a source whose descriptor is ready.
    static GSourceFuncs funcs { nullptr, nullptr, dispatchDescriptor, nullptr, nullptr, nullptr };
    GPtr<GSource> source = adopt(g_source_new(&funcs, sizeof(GSource)));
    g_source_add_unix_fd(source.get(), fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR));
    return OwnedSource(std::move(source), name, std::move(callback));
}

TestProcess::TestProcess(std::vector<std::string> argv, std::map<std::string, std::string> environment,
                         ProcessSetup setup)
{
    m_task.setLaunchPath(argv.at(0));
    m_task.setArguments(std::vector<std::string>(argv.begin() + 1, argv.end()));
    m_task.setEnvironment(std::move(environment));
    if (!setup.directory.empty())
        m_task.setCurrentDirectoryPath(setup.directory.string());
    if (setup.keepStandardError)
        m_task.setStandardError(VTTask::Stream::Pipe);
    m_task.launch();
    if (setup.keepStandardError) {
        int fd = m_task.standardErrorReader().get();
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        m_standardErrorWatch = watchDescriptor(fd, "vt test: standard error", [this] { return readStandardError(); });
    }
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

bool TestProcess::readStandardError()
{
    char buffer[4096];
    ssize_t count;
    while ((count = read(m_task.standardErrorReader().get(), buffer, sizeof buffer)) > 0)
        m_standardError.append(buffer, static_cast<size_t>(count));
    // Still open while nothing more is there to read (or it was interrupted).
    return count < 0 && (errno == EAGAIN || errno == EINTR);
}

const std::string& TestProcess::standardError()
{
    // What has reached the pipe but not yet the main loop counts too.
    if (m_standardErrorWatch.isActive() && !readStandardError())
        m_standardErrorWatch.stop();
    return m_standardError;
}

bool terminateAndWait(pid_t pid, std::chrono::milliseconds timeout)
{
    // The process descriptor becomes readable when the process has ended,
    // whoever reaps it; a process that cannot be opened is gone already.
    if (pid <= 0)
        return false;
    Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!process)
        return errno == ESRCH;
    kill(pid, SIGTERM);
    bool ended = false;
    OwnedSource watch = watchDescriptor(process.get(), "vt test: process end", [&ended] {
        ended = true;
        return false;
    });
    return waitUntil([&ended] { return ended; }, timeout);
}

size_t openDescriptors()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    bool timedOut = false;
    TimeoutSource guard("vt run-until time-out", timeout, [&] {
        timedOut = true;
        return false;
    });
    TimeoutSource safetyNet("vt run-until look again", 25ms, [] { return true; });
    while (!done()) {
        if (timedOut)
            return false;
        g_main_context_iteration(nullptr, TRUE);
    }
    return true;
}

NoFreeDescriptors::NoFreeDescriptors()
{
    if (::getrlimit(RLIMIT_NOFILE, &m_saved) != 0)
        return;
    int probe = ::dup(0);
    if (probe < 0)
        return;
    rlimit lowered = m_saved;
    lowered.rlim_cur = static_cast<rlim_t>(probe);
    ::close(probe);
    m_active = ::setrlimit(RLIMIT_NOFILE, &lowered) == 0;
}

void NoFreeDescriptors::restore()
{
    if (std::exchange(m_active, false))
        ::setrlimit(RLIMIT_NOFILE, &m_saved);
}

} // namespace vt::test
