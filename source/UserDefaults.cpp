#include "source/UserDefaults.hpp"

#include "source/VantorNames.hpp"

#include <cstdlib>
#include <string>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace vt {

namespace {

    std::filesystem::path homeDirectory()
    {
        const char* home = std::getenv("HOME");
        if (home && *home)
            return home;
        std::vector<char> buffer(16384);
        struct passwd entry, *result = nullptr;
        if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_dir)
            return result->pw_dir;
        return "/";
    }

    // Asked at every call rather than through GLib, which keeps the first
    // answer for the life of the process.
    std::filesystem::path configHome()
    {
        const char* configured = std::getenv("XDG_CONFIG_HOME");
        // A relative XDG_CONFIG_HOME is invalid and is to be ignored.
        if (configured && *configured == '/')
            return configured;
        return homeDirectory() / ".config";
    }

} // namespace

std::filesystem::path userDefaultsPath(std::string_view domain)
{
    return configHome() / (std::string(domain) + ".plist");
}

std::optional<PlistValue> vantorUserDefault(std::string_view key)
{
    auto defaults = readPropertyListFile(userDefaultsPath(kVantorBundleIdentifier));
    if (!defaults)
        return std::nullopt;
    const PlistValue* value = defaults->find(key);
    if (!value)
        return std::nullopt;
    return *value;
}

bool boolValueOfDefault(const PlistValue& value)
{
    if (const bool* b = value.asBool())
        return *b;
    if (const int64_t* integer = value.asInteger())
        return *integer != 0;
    if (const double* real = value.asReal())
        return *real != 0;
    if (const std::string* text = value.asString())
        return !text->empty()
            && (text->front() == 'Y' || text->front() == 'y' || text->front() == 'T' || text->front() == 't');
    return false;
}

bool vantorBoolUserDefault(std::string_view key)
{
    auto value = vantorUserDefault(key);
    return value && boolValueOfDefault(*value);
}

bool vantorDisableWineIntegration() { return vantorBoolUserDefault("DisableWineIntegration"); }

} // namespace vt
