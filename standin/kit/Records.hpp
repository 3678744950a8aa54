// What the stand-in product records (standin/record/Record.hpp), taken in as
// it arrives, and the views the tests read it through.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/posix_glue.hpp"
#include "standin/record/Record.hpp"

namespace vt::test {

using namespace std::chrono_literals;

// A tool's start, as it recorded it.
struct ToolRecord {
    std::string role;                               // vtmenu, vtstart or wine
    pid_t pid = 0;
    std::vector<std::string> argv;                  // argv[0] (the path it was started by) first
    std::map<std::string, std::string> environment; // the whole environment
    std::string directory;                          // working directory
    std::string standardInput;                      // null, pipe, socket, other or closed
    std::string standardOutput;
    std::vector<std::string> descriptors;           // every one it was started with: "<number> <kind>"
    int64_t started = 0;                            // CLOCK_MONOTONIC (ns) when its main began

    std::vector<std::string> arguments() const { return { argv.begin() + (argv.empty() ? 0 : 1), argv.end() }; }
};

// A descriptor that the stand-in Wine was told of through a variable.
struct WineDescriptor {
    std::string value; // the variable's value
    bool open = false; // it names an open descriptor
    bool closeOnExec = false;
};

// A call of the stand-in Wine's wine_init, as it recorded it.
struct WineInitRecord {
    pid_t pid = 0;
    std::vector<std::string> argv;
    std::map<std::string, std::string> environment;
    std::string directory;
    std::string standardInput, standardOutput, standardError; // as in ToolRecord
    std::optional<WineDescriptor> serverSocket;               // WINESERVERSOCKET, when set
    std::optional<WineDescriptor> waitChildPipe;              // WINE_WAIT_CHILD_PIPE, when set
    bool mainThread = false;                                  // called on the process's main thread
    std::string controller;                                   // registered, none or unavailable
};

// The socket the stand-in programs record to (VT_STANDIN_RECORDS=path()). A
// thread of its own takes each datagram in as it comes, because the kernel
// keeps only a few unread ones and a stand-in must never wait for a test
// that is busy elsewhere; each arrival wakes the main loop for waitUntil().
class RecordReader {
public:
    explicit RecordReader(std::filesystem::path socket);
    ~RecordReader();

    const std::filesystem::path& path() const { return m_path; }

    // Every record of `kind` so far, in the order they arrived.
    std::vector<standin::Record> all(const std::string& kind) const;
    // The same, each as the values of its fields but pid, ms and started
    // (a tool's start time), separated by blanks: "started <argv...>",
    // "IsServerReadyForBottle Office".
    std::vector<std::string> texts(const std::string& kind) const;
    // The records' times (ms) whose text is `text`.
    std::vector<int64_t> times(const std::string& kind, const std::string& text) const;
    bool waitFor(const std::string& kind, size_t count, std::chrono::milliseconds timeout = 20s) const;

    // Tool starts, of `role` or (empty) of any.
    std::vector<ToolRecord> tools(const std::string& role = {}) const;
    bool waitForTools(size_t count, const std::string& role = {}, std::chrono::milliseconds timeout = 20s) const;
    // The pid that sent the signal that ended the tool `pid` (0 when it ended
    // by itself); empty while it runs.
    std::optional<pid_t> endedBy(pid_t pid) const;
    // The stand-in Wine's wine_init calls.
    std::vector<WineInitRecord> wineInits() const;
    // The window-command requests' command texts (after "-a "), without line ends.
    std::vector<std::string> commandTexts() const;

private:
    void receive() const;

    std::filesystem::path m_path;
    Fd m_socket;
    Fd m_stop;
    mutable std::mutex m_mutex;
    mutable std::vector<standin::Record> m_records;
    mutable std::vector<char> m_buffer = std::vector<char>(1 << 18);
    std::thread m_thread;
};

} // namespace vt::test
