// The window-command channel to the Windows side: a long-running tool
// ("sendwndcmd" under the product's wine) that reads one request line per
// command on its standard input and writes one answer per command on its
// standard output. Commands address the windows tagged with this launcher's
// window tag.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/MainLoop.hpp"
#include "base/NotificationCenter.hpp"
#include "integration/TrayIconEntry.hpp"
#include "source/VTTask.hpp"

namespace vt {

// This launcher's window tag: its process id. The Windows side finds it in
// VT_WINDOW_TAG; every window command and every raise request carries it.
int windowTag();

// The tool's argument list for the product's wine; it ends early without a
// bottle name.
std::vector<std::string> windowCommandToolArguments(const std::optional<std::string>& bottleName);

// One request: "-t <tag> -c <identifier> -a <text>\n", the text as it stands.
std::string windowCommandRequest(int tag, std::string_view identifier, std::string_view text);

// The answer to the command `identifier`, read as one piece: "<identifier>:<n>"
// (a line end after n allowed) gives whether n, read as a leading integer, is
// not 0. Anything else is a mismatch and gives nothing: another identifier, a
// second colon, two answers in one piece or half of one.
std::optional<bool> parseWindowCommandAnswer(std::string_view answer, std::string_view identifier);

// "activatesystray -h <hwnd> -m <callbackmessage> -s <id>": a click on a tray icon.
std::string activateSystrayCommand(const TrayIconEntry& icon);

// The channel itself. Commands go strictly one at a time, in the order they
// were sent: the next request is written only once the previous answer has
// come. Waiting never blocks the main loop: while the program asks its user
// "Save changes?" (the tool waits for the program's answer) the launcher
// goes on serving the desktop.
class WindowCommandChannel {
public:
    // Whether the tool confirmed the command.
    using Answered = std::function<void(bool confirmed)>;

    // `toolEnded` runs on the main thread when the tool's process has ended,
    // after the channel has let go of it.
    explicit WindowCommandChannel(std::function<void()> toolEnded);
    WindowCommandChannel(const WindowCommandChannel&) = delete;
    WindowCommandChannel& operator=(const WindowCommandChannel&) = delete;

    // Launches the tool's task (made but not launched; a previous one is let
    // go) with pipes on its standard input and output. False, logged, when it
    // cannot run: the launcher then runs without the channel.
    bool start(std::unique_ptr<VTTask> task);

    // Queues one command; `answered` (may be empty) runs from the main loop,
    // never inside this call: true when the tool confirms it, without limit
    // in time. False without a tool or its pipes (nothing is written then),
    // when the request cannot be written (the tool has gone or closed its
    // input; nothing is read then), and on a mismatch (an answer cut short,
    // or none because the tool ended); the last two are logged. One read is
    // the whole answer.
    void sendMessageToTaggedWindows(const std::string& text, Answered answered = {});

    // A command waits for its answer or for its turn.
    bool isBusy() const { return m_inFlight.has_value() || !m_queue.empty(); }

    const VTTask* task() const { return m_task.get(); }
    // The tool's end is no longer reported (the launcher is ending).
    void stopObservingEnd() { m_taskEnded.reset(); }

private:
    struct Command {
        std::string text;
        Answered answered;
    };
    struct InFlight {
        Command command;
        std::string identifier;
    };

    // Writes the next queued command while none is in flight.
    void sendNext();
    // The answer to the command in flight, read once; `ended` when the tool
    // has gone and no more will come.
    void takeAnswer(bool ended);
    // Hands `confirmed` to `command` from the main loop.
    void answerLater(Command command, bool confirmed);
    void toolHasEnded();

    std::function<void()> m_toolEnded;
    std::unique_ptr<VTTask> m_task;
    Observation m_taskEnded;
    std::deque<Command> m_queue;
    std::optional<InFlight> m_inFlight;
    UnixFdSource m_answerWatch;
    DelayedCalls m_answers;
    // Identifies commands; only grows, over the whole process.
    int32_t m_commandID = 0;
};

} // namespace vt
