// What a session manager asks of the launcher, whichever protocol it speaks;
// each is called from the main loop.
#pragma once

#include <functional>

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
};

} // namespace vt
