#include "standin/kit/Records.hpp"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {
    std::string textOf(const standin::Record& record)
    {
        std::string text;
        for (const auto& [name, value] : record.fields) {
            if (name != "pid" && name != "ms" && name != "started")
                text += (text.empty() ? "" : " ") + value;
        }
        return text;
    }

    std::map<std::string, std::string> environmentOf(const standin::Record& record)
    {
        std::map<std::string, std::string> environment;
        for (const auto& entry : record.values("env")) {
            size_t equals = entry.find('=');
            environment[entry.substr(0, equals)] = equals == std::string::npos ? "" : entry.substr(equals + 1);
        }
        return environment;
    }

    std::optional<WineDescriptor> wineDescriptor(const standin::Record& record, const std::string& field)
    {
        if (record.values(field).empty())
            return std::nullopt;
        return WineDescriptor { record.value(field), record.value(field + "-open") == "yes",
                                record.value(field + "-cloexec") == "yes" };
    }
} // namespace

RecordReader::RecordReader(std::filesystem::path socket)
    : m_path(std::move(socket))
    , m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    , m_stop(eventfd(0, EFD_CLOEXEC))
{
    sockaddr_un address { .sun_family = AF_UNIX, .sun_path = {} };
    if (m_path.string().size() >= sizeof address.sun_path)
        throw std::runtime_error("socket path too long: " + m_path.string());
    std::strcpy(address.sun_path, m_path.c_str());
    if (!m_socket || !m_stop || bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot receive records at " + m_path.string() + ": " + std::strerror(errno));
    m_thread = std::thread([this] {
        pollfd descriptors[] = { { m_socket.get(), POLLIN, 0 }, { m_stop.get(), POLLIN, 0 } };
        while ((poll(descriptors, 2, -1) >= 0 || errno == EINTR) && !descriptors[1].revents) {
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
    // What was sent but not yet taken in by the thread counts too: the
    // stand-ins record before they answer.
    receive();
    std::lock_guard lock(m_mutex);
    std::vector<standin::Record> found;
    std::copy_if(m_records.begin(), m_records.end(), std::back_inserter(found),
                 [&](const standin::Record& record) { return record.kind == kind; });
    return found;
}

std::vector<std::string> RecordReader::texts(const std::string& kind) const
{
    std::vector<std::string> texts;
    for (const auto& record : all(kind))
        texts.push_back(textOf(record));
    return texts;
}

std::vector<int64_t> RecordReader::times(const std::string& kind, const std::string& text) const
{
    std::vector<int64_t> times;
    for (const auto& record : all(kind)) {
        if (textOf(record) == text)
            times.push_back(std::stoll(record.value("ms")));
    }
    return times;
}

bool RecordReader::waitFor(const std::string& kind, size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return all(kind).size() >= count; }, timeout);
}

std::vector<ToolRecord> RecordReader::tools(const std::string& role) const
{
    std::vector<ToolRecord> tools;
    for (const auto& record : all("tool")) {
        if (!role.empty() && record.value("role") != role)
            continue;
        tools.push_back({ record.value("role"), std::stoi(record.value("pid")), record.values("arg"),
                          environmentOf(record), record.value("cwd"), record.value("stdin"),
                          record.value("stdout"), record.values("fd"),
                          std::strtoll(record.value("started").c_str(), nullptr, 10) });
    }
    return tools;
}

bool RecordReader::waitForTools(size_t count, const std::string& role, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return tools(role).size() >= count; }, timeout);
}

std::optional<pid_t> RecordReader::endedBy(pid_t pid) const
{
    for (const auto& record : all("tool-end")) {
        if (record.value("pid") == std::to_string(pid))
            return std::atoi(record.value("sender").c_str());
    }
    return std::nullopt;
}

std::vector<WineInitRecord> RecordReader::wineInits() const
{
    std::vector<WineInitRecord> inits;
    for (const auto& record : all("wine-init")) {
        inits.push_back({ std::stoi(record.value("pid")), record.values("arg"), environmentOf(record),
                          record.value("cwd"), record.value("stdin"), record.value("stdout"),
                          record.value("stderr"), wineDescriptor(record, "server-socket"),
                          wineDescriptor(record, "wait-child-pipe"), record.value("main-thread") == "yes",
                          record.value("controller") });
    }
    return inits;
}

std::vector<std::string> RecordReader::commandTexts() const
{
    std::vector<std::string> commands;
    for (const auto& record : all("request")) {
        std::string line = record.value("line");
        size_t text = line.find(" -a ");
        commands.push_back(line.substr(text == std::string::npos ? 0 : text + 4));
        if (commands.back().ends_with('\n'))
            commands.back().pop_back();
    }
    return commands;
}

} // namespace vt::test
