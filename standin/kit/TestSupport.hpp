// Shared test fixtures: temporary directories, captured standard error,
// scoped environment changes, file reading, a private bus, child processes
// and waiting on the main loop.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/glib_glue.hpp"
#include "base/posix_glue.hpp"
#include "source/VTTask.hpp"

namespace vt::test {

using namespace std::chrono_literals;

// A fresh directory, removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir&&) = delete; // neither copied nor moved
    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& contents);

// Collects what is written to standard error (descriptor 2) while it lives.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    // Everything written so far.
    std::string text() const;

private:
    TempDir m_dir;
    std::filesystem::path m_file;
    Fd m_saved;
};

// While it is active no descriptor is free in this process: the lowest free
// number becomes the limit of open descriptors. The limit comes back with
// restore() or at the end of the scope.
class NoFreeDescriptors {
public:
    NoFreeDescriptors();
    ~NoFreeDescriptors() { restore(); }
    NoFreeDescriptors(NoFreeDescriptors&&) = delete; // neither copied nor moved
    bool active() const { return m_active; }
    void restore();

private:
    rlimit m_saved {};
    bool m_active = false;
};

// Sets or unsets environment variables for the scope and restores them after.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment();
    ScopedEnvironment(ScopedEnvironment&&) = delete; // neither copied nor moved
    void set(const std::string& name, const std::string& value);
    void unset(const std::string& name);

private:
    void remember(const std::string& name);
    std::map<std::string, std::optional<std::string>> m_saved;
};

// A connection of its own to the message bus at `address`; null, with
// `error` set, when it cannot be made.
GPtr<GDBusConnection> connectToBus(const std::string& address, GErrorHolder& error);

// A private D-Bus session bus for the scope: DBUS_SESSION_BUS_ADDRESS points
// at it while it lives. Everything in this process that took a reference to
// the session bus must drop it before the end of the scope.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(PrivateBus&&) = delete; // neither copied nor moved
    std::string address() const;
    // Whether `name` has an owner on this bus right now.
    bool hasOwner(const std::string& name) const;

private:
    GPtr<GTestDBus> m_bus;
};

// The process that owns `name` on the bus at `busAddress`.
std::optional<pid_t> busNameOwnerProcess(const std::string& busAddress, const std::string& name);

// The current environment with `changes` applied (an empty optional removes
// the variable): the whole environment to hand to a child.
std::map<std::string, std::string> environmentWith(
    const std::map<std::string, std::optional<std::string>>& changes);

// Calls `callback` on the main loop whenever `fd` can be read or has hung up,
// for as long as the callback answers true and the source lives.
OwnedSource watchDescriptor(int fd, const char* name, std::function<bool()> callback);

// Where a TestProcess starts, and whether its standard error is kept.
struct ProcessSetup {
    std::filesystem::path directory {};
    bool keepStandardError = false;
};

// A real child process for a test. It is killed (SIGKILL) and reaped if it is
// still running when the object goes away, so no test leaks a process.
class TestProcess {
public:
    TestProcess(std::vector<std::string> argv, std::map<std::string, std::string> environment,
                ProcessSetup setup = {});
    ~TestProcess();

    pid_t pid() const { return m_task.processIdentifier(); }
    bool running() const { return m_task.isRunning(); }
    // Runs the main loop until the process has ended; its exit status, or
    // empty on time-out or when it was killed by a signal.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout = 20s);
    void signal(int signalNumber);
    // What it has written to standard error so far, when it is kept. Its own
    // children (which inherit the pipe) add to it too.
    const std::string& standardError();

private:
    bool readStandardError();

    VTTask m_task;
    std::string m_standardError;
    OwnedSource m_standardErrorWatch;
};

// Sends SIGTERM to a process that need not be our child (a detached main
// application, a tool the launcher started) and runs the main loop until it
// has ended; a zombie that its parent has yet to reap counts as ended.
bool terminateAndWait(pid_t pid, std::chrono::milliseconds timeout = 10s);

// How many descriptors this process has open now.
size_t openDescriptors();

// Iterates the default main context until `done` holds; false after
// `timeout`. Records, descriptor watches and child watches wake the loop;
// conditions that nothing wakes (a bus name, another process's files) are
// looked at again every few tens of milliseconds.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s);

} // namespace vt::test
