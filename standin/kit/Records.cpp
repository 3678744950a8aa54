#include "standin/kit/Records.hpp"

#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {
    std::string joined(std::string first, const std::vector<std::string>& words)
    {
        for (const auto& word : words)
            first += " " + word;
        return first;
    }
} // namespace

RecordReader::RecordReader(std::filesystem::path socket)
    : m_path(std::move(socket))
    , m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    , m_stop(eventfd(0, EFD_CLOEXEC))
    , m_buffer(1 << 18)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (m_path.string().size() >= sizeof address.sun_path)
        throw std::runtime_error("socket path too long: " + m_path.string());
    std::strcpy(address.sun_path, m_path.c_str());
    if (!m_socket || !m_stop || bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot receive records at " + m_path.string() + ": " + std::strerror(errno));
    m_thread = std::thread([this] {
        pollfd descriptors[] = { { m_socket.get(), POLLIN, 0 }, { m_stop.get(), POLLIN, 0 } };
        while (poll(descriptors, 2, -1) >= 0 || errno == EINTR) {
            if (descriptors[1].revents)
                return;
            receive();
            g_main_context_wakeup(nullptr);
        }
    });
}

RecordReader::~RecordReader()
{
    uint64_t one = 1;
    writeAll(m_stop.get(), &one, sizeof one);
    m_thread.join();
    std::filesystem::remove(m_path);
}

void RecordReader::receive() const
{
    std::lock_guard lock(m_mutex);
    ssize_t count;
    while ((count = recv(m_socket.get(), m_buffer.data(), m_buffer.size(), 0)) > 0)
        m_records.push_back(standin::Record::decode({ m_buffer.data(), static_cast<size_t>(count) }));
}

std::vector<standin::Record> RecordReader::all(const std::string& kind) const
{
    // What has been sent but not yet taken in by the thread counts too: a
    // stand-in records before it answers.
    receive();
    std::lock_guard lock(m_mutex);
    std::vector<standin::Record> found;
    for (const auto& record : m_records) {
        if (record.kind == kind)
            found.push_back(record);
    }
    return found;
}

std::vector<ToolRecord> RecordReader::tools(const std::string& role) const
{
    std::vector<ToolRecord> tools;
    for (const auto& record : all("tool")) {
        if (!role.empty() && record.value("role") != role)
            continue;
        ToolRecord& tool = tools.emplace_back(ToolRecord { .role = record.value("role"),
                                                           .pid = std::stoi(record.value("pid")),
                                                           .parent = std::stoi(record.value("ppid")),
                                                           .argv = record.values("arg"),
                                                           .environment = {},
                                                           .directory = record.value("cwd"),
                                                           .standardInput = record.value("stdin"),
                                                           .standardOutput = record.value("stdout"),
                                                           .standardError = record.value("stderr") });
        for (const auto& entry : record.values("env")) {
            size_t equals = entry.find('=');
            tool.environment[entry.substr(0, equals)] = equals == std::string::npos ? "" : entry.substr(equals + 1);
        }
    }
    return tools;
}

bool RecordReader::waitForTools(size_t count, const std::string& role, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return tools(role).size() >= count; }, timeout);
}

std::optional<ToolEnding> RecordReader::ending(pid_t pid) const
{
    for (const auto& record : all("tool-end")) {
        if (record.value("pid") == std::to_string(pid))
            return ToolEnding { std::atoi(record.value("signal").c_str()), std::atoi(record.value("sender").c_str()) };
    }
    return std::nullopt;
}

std::vector<std::string> RecordReader::requests() const
{
    std::vector<std::string> lines;
    for (const auto& record : all("request"))
        lines.push_back(record.value("line"));
    return lines;
}

std::vector<std::string> RecordReader::commandTexts() const
{
    std::vector<std::string> texts;
    for (std::string line : requests()) {
        if (line.ends_with('\n'))
            line.pop_back();
        size_t text = line.find(" -a ");
        texts.push_back(text == std::string::npos ? line : line.substr(text + 4));
    }
    return texts;
}

bool RecordReader::waitForRequests(size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return all("request").size() >= count; }, timeout);
}

std::vector<std::string> RecordReader::mainAppEvents() const
{
    std::vector<std::string> events;
    for (const auto& record : all("main-app"))
        events.push_back(joined(record.value("event"), record.values("arg")));
    return events;
}

std::vector<ServerCall> RecordReader::serverCalls() const
{
    std::vector<ServerCall> calls;
    for (const auto& record : all("call")) {
        std::string call = joined(record.value("method"), record.values("argument"));
        if (record.value("reply") == "expected")
            call += " expecting-reply";
        calls.push_back({ std::stoll(record.value("ms")), call });
    }
    return calls;
}

} // namespace vt::test
