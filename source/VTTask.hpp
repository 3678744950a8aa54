// The process object through which the launcher starts every child.
//
// Arguments reach the child as the exact UTF-8 bytes of the caller's strings:
// a precomposed é stays C3 A9 and nothing is normalised, because the Windows
// program must see the names and words the user typed. When the process ends,
// VTTaskDidTerminateNotification is posted once, on the main loop, with this
// VTTask as its object.
#pragma once

#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

#include "base/posix_glue.hpp"

namespace vt {

namespace detail {
    struct TaskWatch;
}

inline constexpr const char* VTTaskDidTerminateNotification = "VTTaskDidTerminateNotification";

// A launch that cannot happen: a path that cannot be executed, a second launch.
class VTTaskLaunchError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An argument list that ends at its first missing element, as the product's
// tools expect when a launcher bundle lacks a key.
std::vector<std::string> argumentsUpToFirstMissing(std::initializer_list<std::optional<std::string>> elements);

class VTTask {
public:
    enum class Stream { Inherit, NullDevice, Pipe };

    VTTask();
    // Leaves a running process running; it is still reaped when it ends, and
    // nothing is posted for it.
    ~VTTask();
    VTTask(const VTTask&) = delete;
    VTTask& operator=(const VTTask&) = delete;

    void setLaunchPath(std::string path) { m_launchPath = std::move(path); }
    void setArguments(std::vector<std::string> arguments) { m_arguments = std::move(arguments); }
    void setCurrentDirectoryPath(std::string path) { m_currentDirectory = std::move(path); }
    // The child's whole environment; without it the child inherits ours.
    void setEnvironment(std::map<std::string, std::string> environment) { m_environment = std::move(environment); }
    void setStandardInput(Stream stream) { m_stdin = stream; }
    void setStandardOutput(Stream stream) { m_stdout = stream; }
    void setStandardError(Stream stream) { m_stderr = stream; }

    const std::string& launchPath() const { return m_launchPath; }
    const std::vector<std::string>& arguments() const { return m_arguments; }
    const std::optional<std::map<std::string, std::string>>& environment() const { return m_environment; }

    // Throws VTTaskLaunchError naming the path and the reason.
    void launch();

    pid_t processIdentifier() const { return m_pid; }
    bool isRunning() const;
    // The wait status (WIFEXITED and friends) once the end has been seen on
    // the main loop; empty before.
    std::optional<int> terminationStatus() const;

    // Our ends of the pipes, close-on-exec; invalid unless Stream::Pipe.
    Fd& standardInputWriter() { return m_stdinWriter; }
    Fd& standardOutputReader() { return m_stdoutReader; }
    Fd& standardErrorReader() { return m_stderrReader; }

private:
    std::string m_launchPath;
    std::vector<std::string> m_arguments;
    std::optional<std::string> m_currentDirectory;
    std::optional<std::map<std::string, std::string>> m_environment;
    Stream m_stdin = Stream::Inherit;
    Stream m_stdout = Stream::Inherit;
    Stream m_stderr = Stream::Inherit;

    pid_t m_pid = 0;
    Fd m_stdinWriter;
    Fd m_stdoutReader;
    Fd m_stderrReader;
    std::shared_ptr<detail::TaskWatch> m_watch;
};

} // namespace vt
