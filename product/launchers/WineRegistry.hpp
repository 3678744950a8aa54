// A Wine prefix's registry as its server saves it (system.reg for the
// machine, user.reg for the user: "WINE REGISTRY Version 2", then keys in
// brackets, each followed by its values), and what the product asks of it:
// the file extensions whose "open" command runs a given program.
//
// Only string values (plain and expandable) are kept; names of keys and
// values are compared as Windows compares them, ASCII letters in any case.
// Strings are unescaped as the server escapes them (\\, \", \n and the
// other C escapes, octal, and \x with up to four hex digits for a UTF-16
// unit) and given as UTF-8.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vt::product {

class RegistryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class RegistryFile {
public:
    // Throws RegistryError for a file that cannot be read or is no registry.
    static RegistryFile read(const std::filesystem::path& file);
    static RegistryFile parse(std::string_view text);

    // The string value `name` ("" for the key's default) of `key`, a path
    // below the file's root with backslashes ("Software\Classes\.txt").
    std::optional<std::string> value(std::string_view key, std::string_view name = "") const;
    // The names of the keys right below `key`, as written.
    std::vector<std::string> subkeys(std::string_view key) const;

private:
    struct Key {
        std::string name; // as written
        std::map<std::string, std::string> values; // by lower-case name
    };
    std::map<std::string, Key> m_keys; // by lower-case path
};

// The extensions (".txt", lower case, sorted) that the classes of `machine`
// and `user` (the user's own classes count first) open with `program`, a
// Windows path: an extension's class (its default value) has a
// "shell\open\command" whose program is that one, compared without regard
// to case, %SystemRoot% and %ProgramFiles% expanded.
std::vector<std::string> extensionsOpenedBy(const RegistryFile& machine, const RegistryFile& user,
                                            const std::string& program);

// The program an "open" command line runs: its first word, quoted or not
// (an unquoted path with spaces runs up to ".exe").
std::string programOfCommand(std::string_view command);

} // namespace vt::product
