#include "app/EndOfSession.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

namespace vt {

using Action = EndOfSession::Action;
using Actions = EndOfSession::Actions;
using Kind = EndOfSession::Action::Kind;
using State = EndOfSession::State;

namespace {
    Action make(Kind kind, bool yes = false) { return Action { kind, {}, yes }; }

    Actions& operator+=(Actions& to, Actions&& more)
    {
        to.insert(to.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
        return to;
    }
} // namespace

bool EndOfSession::isBusy() const
{
    return m_state == State::Closing || m_state == State::Querying || m_state == State::Ending
        || m_state == State::Cancelling;
}

bool EndOfSession::waiting(Event event) const
{
    return std::find(m_waiting.begin(), m_waiting.end(), event) != m_waiting.end();
}

void EndOfSession::waitWith(Event event)
{
    if (!waiting(event))
        m_waiting.push_back(event);
}

Actions EndOfSession::send(const char* command)
{
    std::string_view name(command);
    if (name == "queryendsession")
        m_programAsked = true;
    else if (name == "endsession" || name == "endsessioncancel")
        m_programAsked = false;
    ++m_unanswered;
    return { Action { Kind::Send, command } };
}

Actions EndOfSession::ask()
{
    m_state = State::Closing;
    return send("close");
}

Actions EndOfSession::quit()
{
    Actions actions;
    switch (m_state) {
    case State::Idle:
        m_forQuit = true;
        actions.push_back(make(Kind::ActivateMainApplication));
        actions += ask();
        return actions;
    case State::Closing:
    case State::Querying:
    case State::Ending:
        // One question to the program answers the quit too; an ending the
        // session asked for ends the launcher as well.
        if (std::exchange(m_forQuit, true))
            return {};
        return { make(Kind::ActivateMainApplication) };
    case State::Cancelling:
        waitWith(Event::Quit);
        return {};
    case State::SessionAgreed:
        // The program has agreed to end already.
        m_forQuit = true;
        actions.push_back(make(Kind::ActivateMainApplication));
        actions += startEnding();
        return actions;
    case State::SessionRefused:
        // The user may have saved since: the program is asked again, its
        // earlier question closed first.
        m_forQuit = true;
        actions.push_back(make(Kind::ActivateMainApplication));
        if (m_programAsked)
            actions += send("endsessioncancel");
        actions += ask();
        return actions;
    case State::SessionEnded:
        return { make(Kind::ReplyToQuit, true) };
    }
    return {};
}

Actions EndOfSession::queryEnd()
{
    Actions actions;
    switch (m_state) {
    case State::Idle:
        m_forSession = true;
        return ask();
    case State::Closing:
    case State::Querying:
        m_forSession = true;
        return {};
    case State::Cancelling:
        waitWith(Event::Query);
        return {};
    case State::Ending:
    case State::SessionAgreed:
    case State::SessionEnded:
        return { make(Kind::AnswerQuery, true) };
    case State::SessionRefused:
        m_forSession = true;
        if (m_programAsked)
            actions += send("endsessioncancel");
        actions += ask();
        return actions;
    }
    return {};
}

Actions EndOfSession::end()
{
    switch (m_state) {
    case State::Idle:
    case State::SessionAgreed:
    case State::SessionRefused:
        m_endForSession = true;
        return startEnding();
    case State::Closing:
    case State::Querying:
    case State::Cancelling:
        waitWith(Event::End);
        return {};
    case State::Ending:
        m_endForSession = true;
        return {};
    case State::SessionEnded:
        return { make(Kind::AnswerEnd) };
    }
    return {};
}

Actions EndOfSession::cancel()
{
    switch (m_state) {
    case State::SessionAgreed:
    case State::SessionRefused:
        return startCancelling(State::Idle);
    case State::Closing:
    case State::Querying:
        waitWith(Event::Cancel);
        return {};
    default:
        // Nothing asked, already cancelling, or too late: the program has
        // been told to end.
        return {};
    }
}

Actions EndOfSession::answered(bool yes)
{
    if (m_unanswered == 0 || --m_unanswered > 0)
        return {};
    switch (m_state) {
    case State::Closing:
        if (yes || m_programEnded) {
            m_state = State::Querying;
            return send("queryendsession");
        }
        return settle(false);
    case State::Querying:
        return settle(yes || m_programEnded);
    case State::Ending: {
        Actions actions;
        if (std::exchange(m_endForSession, false))
            actions.push_back(make(Kind::AnswerEnd));
        if (std::exchange(m_forQuit, false)) {
            actions.push_back(make(Kind::Hide));
            actions.push_back(make(Kind::ReplyToQuit, true));
            m_state = State::Idle;
        } else {
            m_state = State::SessionEnded;
        }
        actions += takeWaiting();
        return actions;
    }
    case State::Cancelling:
        return cancelled();
    default:
        return {};
    }
}

Actions EndOfSession::settle(bool agreed)
{
    Actions actions;
    bool forSession = std::exchange(m_forSession, false);
    // A question the session manager has cancelled meanwhile wants no answer.
    if (forSession && !waiting(Event::Cancel))
        actions.push_back(make(Kind::AnswerQuery, agreed));
    if (m_forQuit) {
        if (agreed)
            return actions += startEnding();
        if (waiting(Event::End)) {
            // The session ends whatever the program said: the quit is
            // refused, and the end is taken next.
            m_forQuit = false;
            actions.push_back(make(Kind::Hide));
            actions.push_back(make(Kind::ReplyToQuit, false));
            m_state = forSession ? State::SessionRefused : State::Idle;
            return actions += takeWaiting();
        }
        return actions += startCancelling(forSession ? State::SessionRefused : State::Idle);
    }
    m_state = agreed ? State::SessionAgreed : State::SessionRefused;
    return actions += takeWaiting();
}

Actions EndOfSession::startEnding()
{
    m_state = State::Ending;
    Actions actions = send("endsession");
    return actions += send("shutdown");
}

Actions EndOfSession::startCancelling(State after)
{
    m_afterCancelling = after;
    if (!m_programAsked)
        return cancelled();
    m_state = State::Cancelling;
    return send("endsessioncancel");
}

Actions EndOfSession::cancelled()
{
    Actions actions;
    if (std::exchange(m_forQuit, false)) {
        actions.push_back(make(Kind::Hide));
        actions.push_back(make(Kind::ReplyToQuit, false));
    }
    m_state = m_afterCancelling;
    return actions += takeWaiting();
}

Actions EndOfSession::takeWaiting()
{
    Actions actions;
    while (!isBusy() && !m_waiting.empty()) {
        Event event = m_waiting.front();
        m_waiting.pop_front();
        switch (event) {
        case Event::Quit:
            actions += quit();
            break;
        case Event::Query:
            actions += queryEnd();
            break;
        case Event::End:
            actions += end();
            break;
        case Event::Cancel:
            actions += cancel();
            break;
        }
    }
    return actions;
}

Actions EndOfSession::launcherEnds()
{
    Actions actions;
    if (m_forSession || waiting(Event::Query))
        actions.push_back(make(Kind::AnswerQuery, true));
    if (m_endForSession || waiting(Event::End))
        actions.push_back(make(Kind::AnswerEnd));
    *this = EndOfSession();
    return actions;
}

const char* stateName(EndOfSession::State state)
{
    switch (state) {
    case State::Idle:
        return "Idle";
    case State::Closing:
        return "Closing";
    case State::Querying:
        return "Querying";
    case State::Ending:
        return "Ending";
    case State::Cancelling:
        return "Cancelling";
    case State::SessionAgreed:
        return "SessionAgreed";
    case State::SessionRefused:
        return "SessionRefused";
    case State::SessionEnded:
        return "SessionEnded";
    }
    return "?";
}

} // namespace vt
