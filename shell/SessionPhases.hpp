// What a session manager asks of the launcher, whichever protocol it speaks;
// each is called from the main loop.
#pragma once

#include <exception>
#include <functional>

#include "base/VTLog.hpp"

namespace vt {

struct SessionPhases {
    // May the session end? (a logout or a shutdown is asked for)
    std::function<void()> queryEnd;
    // It ends.
    std::function<void()> end;
    // The end that was asked about is off.
    std::function<void()> cancel;
    // The launcher is asked to quit.
    std::function<void()> stop;

    // Runs `phase`, if there is one, from a session manager's callback: the
    // callback is called from C (GDBus, libSM), which no exception may cross.
    static void take(const std::function<void()>& phase, const char* name) noexcept
    {
        if (!phase)
            return;
        try {
            phase();
        } catch (const std::exception& e) {
            VTLog("the session manager's %s could not be taken: %s", name, e.what());
        }
    }
};

} // namespace vt
