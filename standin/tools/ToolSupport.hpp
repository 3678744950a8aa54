// What the stand-in tools (vt-standin-tool and vt-standin-sendwndcmd) share:
// their directory, atomic files, and the ways a tool is told to end.
//
// Everything a tool hears from or tells a test goes through one directory,
// named by VT_STANDIN_TOOLS_DIR in the tool's environment:
//
//   <role>-<pid>.end   written by the test: the tool exits with the integer
//                      in it (empty or not a number: 0)
//   end-all            the same for every tool of the directory, present and
//                      future: a tool started after it exists ends at once
//   <role>-<pid>.exit  written by the tool as it ends: "exit <status>\n", or
//                      "signal 15\n" when SIGTERM ended it (it then dies of
//                      that signal, so its parent sees the real reason)
//
// A tool also ends, silently, when the directory itself has gone: a test
// that forgot its tools must not leave them polling for ever.
#pragma once

#include <csignal>
#include <optional>
#include <string>

namespace vt::standin {

// VT_STANDIN_TOOLS_DIR, or a message on standard error and exit status 3.
std::string toolsDirectoryOrExit(const char* program);

// Writes `contents` under a temporary name and renames it into place, so a
// reader sees all of it or nothing.
bool writeFileAtomically(const std::string& path, const std::string& contents);

// Upper-case hex of the bytes: text of any encoding, unambiguous on one line.
std::string hex(const std::string& bytes);

// Watches for the end of one tool process (this one).
class EndWatch {
public:
    // Catches SIGTERM from here on.
    EndWatch(std::string directory, std::string role);

    // Exits (or dies of SIGTERM) when the tool has been told to end; returns
    // otherwise. Cheap enough to call every few milliseconds.
    void exitIfDue() const;

    // Writes the .exit file and exits with `status`.
    [[noreturn]] void exit(int status) const;

private:
    std::optional<int> requestedStatus() const;

    std::string m_directory;
    std::string m_endFile;
    std::string m_exitFile;
};

} // namespace vt::standin
