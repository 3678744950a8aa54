// Text conversions the product needs when it builds commands for other
// interpreters: bash and AppleScript quoting, command-line splitting, and the
// Unicode forms used on the file system.
//
// Strings come in and go out as UTF-8. The scanning rules work on UTF-16 code
// units, as the product's other tools do, so inputs are converted to UTF-16
// internally and the results converted back.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <unicode/uniset.h>

namespace vt {

// The four character sets the tokenizer and the ASCII splitter use, created
// once per process (safe under concurrent first use) and read-only afterwards.
struct CharacterSets {
    icu::UnicodeSet emptyCharacterSet;
    icu::UnicodeSet skipBetweenComponents;     // white space and newlines
    icu::UnicodeSet delimitersOutsideOfQuotes; // the above plus '"'
    icu::UnicodeSet asciiCharacterSet;         // U+0000 to U+007F
};
const CharacterSets& initCharacterSets();

// The string as one bash word in single quotes: 'it'\''s'.
std::string stringQuotedForBash(std::string_view text);

// The string without any character of `set`, everything else kept in order.
std::string stringByRemovingCharactersInSet(std::string_view text, const icu::UnicodeSet& set);

// Splits a command line into arguments. Double quotes group; there is no
// escape character: backslash and apostrophe are ordinary characters.
std::vector<std::string> componentsOfCommandLine(std::string_view text);

// Alternating ASCII and non-ASCII runs, starting with an ASCII run. A string
// whose first character is outside ASCII has no first ASCII run and throws
// std::invalid_argument: callers must not pass such strings.
std::vector<std::string> componentsSeparatedIntoAsciiAndNonAscii(std::string_view text);

// AppleScript string expressions.
std::string asciiStringQuotedForAppleScript(std::string_view text);
std::string nonAsciiStringQuotedForAppleScript(std::string_view text);
std::string stringQuotedForAppleScript(std::string_view text);

// UTF-8 of the canonical decomposition (NFD); c_str() gives the
// NUL-terminated byte string.
std::string decomposedUTF8String(std::string_view text);

// The string in the form the file system stores names in (NFD on Linux), so
// it compares equal, code unit by code unit, with names read from disk.
std::string stringInFileSystemRepresentationForm(std::string_view text);

// Finder-like ordering: locale-aware, case-insensitive, numbers compared by
// value. Equal strings give false to both.
bool localizedStandardGreaterThan(std::string_view lhs, std::string_view rhs);
bool localizedStandardLessThan(std::string_view lhs, std::string_view rhs);

} // namespace vt
