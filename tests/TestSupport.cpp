#include "tests/TestSupport.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace vt::test {

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vt-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

void writeFile(const std::filesystem::path& path, const std::string& contents)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

StderrCapture::StderrCapture() : m_file(m_dir / "stderr")
{
    int fd = open(m_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    m_saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
}

StderrCapture::~StderrCapture()
{
    dup2(m_saved, STDERR_FILENO);
    close(m_saved);
}

std::string StderrCapture::text() const { return readFile(m_file); }

void ScopedEnvironment::remember(const std::string& name)
{
    if (m_saved.count(name))
        return;
    const char* old = std::getenv(name.c_str());
    m_saved[name] = old ? std::optional<std::string>(old) : std::nullopt;
}

void ScopedEnvironment::set(const std::string& name, const std::string& value)
{
    remember(name);
    setenv(name.c_str(), value.c_str(), 1);
}

void ScopedEnvironment::unset(const std::string& name)
{
    remember(name);
    unsetenv(name.c_str());
}

ScopedEnvironment::~ScopedEnvironment()
{
    for (const auto& [name, value] : m_saved) {
        if (value)
            setenv(name.c_str(), value->c_str(), 1);
        else
            unsetenv(name.c_str());
    }
}

} // namespace vt::test
