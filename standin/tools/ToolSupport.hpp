// What the stand-in tools (vt-standin-tool and vt-standin-sendwndcmd) share:
// how a tool waits for its end and records it.
//
// A tool runs until SIGTERM or SIGINT ends it, or until the input it was
// given ends: the window-command channel's pipe closes when the launcher
// closes it or is gone, so no tool on it outlives its launcher. Both signals
// are blocked and read from a signal descriptor, so a tool waits on
// descriptors only and never wakes by itself.
// Before it dies of the signal it sends a tool-end record with the signal
// and the sender's pid (standin/record/Record.hpp), so a test can tell who
// ended it; its parent then sees the real reason in the wait status.
#pragma once

#include <string>

#include "base/posix_glue.hpp"

namespace vt::standin {

class EndSignals {
public:
    // Blocks SIGTERM and SIGINT (the mask survives exec) and opens the
    // descriptor (close-on-exec) on which they arrive.
    EndSignals();
    int fd() const { return m_fd.get(); }
    // Waits for one of the signals, records it for the tool `role` and dies of it.
    [[noreturn]] void endWithSignal(const std::string& role) const;
    // The same, but when standard input is a pipe or a socket, its end (what
    // arrives on it is dropped) ends the tool too, with status 0.
    [[noreturn]] void endWithSignalOrEndOfInput(const std::string& role) const;

private:
    Fd m_fd;
};

// Records that the tool `role` ends for `reason` and exits with status 0.
[[noreturn]] void endWithReason(const std::string& role, const std::string& reason);

} // namespace vt::standin
