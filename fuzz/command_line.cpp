// The command-line tokenizer and the quoting of source/StringAdditions: the
// input as one string, and cut at line ends into a list of arguments.
//
// Checks: the bash quoting of a string is one word that bash reads back as
// that string; the tokenizer never leaves a double quote in an argument,
// splits a line without quotes at white space and nothing else, and gives
// back any list of arguments that each stand in double quotes; the ASCII
// split alternates runs that join to the string; the decomposition is
// stable; the standard ordering is antisymmetric.
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <unicode/unistr.h>

#include "fuzz/FuzzSupport.hpp"
#include "source/StringAdditions.hpp"

using namespace vt;

namespace {

// The text as the conversions see it: ill-formed UTF-8 becomes U+FFFD.
std::string wellFormed(std::string_view text)
{
    std::string result;
    icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
        .toUTF8String(result);
    return result;
}

// What bash makes of `word` when it stands alone, for the forms a quoted
// word may take: single-quoted runs and backslash escapes. Anything else
// (a blank, a '$', a bare letter) could be split or expanded: nothing.
std::optional<std::string> bashWord(std::string_view word)
{
    std::string text;
    for (size_t at = 0; at < word.size();) {
        if (word[at] == '\'') {
            size_t end = word.find('\'', at + 1);
            if (end == std::string_view::npos)
                return std::nullopt;
            text.append(word.substr(at + 1, end - at - 1));
            at = end + 1;
        } else if (word[at] == '\\' && at + 1 < word.size()) {
            text += word[at + 1];
            at += 2;
        } else {
            return std::nullopt;
        }
    }
    return text;
}

bool isAscii(const std::string& text)
{
    for (unsigned char c : text)
        if (c > 0x7F)
            return false;
    return true;
}

void checkTokenizer(std::string_view raw, const std::string& text)
{
    const std::vector<std::string> arguments = componentsOfCommandLine(raw);
    VT_FUZZ_CHECK(componentsOfCommandLine(text) == arguments);
    std::string requoted;
    for (const std::string& argument : arguments) {
        VT_FUZZ_CHECK(argument.find('"') == std::string::npos);
        requoted += "\"" + argument + "\" ";
    }
    VT_FUZZ_CHECK(componentsOfCommandLine(requoted) == arguments);

    if (text.find('"') == std::string::npos) {
        // Nothing but white space lies between the arguments.
        const icu::UnicodeSet& blanks = initCharacterSets().skipBetweenComponents;
        std::string joined;
        for (const std::string& argument : arguments) {
            VT_FUZZ_CHECK(!argument.empty());
            VT_FUZZ_CHECK(stringByRemovingCharactersInSet(argument, blanks) == argument);
            joined += argument;
        }
        VT_FUZZ_CHECK(joined == stringByRemovingCharactersInSet(text, blanks));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view raw(reinterpret_cast<const char*>(data), size);
    const std::string text = wellFormed(raw);

    const std::string quoted = stringQuotedForBash(raw);
    VT_FUZZ_CHECK(quoted.size() >= 2 && quoted.front() == '\'');
    VT_FUZZ_CHECK(bashWord(quoted) == text);

    checkTokenizer(raw, text);

    // Each line an argument of its own, quotes removed: in double quotes
    // and joined by blanks, the tokenizer gives the list back.
    std::vector<std::string> lines;
    std::string line;
    std::string joined;
    for (char c : text) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else if (c != '"') {
            line += c;
        }
    }
    lines.push_back(line);
    for (const std::string& argument : lines)
        joined += " \"" + argument + "\"";
    VT_FUZZ_CHECK(componentsOfCommandLine(joined) == lines);

    try {
        const std::vector<std::string> runs = componentsSeparatedIntoAsciiAndNonAscii(raw);
        std::string together;
        for (size_t i = 0; i < runs.size(); ++i) {
            VT_FUZZ_CHECK(!runs[i].empty() && isAscii(runs[i]) == (i % 2 == 0));
            together += runs[i];
        }
        VT_FUZZ_CHECK(together == text);
        (void)stringQuotedForAppleScript(raw);
    } catch (const std::invalid_argument&) {
        // Only a string that begins outside ASCII is refused.
        VT_FUZZ_CHECK(!text.empty() && static_cast<unsigned char>(text[0]) > 0x7F);
    }

    const std::string decomposed = decomposedUTF8String(raw);
    VT_FUZZ_CHECK(decomposedUTF8String(decomposed) == decomposed);
    VT_FUZZ_CHECK(stringInFileSystemRepresentationForm(raw) == std::string(decomposed.c_str()));

    const std::string_view left = raw.substr(0, size / 2), right = raw.substr(size / 2);
    const bool less = localizedStandardLessThan(left, right);
    VT_FUZZ_CHECK(localizedStandardGreaterThan(right, left) == less);
    VT_FUZZ_CHECK(!(less && localizedStandardLessThan(right, left)));
    return 0;
}
