// What the stand-in product records (standin/record/Record.hpp), received as
// it arrives, and the views the tests read it through.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "base/posix_glue.hpp"
#include "standin/record/Record.hpp"

namespace vt::test {

using namespace std::chrono_literals;

// A tool's start, as it recorded it.
struct ToolRecord {
    std::string role;            // vtmenu, vtstart or wine
    pid_t pid = 0;
    pid_t parent = 0;
    std::vector<std::string> argv; // argv[0] (the path it was started by) first
    std::map<std::string, std::string> environment; // the whole environment
    std::string directory;       // working directory
    std::string standardInput;   // null, pipe, other or closed
    std::string standardOutput;
    std::string standardError;

    // The arguments without argv[0].
    std::vector<std::string> arguments() const { return { argv.begin() + (argv.empty() ? 0 : 1), argv.end() }; }
};

// How a tool ended: the signal and who sent it, or (signal 0) by itself.
struct ToolEnding {
    int signal = 0;
    pid_t sender = 0;
};

// A call the helper server received: "<method>[ <argument>][ expecting-reply]".
struct ServerCall {
    int64_t milliseconds; // CLOCK_MONOTONIC, as g_get_monotonic_time() / 1000
    std::string call;
};

// The socket the stand-in programs send their records to (give them
// VT_STANDIN_RECORDS=path()). A thread of its own takes every datagram in
// as it comes: the kernel keeps only a few unread datagrams per socket, and
// a stand-in program must never wait for a test that is busy elsewhere.
// Each arrival wakes the main loop, so waitUntil() sees it at once.
class RecordReader {
public:
    explicit RecordReader(std::filesystem::path socket);
    ~RecordReader();
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    const std::filesystem::path& path() const { return m_path; }

    // Every record of `kind` so far, in the order they arrived.
    std::vector<standin::Record> all(const std::string& kind) const;

    // Tool starts (of `role`; of any role when empty).
    std::vector<ToolRecord> tools(const std::string& role = {}) const;
    bool waitForTools(size_t count, const std::string& role = {}, std::chrono::milliseconds timeout = 20s) const;
    // How the tool with this pid ended; empty while it runs (or when it
    // could not say, killed by SIGKILL).
    std::optional<ToolEnding> ending(pid_t pid) const;

    // The window-command requests, each as it arrived, line end included.
    std::vector<std::string> requests() const;
    // Just their command texts (after "-a "), without the line end.
    std::vector<std::string> commandTexts() const;
    bool waitForRequests(size_t count, std::chrono::milliseconds timeout = 20s) const;

    // The main application's events: "started <argv...>", "open <uri...>",
    // "activate", the words separated by blanks.
    std::vector<std::string> mainAppEvents() const;
    std::vector<ServerCall> serverCalls() const;

private:
    void receive() const;

    std::filesystem::path m_path;
    Fd m_socket;
    Fd m_stop;
    mutable std::mutex m_mutex;
    mutable std::vector<standin::Record> m_records;
    mutable std::vector<char> m_buffer;
    std::thread m_thread;
};

} // namespace vt::test
