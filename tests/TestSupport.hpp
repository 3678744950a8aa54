// Shared test fixtures: temporary directories, captured standard error,
// scoped environment changes, file reading.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "shell/MainLoop.hpp"

namespace vt::test {

using namespace std::chrono_literals;

// A fresh directory, removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& contents);

// Collects what is written to standard error (descriptor 2) while it lives.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    // Everything written so far.
    std::string text() const;

private:
    TempDir m_dir;
    std::filesystem::path m_file;
    int m_saved = -1;
};

// Sets or unsets environment variables for the scope and restores them after.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    void set(const std::string& name, const std::string& value);
    void unset(const std::string& name);

private:
    void remember(const std::string& name);
    std::map<std::string, std::optional<std::string>> m_saved;
};

// Runs the main loop until `done` holds; false after `timeout`.
inline bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s)
{
    return runMainLoopUntil(done, timeout);
}

} // namespace vt::test
