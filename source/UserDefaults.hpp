// The main application's user defaults, as the launcher consults them: the
// dictionary in $XDG_CONFIG_HOME/com.tallowmere.Vantor.plist (default
// ~/.config). The file is read anew at every call, so a setting the user
// changes while the launcher runs counts from the next question on.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "source/PropertyList.hpp"

namespace vt {


// Where the defaults of `domain` live: <config home>/<domain>.plist.
std::filesystem::path userDefaultsPath(std::string_view domain);

// The value of `key` in the main application's defaults; empty when the file
// is missing or malformed, holds no dictionary, or lacks the key.
std::optional<PlistValue> vantorUserDefault(std::string_view key);

// The platform's boolean reading of a default: a boolean as it is, a number
// when it is not zero, a string when it begins with Y, y, T or t. Anything
// else is false.
bool boolValueOfDefault(const PlistValue& value);

// The boolean reading of a key; false when it is absent.
bool vantorBoolUserDefault(std::string_view key);

// DisableWineIntegration: the user asked for Wine to run outside the launcher.
bool vantorDisableWineIntegration();

} // namespace vt
