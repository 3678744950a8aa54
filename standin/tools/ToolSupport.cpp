#include "standin/tools/ToolSupport.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

namespace vt::standin {

namespace {

    volatile sig_atomic_t terminateRequested = 0;

    void onTerminate(int) { terminateRequested = 1; }

    std::optional<std::string> readWholeFile(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        if (!in)
            return std::nullopt;
        std::ostringstream contents;
        contents << in.rdbuf();
        return contents.str();
    }

} // namespace

std::string toolsDirectoryOrExit(const char* program)
{
    const char* directory = std::getenv("VT_STANDIN_TOOLS_DIR");
    if (!directory || !*directory) {
        std::fprintf(stderr, "%s: VT_STANDIN_TOOLS_DIR is not set; the test must put it into the helper "
                             "server's environment\n", program);
        std::exit(3);
    }
    return directory;
}

bool writeFileAtomically(const std::string& path, const std::string& contents)
{
    std::string temporary = path + ".tmp";
    FILE* out = std::fopen(temporary.c_str(), "we");
    if (!out)
        return false;
    bool written = std::fwrite(contents.data(), 1, contents.size(), out) == contents.size();
    written = std::fclose(out) == 0 && written;
    return written && std::rename(temporary.c_str(), path.c_str()) == 0;
}

std::string hex(const std::string& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

EndWatch::EndWatch(std::string directory, std::string role)
    : m_directory(std::move(directory))
{
    std::string stem = m_directory + "/" + role + "-" + std::to_string(getpid());
    m_endFile = stem + ".end";
    m_exitFile = stem + ".exit";
    // No SA_RESTART: a read or poll in progress returns, and the caller
    // looks at the watch again.
    struct sigaction action {};
    action.sa_handler = onTerminate;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
}

std::optional<int> EndWatch::requestedStatus() const
{
    for (const std::string& path : { m_endFile, m_directory + "/end-all" }) {
        if (auto contents = readWholeFile(path))
            return std::atoi(contents->c_str());
    }
    return std::nullopt;
}

void EndWatch::exitIfDue() const
{
    if (terminateRequested) {
        writeFileAtomically(m_exitFile, "signal " + std::to_string(SIGTERM) + "\n");
        signal(SIGTERM, SIG_DFL);
        raise(SIGTERM);
    }
    struct stat info;
    if (stat(m_directory.c_str(), &info) != 0 && errno == ENOENT)
        std::exit(0);
    if (auto status = requestedStatus())
        exit(*status);
}

void EndWatch::exit(int status) const
{
    writeFileAtomically(m_exitFile, "exit " + std::to_string(status) + "\n");
    std::exit(status);
}

} // namespace vt::standin
