#include "product/tools/ToolCommand.hpp"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <span>

#include <unistd.h>

#include "product/common/ProductPaths.hpp"
#include "product/common/StartMenu.hpp"

namespace vt::product {

namespace fs = std::filesystem;

namespace {
    using Arguments = std::span<const std::string>;

    bool startsWith(Arguments arguments, std::initializer_list<const char*> words)
    {
        return arguments.size() >= words.size() && std::equal(words.begin(), words.end(), arguments.begin());
    }

    std::vector<std::string> toVector(Arguments arguments) { return { arguments.begin(), arguments.end() }; }

    [[noreturn]] void badList(const std::string& role) { throw UsageError("usage: " + usageOf(role)); }

    bool namesProgram(const std::string& entry)
    {
        static const std::string exe = ".exe";
        return entry.size() > exe.size()
            && std::equal(exe.begin(), exe.end(), entry.end() - exe.size(), [](char suffix, char c) {
                   return suffix == (c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
               });
    }

    std::string absoluteUnixPath(const std::string& path)
    {
        if (!path.empty() && path[0] == '/')
            return path;
        std::string directory;
        if (char* cwd = ::getcwd(nullptr, 0)) {
            directory = cwd;
            ::free(cwd);
        }
        return directory + "/" + path;
    }

    ToolRequest menuRequest(Arguments rest)
    {
        ToolRequest request;
        request.action = ToolRequest::Action::StartEntry;
        if (startsWith(rest, { "--wait-children", "--enable-alt-loader", "macdrv", "--start" }) && rest.size() >= 5) {
            request.waitForChildren = true;
            request.mayHandOver = true;
            request.entry = rest[4];
            request.operands = toVector(rest.subspan(5));
        } else if (rest.size() == 5 && rest[0] == "--arch" && rest[2] == "--install" && rest[3] == "--filter") {
            if (rest[1] != "i386" && rest[1] != "x86_64")
                throw UsageError("--arch takes i386 or x86_64, not \"" + rest[1] + "\"");
            request.entry = rest[4];
        } else {
            badList("vtmenu");
        }
        if (request.entry.empty())
            throw UsageError("the Start-menu entry is empty");
        return request;
    }

    ToolRequest startRequest(Arguments rest)
    {
        ToolRequest request;
        if (startsWith(rest, { "--wait-children", "--enable-alt-loader", "macdrv", "--" }) && rest.size() >= 5) {
            request.action = ToolRequest::Action::OpenDocuments;
            request.waitForChildren = true;
            request.mayHandOver = true;
            request.operands = toVector(rest.subspan(4));
        } else if (startsWith(rest, { "--enable-alt-loader", "macdrv--" }) && rest.size() == 3) {
            // `start` would take a URL that begins with '/' for one of its own options.
            if (rest[2].empty() || rest[2][0] == '/')
                throw UsageError("\"" + rest[2] + "\" is not a URL");
            request.action = ToolRequest::Action::OpenUrl;
            request.mayHandOver = true;
            request.operands = { rest[2] };
        } else {
            badList("vtstart");
        }
        return request;
    }

    ToolRequest wineRequest(Arguments rest)
    {
        ToolRequest request;
        if (startsWith(rest, { "--wl-app" })) {
            if (rest.size() < 2)
                badList("wine");
            const std::string& program = rest[1];
            if (program.empty() || program == "." || program == ".."
                || program.find_first_of("/\\") != std::string::npos)
                throw UsageError("\"" + program + "\" names no program of the bundle");
            request.action = ToolRequest::Action::RunWindowsProgram;
            request.program = program;
            request.operands = toVector(rest.subspan(2));
        } else if (!rest.empty()) {
            request.action = ToolRequest::Action::RunWine;
            request.operands = toVector(rest);
        } else {
            badList("wine");
        }
        return request;
    }

    std::string listOf(const std::vector<fs::path>& folders)
    {
        std::string text;
        for (const fs::path& folder : folders)
            text += (text.empty() ? "" : " or ") + folder.string();
        return text;
    }
} // namespace

std::string usageOf(const std::string& role)
{
    if (role == "vtmenu")
        return "vtmenu --bottle NAME --wait-children --enable-alt-loader macdrv --start ENTRY [FILE...]"
               " | vtmenu --bottle NAME --arch i386|x86_64 --install --filter ENTRY";
    if (role == "vtstart")
        return "vtstart --bottle NAME --wait-children --enable-alt-loader macdrv -- FILE..."
               " | vtstart --bottle NAME --enable-alt-loader macdrv-- URL";
    if (role == "wine")
        return "wine --bottle NAME [--wl-app PROGRAM] ARG...";
    return "start this program as vtmenu, vtstart or wine";
}

ToolRequest parseToolArguments(const std::string& role, const std::vector<std::string>& arguments)
{
    if (role != "vtmenu" && role != "vtstart" && role != "wine")
        throw UsageError(usageOf(role));
    if (arguments.empty() || arguments[0] != "--bottle")
        throw UsageError("--bottle NAME must come first; usage: " + usageOf(role));
    if (arguments.size() < 2)
        throw UsageError("--bottle needs the bottle's name");
    if (auto problem = bottleNameProblem(arguments[1]))
        throw UsageError(*problem);

    Arguments rest = Arguments(arguments).subspan(2);
    ToolRequest request;
    if (role == "vtmenu")
        request = menuRequest(rest);
    else if (role == "vtstart")
        request = startRequest(rest);
    else
        request = wineRequest(rest);
    request.bottle = arguments[1];
    return request;
}

std::string windowsPathOf(const std::string& unixPath)
{
    std::string path = "Z:";
    for (char c : absoluteUnixPath(unixPath)) {
        if (c != '/')
            path += c;
        else if (path.back() != '\\') // "a//b" is one separator to unix; to Windows "\\" may start a share
            path += '\\';
    }
    return path;
}

std::vector<WineArguments> wineRunsFor(const ToolRequest& request, const fs::path& prefix,
                                       const fs::path& windowsPrograms)
{
    using Action = ToolRequest::Action;
    std::vector<std::string> files;
    switch (request.action) {
    case Action::StartEntry: {
        for (const std::string& file : request.operands)
            files.push_back(windowsPathOf(file));
        WineArguments run;
        if (namesProgram(request.entry)) {
            run = { request.entry };
        } else {
            std::vector<fs::path> folders = startMenuFolders(prefix);
            auto shortcut = findStartMenuEntry(folders, request.entry);
            if (!shortcut)
                throw EntryNotFound("no Start-menu entry \"" + request.entry + "\" in " + listOf(folders));
            // /wait: `start` ends with the program, so the tool's status is the program's.
            run = { "start", "/wait", "/unix", shortcut->string() };
        }
        run.insert(run.end(), files.begin(), files.end());
        return { run };
    }
    case Action::OpenDocuments: {
        std::vector<WineArguments> runs;
        for (const std::string& file : request.operands)
            runs.push_back({ "start", "/unix", absoluteUnixPath(file) });
        return runs;
    }
    case Action::OpenUrl:
        return { { "start", request.operands.at(0) } };
    case Action::RunWindowsProgram: {
        WineArguments run { (windowsPrograms / (request.program + ".exe")).string() };
        run.insert(run.end(), request.operands.begin(), request.operands.end());
        return { run };
    }
    case Action::RunWine:
        return { request.operands };
    }
    return {};
}

} // namespace vt::product
