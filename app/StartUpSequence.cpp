#include "app/StartUpSequence.hpp"

namespace vt {

using Action = StartUpSequence::Action;
using State = StartUpSequence::State;

std::vector<Action> StartUpSequence::start()
{
    if (m_state != State::NotStarted)
        return {};
    m_state = State::LookingForHelperServer;
    m_attempts = 1;
    return { Action::LookUpHelperServer };
}

std::vector<Action> StartUpSequence::helperServerLookedUp(bool found)
{
    if (m_state != State::LookingForHelperServer)
        return {};
    if (found) {
        m_state = State::AskingWhetherBottleIsReady;
        return { Action::AskWhetherBottleIsReady };
    }
    // The last failed attempt waits too, before the launcher gives up.
    m_state = State::WaitingToLookAgain;
    return { Action::ShowThatItWaits, Action::StartTimer };
}

std::vector<Action> StartUpSequence::bottleAnswered(std::optional<bool> ready)
{
    if (m_state != State::AskingWhetherBottleIsReady)
        return {};
    if (!ready) {
        m_state = State::HelperServerGone;
        return { Action::GiveUpHelperServerGone };
    }
    if (*ready) {
        m_state = State::Ready;
        return { Action::FinishStartUp };
    }
    m_state = State::WaitingToAskAgain;
    return { Action::ShowThatItWaits, Action::StartTimer };
}

std::vector<Action> StartUpSequence::timerFired()
{
    switch (m_state) {
    case State::WaitingToLookAgain:
        if (m_attempts >= kHelperServerAttempts) {
            m_state = State::NoHelperServer;
            return { Action::GiveUpNoHelperServer };
        }
        ++m_attempts;
        m_state = State::LookingForHelperServer;
        return { Action::LookUpHelperServer };
    case State::WaitingToAskAgain:
        m_state = State::AskingWhetherBottleIsReady;
        return { Action::AskWhetherBottleIsReady };
    default:
        return {};
    }
}

const char* stateName(StartUpSequence::State state)
{
    switch (state) {
    case State::NotStarted:
        return "not started";
    case State::LookingForHelperServer:
        return "looking for the helper server";
    case State::WaitingToLookAgain:
        return "waiting to look for the helper server again";
    case State::AskingWhetherBottleIsReady:
        return "asking whether the bottle is ready";
    case State::WaitingToAskAgain:
        return "waiting to ask about the bottle again";
    case State::Ready:
        return "ready";
    case State::NoHelperServer:
        return "no helper server";
    case State::HelperServerGone:
        return "helper server gone";
    }
    return "?";
}

} // namespace vt
