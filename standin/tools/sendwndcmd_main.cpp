// vt-standin-sendwndcmd: the Windows-side window-command tool. The stand-in
// wine execs it (same process id) when the launcher opens its window-command
// channel; it talks on standard input and output, which are the launcher's
// pipes.
//
// Requests, one per line from the launcher:
//   -t <tag> -c <id> -a <command text to the end of the line>\n
// Each request line is appended, exactly as it arrived (line end included),
// to <directory>/sendwndcmd.commands with one write as soon as it is
// complete, so a test sees the bytes the launcher sent. A partial line left
// at the end of input is appended too, without a line end, and not answered.
//
// Answers: for each request the test's script <directory>/sendwndcmd.answers
// is read anew. Its lines are "<key>=<answer>", where <key> is the first word
// of a command text ("close=0", "queryendsession=1", "activatesystray=1");
// the first line with the request's key counts; without one the answer is 1.
//   <n>            "<id>:<n>\n" in one write
//   raw:<text>     <text> verbatim instead, in one write, with \n standing for
//                  a line end, \\ for a backslash and {id} for the request's
//                  id ("raw:{id}:1:x", "raw:helperDelegateCommand7:1")
//   exit           no answer: the tool exits with status 0 (the tool is gone)
//   silent         no answer; the tool goes on reading (a hung tool)
// A line that is not a request gets "?:0\n".
//
// It exits with status 0 at the end of its input (the launcher has closed the
// channel or gone), and otherwise as every stand-in tool does (ToolSupport.hpp),
// under the name wine: <directory>/wine-<pid>.end, end-all, SIGTERM.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

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

std::string scriptedAnswer(const std::string& directory, const std::string& text)
{
    std::string key = text.substr(0, text.find(' '));
    std::ifstream script(directory + "/sendwndcmd.answers");
    std::string line;
    while (std::getline(script, line)) {
        size_t equals = line.find('=');
        if (equals != std::string::npos && line.compare(0, equals, key) == 0)
            return line.substr(equals + 1);
    }
    return "1";
}

std::string expandRaw(const std::string& text, const std::string& id)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 4, "{id}") == 0) {
            bytes += id;
            i += 3;
        } else if (text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == 'n' || text[i + 1] == '\\')) {
            bytes += text[i + 1] == 'n' ? '\n' : '\\';
            ++i;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

void appendCommand(const std::string& directory, const std::string& line)
{
    int fd = open((directory + "/sendwndcmd.commands").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    ssize_t written = write(fd, line.data(), line.size());
    (void)written;
    close(fd);
}

class WindowCommandTool {
public:
    explicit WindowCommandTool(std::string directory) : m_directory(directory), m_watch(std::move(directory), "wine")
    {
        // A launcher that has gone shows up as a failed write, not a signal.
        signal(SIGPIPE, SIG_IGN);
    }

    [[noreturn]] void run()
    {
        std::string pending;
        for (;;) {
            m_watch.exitIfDue();
            struct pollfd input { STDIN_FILENO, POLLIN, 0 };
            if (poll(&input, 1, 10) <= 0)
                continue;
            char buffer[4096];
            ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0) {
                if (!pending.empty())
                    appendCommand(m_directory, pending);
                m_watch.exit(0);
            }
            pending.append(buffer, static_cast<size_t>(count));
            for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
                std::string line = pending.substr(0, end + 1);
                pending.erase(0, end + 1);
                answer(line);
            }
        }
    }

private:
    void answer(const std::string& line)
    {
        appendCommand(m_directory, line);
        std::string reply = "?:0\n";
        if (auto request = parseRequest(line.substr(0, line.size() - 1))) {
            std::string scripted = scriptedAnswer(m_directory, request->text);
            if (scripted == "exit")
                m_watch.exit(0);
            if (scripted == "silent")
                return;
            if (scripted.rfind("raw:", 0) == 0)
                reply = expandRaw(scripted.substr(4), request->id);
            else
                reply = request->id + ":" + scripted + "\n";
        }
        if (reply.empty())
            return;
        // One write per answer: the launcher takes a single read as the whole answer.
        if (write(STDOUT_FILENO, reply.data(), reply.size()) < 0)
            m_watch.exit(0);
    }

    std::string m_directory;
    vt::standin::EndWatch m_watch;
};

} // namespace

int main()
{
    WindowCommandTool(vt::standin::toolsDirectoryOrExit("sendwndcmd")).run();
}
