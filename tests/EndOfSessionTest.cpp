// The end of a session with the program as a state machine, driven by
// literal sequences of quits, session-manager phases and the window-command
// tool's answers.
#include <gtest/gtest.h>

#include "app/EndOfSession.hpp"

using vt::EndOfSession;
using Action = EndOfSession::Action;
using Actions = EndOfSession::Actions;
using Kind = EndOfSession::Action::Kind;
using State = EndOfSession::State;

namespace {

Action send(const char* command) { return Action { Kind::Send, command }; }
Action replyToQuit(bool now) { return Action { Kind::ReplyToQuit, {}, now }; }
Action answerQuery(bool ok) { return Action { Kind::AnswerQuery, {}, ok }; }
const Action activate { Kind::ActivateMainApplication, {} };
const Action hide { Kind::Hide, {} };
const Action answerEnd { Kind::AnswerEnd, {} };

} // namespace

void PrintTo(const Action& action, std::ostream* out)
{
    static const char* names[] = { "activate", "send", "hide", "replyToQuit", "answerQuery", "answerEnd" };
    *out << names[static_cast<int>(action.kind)];
    if (action.kind == Kind::Send)
        *out << " " << action.command;
    if (action.kind == Kind::ReplyToQuit || action.kind == Kind::AnswerQuery)
        *out << (action.yes ? " yes" : " no");
}

TEST(EndOfSession, AQuitKeepsItsThreeSequences)
{
    EndOfSession agreed;
    EXPECT_EQ(agreed.quit(), (Actions { activate, send("close") }));
    EXPECT_TRUE(agreed.isBusy());
    EXPECT_EQ(agreed.answered(true), (Actions { send("queryendsession") }));
    EXPECT_EQ(agreed.answered(true), (Actions { send("endsession"), send("shutdown") }));
    // The answer of "endsession" is not waited for on its own.
    EXPECT_EQ(agreed.answered(false), Actions {});
    EXPECT_EQ(agreed.answered(false), (Actions { hide, replyToQuit(true) }));
    EXPECT_EQ(agreed.state(), State::Idle);

    EndOfSession refused;
    refused.quit();
    refused.answered(true);
    EXPECT_EQ(refused.answered(false), (Actions { send("endsessioncancel") }));
    EXPECT_EQ(refused.answered(true), (Actions { hide, replyToQuit(false) }));
    // Refused, the launcher may be asked again from the start.
    EXPECT_EQ(refused.quit(), (Actions { activate, send("close") }));

    EndOfSession dialogUp;
    dialogUp.quit();
    EXPECT_EQ(dialogUp.answered(false), (Actions { hide, replyToQuit(false) }));
    EXPECT_EQ(dialogUp.state(), State::Idle);
}

TEST(EndOfSession, TheSessionsQuestionWaitsForItsEndOrCancel)
{
    EndOfSession s;
    EXPECT_EQ(s.queryEnd(), (Actions { send("close") }));
    EXPECT_EQ(s.answered(true), (Actions { send("queryendsession") }));
    // Agreed: the program hears nothing more until the session manager decides.
    EXPECT_EQ(s.answered(true), (Actions { answerQuery(true) }));
    EXPECT_EQ(s.state(), State::SessionAgreed);
    EXPECT_EQ(s.end(), (Actions { send("endsession"), send("shutdown") }));
    s.answered(true);
    EXPECT_EQ(s.answered(true), (Actions { answerEnd }));
    EXPECT_EQ(s.state(), State::SessionEnded);
    // Waiting for the program to end: every question has its answer at once.
    EXPECT_EQ(s.queryEnd(), (Actions { answerQuery(true) }));
    EXPECT_EQ(s.quit(), (Actions { replyToQuit(true) }));

    EndOfSession refused;
    refused.queryEnd();
    refused.answered(true);
    EXPECT_EQ(refused.answered(false), (Actions { answerQuery(false) }));
    EXPECT_EQ(refused.state(), State::SessionRefused);
    EXPECT_EQ(refused.cancel(), (Actions { send("endsessioncancel") }));
    EXPECT_EQ(refused.answered(true), Actions {});
    EXPECT_EQ(refused.state(), State::Idle);
    // A cancel with nothing asked is nothing.
    EXPECT_EQ(refused.cancel(), Actions {});

    // Agreed, then cancelled: the program's question is closed as well.
    EndOfSession cancelled;
    cancelled.queryEnd();
    cancelled.answered(true);
    cancelled.answered(true);
    EXPECT_EQ(cancelled.cancel(), (Actions { send("endsessioncancel") }));

    // A dialog already up: "close" alone, nothing to cancel afterwards.
    EndOfSession dialogUp;
    dialogUp.queryEnd();
    EXPECT_EQ(dialogUp.answered(false), (Actions { answerQuery(false) }));
    EXPECT_EQ(dialogUp.cancel(), Actions {});
    EXPECT_EQ(dialogUp.state(), State::Idle);
}

TEST(EndOfSession, AForcedEndAfterARefusalStillEndsTheProgramTheWindowsWay)
{
    EndOfSession s;
    s.queryEnd();
    s.answered(true);
    s.answered(false);
    EXPECT_EQ(s.end(), (Actions { send("endsession"), send("shutdown") }));
    s.answered(true);
    EXPECT_EQ(s.answered(true), (Actions { answerEnd }));

    // And an end without any question first (a logout forced from the start).
    EndOfSession unasked;
    EXPECT_EQ(unasked.end(), (Actions { send("endsession"), send("shutdown") }));
}

TEST(EndOfSession, AQuitAndTheSessionsQueryShareOneQuestion)
{
    // The session asks while a quit is asking: one answer serves both.
    EndOfSession s;
    s.quit();
    EXPECT_EQ(s.queryEnd(), Actions {});
    EXPECT_EQ(s.answered(true), (Actions { send("queryendsession") }));
    EXPECT_EQ(s.answered(true), (Actions { answerQuery(true), send("endsession"), send("shutdown") }));
    s.answered(true);
    EXPECT_EQ(s.answered(true), (Actions { hide, replyToQuit(true) }));

    // A quit while the session asks, refused: the quit's own cancel closes
    // the program's question; the session's later cancel sends nothing more.
    EndOfSession r;
    r.queryEnd();
    EXPECT_EQ(r.quit(), (Actions { activate }));
    r.answered(true);
    EXPECT_EQ(r.answered(false), (Actions { answerQuery(false), send("endsessioncancel") }));
    EXPECT_EQ(r.answered(true), (Actions { hide, replyToQuit(false) }));
    EXPECT_EQ(r.state(), State::SessionRefused);
    EXPECT_EQ(r.cancel(), Actions {});
    EXPECT_EQ(r.state(), State::Idle);

    // Two queries in a row: one question to the program, one answer.
    EndOfSession twice;
    twice.queryEnd();
    EXPECT_EQ(twice.queryEnd(), Actions {});
    twice.answered(true);
    EXPECT_EQ(twice.answered(true), (Actions { answerQuery(true) }));
    EXPECT_EQ(twice.queryEnd(), (Actions { answerQuery(true) }));
}

TEST(EndOfSession, AQuitAfterTheSessionsQuestionBuildsOnItsAnswer)
{
    // Agreed already: straight to the end.
    EndOfSession agreed;
    agreed.queryEnd();
    agreed.answered(true);
    agreed.answered(true);
    EXPECT_EQ(agreed.quit(), (Actions { activate, send("endsession"), send("shutdown") }));
    agreed.answered(true);
    EXPECT_EQ(agreed.answered(true), (Actions { hide, replyToQuit(true) }));

    // Refused: the old question is closed and the program asked anew (the
    // user may have saved meanwhile).
    EndOfSession refused;
    refused.queryEnd();
    refused.answered(true);
    refused.answered(false);
    EXPECT_EQ(refused.quit(), (Actions { activate, send("endsessioncancel"), send("close") }));
    EXPECT_EQ(refused.answered(true), Actions {}); // endsessioncancel's
    EXPECT_EQ(refused.answered(true), (Actions { send("queryendsession") }));
    EXPECT_EQ(refused.answered(true), (Actions { send("endsession"), send("shutdown") }));
}

TEST(EndOfSession, WhatComesWhileTheProgramAsksItsUserIsTakenAfterwards)
{
    // Cancelled during "Save changes?": no answer is owed any more, and the
    // program's question is closed once it has answered.
    EndOfSession cancelled;
    cancelled.queryEnd();
    cancelled.answered(true);
    EXPECT_EQ(cancelled.cancel(), Actions {});
    EXPECT_EQ(cancelled.answered(true), (Actions { send("endsessioncancel") }));
    EXPECT_EQ(cancelled.answered(true), Actions {});
    EXPECT_EQ(cancelled.state(), State::Idle);

    // Ended during "Save changes?" (the session manager stopped waiting):
    // the answer goes out, then the end.
    EndOfSession ended;
    ended.queryEnd();
    ended.answered(true);
    EXPECT_EQ(ended.end(), Actions {});
    EXPECT_EQ(ended.answered(false), (Actions { answerQuery(false), send("endsession"), send("shutdown") }));

    // A quit refused by the program while the session's end waits: the quit
    // is cancelled and the session still ends.
    EndOfSession quitThenEnd;
    quitThenEnd.quit();
    quitThenEnd.answered(true);
    quitThenEnd.end();
    EXPECT_EQ(quitThenEnd.answered(false),
              (Actions { hide, replyToQuit(false), send("endsession"), send("shutdown") }));
    quitThenEnd.answered(true);
    EXPECT_EQ(quitThenEnd.answered(true), (Actions { answerEnd }));

    // A second quit waits for the first's cancel to be done.
    EndOfSession again;
    again.quit();
    again.answered(true);
    again.answered(false);
    EXPECT_EQ(again.state(), State::Cancelling);
    EXPECT_EQ(again.quit(), Actions {});
    EXPECT_EQ(again.answered(true), (Actions { hide, replyToQuit(false), activate, send("close") }));
}

TEST(EndOfSession, AProgramThatEndsByItselfMeanwhileLetsTheSessionEnd)
{
    // The tool may answer no once the program is gone: the program has
    // ended all the same, so the session may end.
    EndOfSession s;
    s.queryEnd();
    s.programEnded();
    EXPECT_EQ(s.answered(false), (Actions { send("queryendsession") }));
    EXPECT_EQ(s.answered(false), (Actions { answerQuery(true) }));

    // The launcher ending owes the session manager its answers.
    EndOfSession owed;
    owed.queryEnd();
    EXPECT_EQ(owed.launcherEnds(), (Actions { answerQuery(true) }));
    EXPECT_EQ(owed.state(), State::Idle);
    EndOfSession ending;
    ending.end();
    EXPECT_EQ(ending.launcherEnds(), (Actions { answerEnd }));
    EXPECT_EQ(EndOfSession().launcherEnds(), Actions {});
}

TEST(EndOfSession, StrayAnswersChangeNothing)
{
    EndOfSession s;
    EXPECT_EQ(s.answered(true), Actions {});
    EXPECT_EQ(s.state(), State::Idle);
    s.queryEnd();
    s.answered(true);
    s.answered(true);
    EXPECT_EQ(s.answered(true), Actions {});
    EXPECT_EQ(s.state(), State::SessionAgreed);
}
