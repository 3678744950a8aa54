#include "standin/kit/StandinTools.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "standin/kit/TestSupport.hpp"

namespace vt::test {

namespace {

    constexpr const char* Roles[] = { "vtmenu", "vtstart", "wine" };

    std::string fromHex(const std::string& text)
    {
        std::string bytes;
        for (size_t i = 0; i + 1 < text.size(); i += 2)
            bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
        return bytes;
    }

    ToolRecord parseRecord(const std::string& text)
    {
        ToolRecord record;
        std::istringstream lines(text);
        std::string line;
        while (std::getline(lines, line)) {
            size_t space = line.find(' ');
            std::string key = line.substr(0, space);
            std::string value = space == std::string::npos ? "" : line.substr(space + 1);
            if (key == "role")
                record.role = value;
            else if (key == "pid")
                record.pid = std::stoi(value);
            else if (key == "ppid")
                record.parent = std::stoi(value);
            else if (key == "monotonic-ns")
                record.monotonicNs = std::stoll(value);
            else if (key == "realtime-ms")
                record.realtimeMs = std::stoll(value);
            else if (key == "arg")
                record.argv.push_back(fromHex(value));
            else if (key == "env") {
                std::string entry = fromHex(value);
                size_t equals = entry.find('=');
                record.environment[entry.substr(0, equals)] =
                    equals == std::string::npos ? "" : entry.substr(equals + 1);
            } else if (key == "cwd")
                record.directory = fromHex(value);
            else if (key == "stdin")
                record.standardInput = value;
            else if (key == "stdout")
                record.standardOutput = value;
            else if (key == "stderr")
                record.standardError = value;
        }
        return record;
    }

    bool hasSuffix(const std::string& text, const std::string& suffix)
    {
        return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
    }

    // Gone, or a zombie that nobody has reaped yet: either way it runs no more.
    bool processGone(pid_t pid)
    {
        if (kill(pid, 0) != 0 && errno == ESRCH)
            return true;
        std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
        size_t close = stat.rfind(')');
        return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
    }

    void writeAtomically(const std::filesystem::path& path, const std::string& contents)
    {
        std::filesystem::path temporary = path;
        temporary += ".tmp";
        writeFile(temporary, contents);
        std::filesystem::rename(temporary, path);
    }

} // namespace

StandinTools::StandinTools(std::filesystem::path directory) : m_directory(std::move(directory))
{
    std::filesystem::create_directories(m_directory);
}

StandinTools::~StandinTools()
{
    try {
        endAll();
        for (const ToolRecord& record : records())
            waitUntil([&] { return ending(record.pid) || processGone(record.pid); }, 5s);
    } catch (...) {
        // The directory went first; the tools notice that and end by themselves.
    }
}

std::filesystem::path StandinTools::toolBinary() { return std::filesystem::path(VT_STANDIN_DIR) / "vt-standin-tool"; }

std::filesystem::path StandinTools::install(const std::filesystem::path& mainAppBundle) const
{
    std::filesystem::path bin = mainAppBundle / "Contents" / "SharedSupport" / "Vantor" / "bin";
    std::filesystem::create_directories(bin);
    for (const char* role : Roles) {
        std::filesystem::remove(bin / role);
        std::filesystem::create_symlink(toolBinary(), bin / role);
    }
    return bin;
}

std::map<std::string, std::string> StandinTools::variables() const
{
    std::map<std::string, std::string> variables {
        { "VT_STANDIN_TOOLS_DIR", m_directory.string() },
        { "PATH", "/usr/local/bin:/usr/bin:/bin" },
        { "LANG", "C.UTF-8" },
    };
    // Sanitizer builds of the tools must run as this test runs.
    for (const char* name : { "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS" }) {
        if (const char* value = std::getenv(name))
            variables[name] = value;
    }
    return variables;
}

std::filesystem::path StandinTools::writeServerEnvironment(const std::filesystem::path& file,
                                                           const std::map<std::string, std::string>& extra) const
{
    std::map<std::string, std::string> all = variables();
    for (const auto& [name, value] : extra)
        all[name] = value;
    std::string text;
    for (const auto& [name, value] : all) {
        if (value.find('\n') != std::string::npos)
            throw std::invalid_argument("the helper server's dictionary file holds one line per variable: " + name);
        text += name + "=" + value + "\n";
    }
    writeFile(file, text);
    return file;
}

std::vector<ToolRecord> StandinTools::records() const
{
    std::vector<ToolRecord> records;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory, error)) {
        if (hasSuffix(entry.path().filename().string(), ".record"))
            records.push_back(parseRecord(readFile(entry.path())));
    }
    std::sort(records.begin(), records.end(), [](const ToolRecord& a, const ToolRecord& b) {
        return a.monotonicNs != b.monotonicNs ? a.monotonicNs < b.monotonicNs : a.pid < b.pid;
    });
    return records;
}

std::vector<ToolRecord> StandinTools::records(const std::string& role) const
{
    std::vector<ToolRecord> all = records();
    std::erase_if(all, [&](const ToolRecord& record) { return record.role != role; });
    return all;
}

bool StandinTools::waitForRecords(size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return records().size() >= count; }, timeout);
}

bool StandinTools::waitForRecords(const std::string& role, size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return records(role).size() >= count; }, timeout);
}

std::filesystem::path StandinTools::recordOf(pid_t pid, const std::string& suffix) const
{
    for (const char* role : Roles) {
        std::filesystem::path stem = m_directory / (std::string(role) + "-" + std::to_string(pid));
        if (std::filesystem::exists(std::filesystem::path(stem) += ".record"))
            return stem += suffix;
    }
    throw std::invalid_argument("no stand-in tool with pid " + std::to_string(pid) + " has started");
}

void StandinTools::end(pid_t pid, int status) const { writeAtomically(recordOf(pid, ".end"), std::to_string(status)); }

void StandinTools::endAll(int status) const { writeAtomically(m_directory / "end-all", std::to_string(status)); }

std::optional<std::string> StandinTools::ending(pid_t pid) const
{
    std::filesystem::path file = recordOf(pid, ".exit");
    if (!std::filesystem::exists(file))
        return std::nullopt;
    std::string text = readFile(file);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

bool StandinTools::waitForEnding(pid_t pid, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return ending(pid).has_value(); }, timeout);
}

void StandinTools::setAnswer(const std::string& command, const std::string& answer)
{
    m_answers[command] = answer;
    writeAnswers();
}

void StandinTools::clearAnswers()
{
    m_answers.clear();
    writeAnswers();
}

void StandinTools::writeAnswers() const
{
    std::string text;
    for (const auto& [command, answer] : m_answers)
        text += command + "=" + answer + "\n";
    // Whole or not at all: the tool reads the script for every request.
    writeAtomically(m_directory / "sendwndcmd.answers", text);
}

std::vector<std::string> StandinTools::commands() const
{
    std::string text = readFile(m_directory / "sendwndcmd.commands");
    std::vector<std::string> lines;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

std::vector<std::string> StandinTools::commandTexts() const
{
    std::vector<std::string> texts;
    for (std::string line : commands()) {
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        size_t text = line.find(" -a ");
        texts.push_back(text == std::string::npos ? line : line.substr(text + 4));
    }
    return texts;
}

bool StandinTools::waitForCommands(size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return commands().size() >= count; }, timeout);
}

} // namespace vt::test
