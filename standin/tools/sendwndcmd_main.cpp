// vt-standin-sendwndcmd: the Windows-side window-command tool. The stand-in
// wine execs it (same process id) when the launcher opens its window-command
// channel; it talks on standard input and output, which are the launcher's
// pipes.
//
// Requests, one per line from the launcher:
//   -t <tag> -c <id> -a <command text to the end of the line>\n
// Each request is sent as a request record (standin/record/Record.hpp) with
// its bytes exactly as they arrived, line end included, as soon as the line
// is complete and before it is answered. A partial line left at the end of
// input is recorded too, without a line end, and not answered.
//
// Answers: for each request the script that VT_STANDIN_ANSWERS names is read
// anew. Its lines are "<key>=<answer>", where <key> is the first word of a
// command text ("close=0", "queryendsession=1", "activatesystray=1"); the
// first line with the request's key counts; without one the answer is 1.
//   <n>            "<id>:<n>\n" in one write
//   exit           no answer: the tool exits with status 0 (the tool is gone)
//   half           the first half of "<id>:1\n" (cut inside the identifier),
//                  then the tool exits with status 0 (it dies mid-answer)
//   silent         no answer; the tool goes on reading (a hung tool)
// A line that is not a request gets "?:0\n".
//
// It waits on its input and on SIGTERM and SIGINT (ToolSupport.hpp) alone. At
// the end of its input (the launcher has closed the channel or gone) it
// exits with status 0; like every tool it records its end, as wine.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include <poll.h>
#include <unistd.h>

#include "standin/record/Record.hpp"
#include "standin/tools/ToolSupport.hpp"

namespace {

struct Request {
    std::string id;
    std::string text;
};

std::optional<Request> parseRequest(const std::string& line)
{
    if (line.rfind("-t ", 0) != 0)
        return std::nullopt;
    size_t idStart = line.find(" -c ", 3);
    if (idStart == std::string::npos)
        return std::nullopt;
    idStart += 4;
    size_t textStart = line.find(" -a ", idStart);
    if (textStart == std::string::npos)
        return std::nullopt;
    return Request { line.substr(idStart, textStart - idStart), line.substr(textStart + 4) };
}

std::string scriptedAnswer(const std::string& text)
{
    const char* script = std::getenv("VT_STANDIN_ANSWERS");
    std::ifstream lines(script ? script : "");
    std::string key = text.substr(0, text.find(' '));
    for (std::string line; std::getline(lines, line);) {
        size_t equals = line.find('=');
        if (equals != std::string::npos && line.compare(0, equals, key) == 0)
            return line.substr(equals + 1);
    }
    return "1";
}

void record(const std::string& line) { vt::standin::send(vt::standin::Record("request").add("line", line)); }

// Answers one complete request line (line end included).
void answer(const std::string& line)
{
    record(line);
    std::string reply = "?:0\n";
    if (auto request = parseRequest(line.substr(0, line.size() - 1))) {
        std::string scripted = scriptedAnswer(request->text);
        if (scripted == "exit")
            vt::standin::endWithReason("wine", "scripted exit");
        if (scripted == "silent")
            return;
        if (scripted == "half") {
            std::string whole = request->id + ":1\n";
            if (write(STDOUT_FILENO, whole.data(), whole.size() / 2) < 0)
                vt::standin::endWithReason("wine", "the launcher is gone");
            vt::standin::endWithReason("wine", "scripted death mid-answer");
        }
        reply = request->id + ":" + scripted + "\n";
    }
    // One write per answer: the launcher takes a single read as the whole answer.
    if (write(STDOUT_FILENO, reply.data(), reply.size()) < 0)
        vt::standin::endWithReason("wine", "the launcher is gone");
}

} // namespace

int main()
{
    vt::standin::EndSignals signals;
    // A launcher that has gone shows up as a failed write, not a signal.
    std::signal(SIGPIPE, SIG_IGN);
    std::string pending;
    for (;;) {
        pollfd descriptors[] = { { STDIN_FILENO, POLLIN, 0 }, { signals.fd(), POLLIN, 0 } };
        if (poll(descriptors, 2, -1) < 0)
            continue;
        if (descriptors[1].revents)
            signals.endWithSignal("wine");
        if (!descriptors[0].revents)
            continue;
        char buffer[4096];
        ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            if (!pending.empty())
                record(pending);
            vt::standin::endWithReason("wine", "end of input");
        }
        pending.append(buffer, static_cast<size_t>(count));
        for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
            std::string line = pending.substr(0, end + 1);
            pending.erase(0, end + 1);
            answer(line);
        }
    }
}
