// The steps of start-up that wait, as a state machine that only decides: the
// delegate feeds it what happened (an answer of the bus, a timer) and carries
// out the actions it answers. Waits are timers on the main loop, so the
// launcher serves the desktop, its icon and second launches all the while.
//
//   LookingForHelperServer --found--> AskingWhetherBottleIsReady
//   LookingForHelperServer --not found--> WaitingToLookAgain (a second; the
//       tenth failure waits too and then gives up: NoHelperServer)
//   WaitingToLookAgain --timer--> LookingForHelperServer
//   AskingWhetherBottleIsReady --ready--> Ready
//   AskingWhetherBottleIsReady --not ready--> WaitingToAskAgain (a second;
//       no limit: a bottle may take long, an update or a first start)
//   AskingWhetherBottleIsReady --error--> HelperServerGone
//   WaitingToAskAgain --timer--> AskingWhetherBottleIsReady
//
// Ready, NoHelperServer and HelperServerGone are final: later input changes
// nothing. A quit during any wait is the application's business; it ends
// the process or leaves this where it was.
#pragma once

#include <chrono>
#include <optional>
#include <vector>

namespace vt {

class StartUpSequence {
public:
    enum class State {
        NotStarted,
        LookingForHelperServer,
        WaitingToLookAgain,
        AskingWhetherBottleIsReady,
        WaitingToAskAgain,
        Ready,
        NoHelperServer,
        HelperServerGone,
    };
    enum class Action {
        LookUpHelperServer,   // one attempt: does the server's name have an owner?
        AskWhetherBottleIsReady,
        ShowThatItWaits,      // before each wait: the status item says what for
        StartTimer,           // kRetryInterval, then timerFired()
        FinishStartUp,        // the tools, the window-command tool, the menu
        GiveUpNoHelperServer, // "Unable to locate a Vantor helper server..." and the quit question
        GiveUpHelperServerGone,
    };

    static constexpr int kHelperServerAttempts = 10;
    static constexpr std::chrono::seconds kRetryInterval { 1 };

    State state() const { return m_state; }
    // The attempts to find the helper server made so far.
    int attempts() const { return m_attempts; }
    bool isOver() const
    {
        return m_state == State::Ready || m_state == State::NoHelperServer || m_state == State::HelperServerGone;
    }

    std::vector<Action> start();
    std::vector<Action> helperServerLookedUp(bool found);
    std::vector<Action> bottleAnswered(std::optional<bool> ready);
    std::vector<Action> timerFired();

private:
    State m_state = State::NotStarted;
    int m_attempts = 0;
};

const char* stateName(StartUpSequence::State state);

} // namespace vt
