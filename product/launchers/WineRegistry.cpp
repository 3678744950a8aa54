#include "product/launchers/WineRegistry.hpp"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <set>
#include <sstream>

#include "product/common/AsciiText.hpp"

namespace vt::product {

namespace {
    // Reads an escaped string from `text` at `at` up to the unescaped
    // `end` character; `at` is left after it. Nothing when it never ends.
    std::optional<std::string> unescape(std::string_view text, size_t& at, char end)
    {
        static const std::string_view named = "abtnvfre";
        static const char values[] = { 7, 8, 9, 10, 11, 12, 13, 27 };
        std::string out;
        while (at < text.size()) {
            char c = text[at++];
            if (c == end)
                return out;
            if (c != '\\' || at >= text.size()) {
                out += c;
                continue;
            }
            char next = text[at++];
            if (size_t index = named.find(next); index != std::string_view::npos) {
                out += values[index];
            } else if (next == 'x') {
                uint32_t unit = 0;
                int digits = 0;
                while (digits < 4 && at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at]))) {
                    char d = static_cast<char>(std::tolower(static_cast<unsigned char>(text[at++])));
                    unit = unit * 16 + static_cast<uint32_t>(d <= '9' ? d - '0' : d - 'a' + 10);
                    ++digits;
                }
                appendUtf8(out, unit);
            } else if (next >= '0' && next <= '7') {
                uint32_t unit = static_cast<uint32_t>(next - '0');
                for (int digits = 1; digits < 3 && at < text.size() && text[at] >= '0' && text[at] <= '7'; ++digits)
                    unit = unit * 8 + static_cast<uint32_t>(text[at++] - '0');
                appendUtf8(out, unit);
            } else {
                out += next; // \\, \", \[, \]
            }
        }
        return std::nullopt;
    }

    std::string expandWindowsVariables(std::string path)
    {
        static const std::pair<std::string_view, std::string_view> variables[] = {
            { "%systemroot%", "C:\\windows" },
            { "%windir%", "C:\\windows" },
            { "%programfiles%", "C:\\Program Files" },
        };
        for (const auto& [name, value] : variables) {
            std::string lowered = lowerAscii(path);
            if (size_t at = lowered.find(name); at != std::string::npos)
                path.replace(at, name.size(), value);
        }
        return path;
    }
} // namespace

RegistryFile RegistryFile::read(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw RegistryError("cannot read " + file.string());
    std::ostringstream text;
    text << in.rdbuf();
    return parse(text.str());
}

RegistryFile RegistryFile::parse(std::string_view text)
{
    if (!text.starts_with("WINE REGISTRY Version 2"))
        throw RegistryError("not a Wine registry file (no \"WINE REGISTRY Version 2\" line)");
    RegistryFile registry;
    Key* current = nullptr;
    size_t lineStart = 0;
    while (lineStart < text.size()) {
        size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string_view::npos)
            lineEnd = text.size();
        std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;
        size_t at = 1;
        if (line.starts_with("[")) {
            std::optional<std::string> name = unescape(line, at, ']');
            current = nullptr;
            if (name) {
                Key& key = registry.m_keys[lowerAscii(*name)];
                key.name = *name;
                current = &key;
            }
            continue;
        }
        if (!current)
            continue;
        std::string valueName;
        if (line.starts_with("@=")) {
            at = 2;
        } else if (line.starts_with("\"")) {
            std::optional<std::string> name = unescape(line, at, '"');
            if (!name || at >= line.size() || line[at] != '=')
                continue;
            valueName = *name;
            ++at;
        } else {
            continue;
        }
        std::string_view rest = line.substr(at);
        if (rest.starts_with("str(2):"))
            at += 7;
        else if (!rest.starts_with("\""))
            continue; // a number or bytes
        if (at >= line.size() || line[at] != '"')
            continue;
        ++at;
        if (std::optional<std::string> value = unescape(line, at, '"'))
            current->values[lowerAscii(valueName)] = *value;
    }
    return registry;
}

std::optional<std::string> RegistryFile::value(std::string_view key, std::string_view name) const
{
    auto found = m_keys.find(lowerAscii(key));
    if (found == m_keys.end())
        return std::nullopt;
    auto value = found->second.values.find(lowerAscii(name));
    if (value == found->second.values.end())
        return std::nullopt;
    return value->second;
}

std::vector<std::string> RegistryFile::subkeys(std::string_view key) const
{
    // A key below may be written without the keys between.
    std::string prefix = lowerAscii(key) + "\\";
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (auto it = m_keys.lower_bound(prefix); it != m_keys.end() && it->first.starts_with(prefix); ++it) {
        std::string_view rest = std::string_view(it->second.name).substr(prefix.size());
        std::string name(rest.substr(0, rest.find('\\')));
        if (seen.insert(lowerAscii(name)).second)
            names.push_back(name);
    }
    return names;
}

std::string programOfCommand(std::string_view command)
{
    size_t start = command.find_first_not_of(" \t");
    if (start == std::string_view::npos)
        return {};
    command.remove_prefix(start);
    if (command.starts_with("\"")) {
        size_t end = command.find('"', 1);
        return std::string(command.substr(1, end == std::string_view::npos ? std::string_view::npos : end - 1));
    }
    std::string lowered = lowerAscii(command);
    if (size_t exe = lowered.find(".exe"); exe != std::string::npos
        && (exe + 4 == lowered.size() || lowered[exe + 4] == ' ' || lowered[exe + 4] == '\t'))
        return std::string(command.substr(0, exe + 4));
    return std::string(command.substr(0, command.find_first_of(" \t")));
}

std::vector<std::string> extensionsOpenedBy(const RegistryFile& machine, const RegistryFile& user,
                                            const std::string& program)
{
    const std::string wanted = lowerAscii(expandWindowsVariables(program));
    auto classValue = [&](const std::string& key) {
        std::optional<std::string> found = user.value(key);
        return found ? found : machine.value(key);
    };
    std::set<std::string> extensions;
    for (const RegistryFile* file : { &user, &machine }) {
        for (const std::string& name : file->subkeys("Software\\Classes")) {
            if (!name.starts_with(".") || name.size() < 2)
                continue;
            std::optional<std::string> progId = classValue("Software\\Classes\\" + name);
            if (!progId || progId->empty())
                continue;
            std::optional<std::string> command = classValue("Software\\Classes\\" + *progId + "\\shell\\open\\command");
            if (command && lowerAscii(expandWindowsVariables(programOfCommand(*command))) == wanted)
                extensions.insert(lowerAscii(name));
        }
    }
    return { extensions.begin(), extensions.end() };
}

} // namespace vt::product
