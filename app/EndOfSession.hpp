// The end of a session with the Windows program, as a state machine that
// only decides: a quit of the launcher and the desktop's logout are one
// conversation with the program's windows, through the window-command
// channel, one command at a time. The delegate feeds it what happened (a
// quit, the session manager's phases, each command's answer, the program's
// own end) and carries out the actions it answers.
//
// The program sees only Windows' own sequences: "close" alone (a dialog is
// up), or "close" and "queryendsession" followed, once the question is
// settled, by "endsession" and "shutdown" or by "endsessioncancel". A quit
// settles its question at once; the session manager settles the session's
// when it has heard every application (end or cancel). Every question the
// program agreed to or refused is closed before a new one is asked.
//
//   Idle --quit--> Closing (activate the main application, "close")
//   Idle --query--> Closing ("close")
//   Closing --yes--> Querying ("queryendsession")
//   Closing --no--> settled: refused
//   Querying --answer--> settled: the answer (yes when the program has
//       ended meanwhile, whatever the tool said)
//   settled, for a quit: agreed --> Ending ("endsession", "shutdown"), then
//       hide and "quit now"; refused --> Cancelling ("endsessioncancel"),
//       then hide and "quit cancelled"
//   settled, for the session: the answer to the session manager, then
//       SessionAgreed or SessionRefused, waiting for its end or cancel
//   SessionAgreed/SessionRefused --end--> Ending ("endsession", "shutdown"),
//       then the end is answered and the launcher waits for the program to
//       end (SessionEnded)
//   SessionAgreed/SessionRefused --cancel--> Cancelling ("endsessioncancel"
//       when the program was asked), then Idle
//
// What comes while a command is in flight waits for the question to be
// settled, except a quit and a session query, which join the question
// already being asked: one question to the program answers both. The rest
// of the table, each case with one outcome, is in docs/decisions.md ("The
// desktop's logout").
#pragma once

#include <deque>
#include <string>
#include <vector>

namespace vt {

class EndOfSession {
public:
    enum class State {
        Idle,
        Closing,
        Querying,
        Ending,
        Cancelling,
        SessionAgreed,
        SessionRefused,
        SessionEnded,
    };

    struct Action {
        enum class Kind {
            ActivateMainApplication,
            Send,        // a window command; its answer comes back as answered()
            Hide,
            ReplyToQuit, // yes: quit now; no: the quit is cancelled
            AnswerQuery, // to the session manager: may the session end?
            AnswerEnd,   // to the session manager: the program has been told
        };
        Kind kind;
        std::string command; // Send only
        bool yes = false;    // ReplyToQuit and AnswerQuery only
        bool operator==(const Action&) const = default;
    };
    using Actions = std::vector<Action>;

    State state() const { return m_state; }
    // A question or its settlement is in flight: a quit now is answered later.
    bool isBusy() const;

    // The launcher is asked to quit while the program runs.
    Actions quit();
    // The session manager: may the session end; it ends; it was cancelled.
    Actions queryEnd();
    Actions end();
    Actions cancel();
    // The answer to the oldest command sent and not answered yet.
    Actions answered(bool yes);
    // The program's last process has ended by itself.
    void programEnded() { m_programEnded = true; }
    // The launcher ends now (nothing of the program is left, or a quit was
    // agreed): what the session manager is still owed.
    Actions launcherEnds();

private:
    enum class Event { Quit, Query, End, Cancel };

    Actions send(const char* command);
    Actions ask();
    Actions settle(bool agreed);
    Actions startEnding();
    Actions startCancelling(State after);
    Actions cancelled();
    // A resting state has been reached: what waited is taken now, in order.
    Actions takeWaiting();
    bool waiting(Event event) const;
    // Keeps `event` for when the state rests again (once).
    void waitWith(Event event);

    State m_state = State::Idle;
    int m_unanswered = 0;
    // Who the question in flight, the ending or the cancelling is for.
    bool m_forQuit = false;
    bool m_forSession = false;
    bool m_endForSession = false;
    State m_afterCancelling = State::Idle;
    // "queryendsession" was sent and neither "endsession" nor
    // "endsessioncancel" has followed yet.
    bool m_programAsked = false;
    bool m_programEnded = false;
    // What came while a command was in flight.
    std::deque<Event> m_waiting;
};

const char* stateName(EndOfSession::State state);

} // namespace vt
