#include "source/StringAdditions.hpp"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/unistr.h>

namespace vt {
namespace {

// ICU replaces ill-formed UTF-8 with U+FFFD, so no input makes these fail.
icu::UnicodeString toUnicode(std::string_view text)
{
    if (text.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
        throw std::length_error("string too long for UTF-16 conversion");
    return icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string toUtf8(const icu::UnicodeString& text)
{
    std::string result;
    text.toUTF8String(result);
    return result;
}

// A cursor over UTF-16 code units that skips nothing by itself. Set
// membership is decided per code point, so a surrogate pair is one character.
class Scanner {
public:
    explicit Scanner(icu::UnicodeString text) : m_text(std::move(text)) {}

    bool atEnd() const { return m_position >= m_text.length(); }

    // The run of characters that belong to `set`, possibly empty.
    icu::UnicodeString scanCharacters(const icu::UnicodeSet& set)
    {
        return takeUntil(set.span(m_text, m_position, USET_SPAN_CONTAINED));
    }

    void skipCharacters(const icu::UnicodeSet& set)
    {
        m_position = set.span(m_text, m_position, USET_SPAN_CONTAINED);
    }

    // The run of characters up to the next member of `set` or the end.
    icu::UnicodeString scanUpToCharacters(const icu::UnicodeSet& set)
    {
        return takeUntil(set.span(m_text, m_position, USET_SPAN_NOT_CONTAINED));
    }

    icu::UnicodeString scanUpTo(char16_t unit)
    {
        int32_t found = m_text.indexOf(unit, m_position);
        return takeUntil(found < 0 ? m_text.length() : found);
    }

    bool consume(char16_t unit)
    {
        if (atEnd() || m_text.charAt(m_position) != unit)
            return false;
        ++m_position;
        return true;
    }

private:
    icu::UnicodeString takeUntil(int32_t end)
    {
        icu::UnicodeString run(m_text, m_position, end - m_position);
        m_position = end;
        return run;
    }

    icu::UnicodeString m_text;
    int32_t m_position = 0;
};

// Literal search over the whole string, every occurrence.
void replaceAll(icu::UnicodeString& text, char16_t unit, const char* replacement)
{
    text.findAndReplace(icu::UnicodeString(unit), icu::UnicodeString(replacement, -1, US_INV));
}

icu::UnicodeString decomposed(const icu::UnicodeString& text)
{
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    icu::UnicodeString result;
    if (U_SUCCESS(status))
        result = nfd->normalize(text, status);
    if (U_FAILURE(status))
        throw std::runtime_error(std::string("Unicode decomposition failed: ") + u_errorName(status));
    return result;
}

std::unique_ptr<icu::Collator> makeStandardCollator()
{
    // ICU maps the C and POSIX locales to en_US_POSIX, whose collation is
    // code-point order with capitals first; that is not the Finder-like
    // ordering, so such processes get the root collation instead.
    icu::Locale locale = icu::Locale::getDefault();
    if (std::strcmp(locale.getBaseName(), "en_US_POSIX") == 0)
        locale = icu::Locale::getRoot();

    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(locale, status));
    if (U_SUCCESS(status)) {
        // Tertiary strength: letters differing only in case are equal at the
        // primary level, yet two distinct strings still get a fixed order.
        collator->setStrength(icu::Collator::TERTIARY);
        collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    }
    if (U_FAILURE(status))
        throw std::runtime_error(std::string("cannot create a collator: ") + u_errorName(status));
    return collator;
}

// ICU collators must not be used from several threads at once, so each
// thread works on its own clone of one instance created for the process.
icu::Collator& standardCollator()
{
    static const std::unique_ptr<icu::Collator> prototype = makeStandardCollator();
    thread_local const std::unique_ptr<icu::Collator> collator(prototype->clone());
    if (!collator)
        throw std::bad_alloc();
    return *collator;
}

UCollationResult localizedStandardCompare(std::string_view lhs, std::string_view rhs)
{
    UErrorCode status = U_ZERO_ERROR;
    UCollationResult result = standardCollator().compare(toUnicode(lhs), toUnicode(rhs), status);
    if (U_FAILURE(status))
        throw std::runtime_error(std::string("string comparison failed: ") + u_errorName(status));
    return result;
}

icu::UnicodeSet whiteSpaceAndNewlines()
{
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeSet set(icu::UnicodeString("[[:Z:][\\u0009-\\u000D][\\u0085]]", -1, US_INV), status);
    if (U_FAILURE(status))
        throw std::runtime_error(std::string("cannot build the white space set: ") + u_errorName(status));
    return set;
}

} // namespace

const CharacterSets& initCharacterSets()
{
    static const CharacterSets sets = [] {
        CharacterSets built;
        built.skipBetweenComponents = whiteSpaceAndNewlines();
        built.delimitersOutsideOfQuotes = built.skipBetweenComponents;
        built.delimitersOutsideOfQuotes.add(u'"');
        built.asciiCharacterSet.add(0x0000, 0x007F);
        // Frozen sets are safe to read from any number of threads.
        built.emptyCharacterSet.freeze();
        built.skipBetweenComponents.freeze();
        built.delimitersOutsideOfQuotes.freeze();
        built.asciiCharacterSet.freeze();
        return built;
    }();
    return sets;
}

std::string stringQuotedForBash(std::string_view text)
{
    icu::UnicodeString quoted = toUnicode(text);
    replaceAll(quoted, u'\'', "'\\''");
    quoted.insert(0, u'\'');
    quoted.append(u'\'');
    return toUtf8(quoted);
}

std::string stringByRemovingCharactersInSet(std::string_view text, const icu::UnicodeSet& set)
{
    Scanner scanner(toUnicode(text));
    icu::UnicodeString result;
    while (!scanner.atEnd()) {
        scanner.skipCharacters(set);
        result.append(scanner.scanUpToCharacters(set));
    }
    return toUtf8(result);
}

std::vector<std::string> componentsOfCommandLine(std::string_view text)
{
    const CharacterSets& sets = initCharacterSets();
    Scanner scanner(toUnicode(text));
    std::vector<std::string> arguments;
    while (!scanner.atEnd()) {
        scanner.skipCharacters(sets.skipBetweenComponents);
        if (scanner.atEnd())
            break;
        icu::UnicodeString argument;
        // Quoted and unquoted pieces with nothing between them form one
        // argument; an unmatched quote runs to the end of the line.
        for (;;) {
            argument.append(scanner.scanUpToCharacters(sets.delimitersOutsideOfQuotes));
            if (!scanner.consume(u'"'))
                break;
            argument.append(scanner.scanUpTo(u'"'));
            scanner.consume(u'"');
        }
        arguments.push_back(toUtf8(argument));
    }
    return arguments;
}

std::vector<std::string> componentsSeparatedIntoAsciiAndNonAscii(std::string_view text)
{
    const CharacterSets& sets = initCharacterSets();
    Scanner scanner(toUnicode(text));
    std::vector<std::string> runs;
    while (!scanner.atEnd()) {
        icu::UnicodeString ascii = scanner.scanCharacters(sets.asciiCharacterSet);
        // Callers rely on even positions being ASCII; a leading non-ASCII run
        // would break that, so it is refused rather than shifted.
        if (ascii.isEmpty())
            throw std::invalid_argument(
                "componentsSeparatedIntoAsciiAndNonAscii: the string begins with a non-ASCII character");
        runs.push_back(toUtf8(ascii));
        icu::UnicodeString nonAscii = scanner.scanUpToCharacters(sets.asciiCharacterSet);
        if (!nonAscii.isEmpty())
            runs.push_back(toUtf8(nonAscii));
    }
    return runs;
}

std::string asciiStringQuotedForAppleScript(std::string_view text)
{
    icu::UnicodeString quoted = toUnicode(text);
    // The quote replacement holds no backslash, so it must come first for the
    // backslash replacement not to touch it.
    replaceAll(quoted, u'"', "\" & quote & \"");
    replaceAll(quoted, u'\\', "\" & (ASCII character 92) & \"");
    replaceAll(quoted, u'\n', "\" & return & \"");
    quoted.insert(0, u'"');
    quoted.append(u'"');
    return toUtf8(quoted);
}

std::string nonAsciiStringQuotedForAppleScript(std::string_view text)
{
    if (text.empty())
        return "\"\"";
    // AppleScript source cannot carry these characters reliably, so the
    // expression rebuilds them from their UTF-8 bytes.
    std::string result = "(\xC2\xAB" "data utf8";
    for (unsigned char byte : toUtf8(toUnicode(text))) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", byte);
        result += hex;
    }
    result += "\xC2\xBB as Unicode text)";
    return result;
}

std::string stringQuotedForAppleScript(std::string_view text)
{
    if (text.empty())
        return "\"\"";
    std::vector<std::string> runs = componentsSeparatedIntoAsciiAndNonAscii(text);
    std::string result;
    for (size_t i = 0; i < runs.size(); ++i) {
        if (i > 0)
            result += " & ";
        result += i % 2 == 0 ? asciiStringQuotedForAppleScript(runs[i])
                             : nonAsciiStringQuotedForAppleScript(runs[i]);
    }
    return result;
}

std::string decomposedUTF8String(std::string_view text)
{
    return toUtf8(decomposed(toUnicode(text)));
}

std::string stringInFileSystemRepresentationForm(std::string_view text)
{
    // The file-system representation is a NUL-terminated byte string, so a
    // name ends at its first NUL, as it would on its way to the kernel.
    std::string representation = decomposedUTF8String(text);
    representation.resize(std::strlen(representation.c_str()));
    return representation;
}

bool localizedStandardGreaterThan(std::string_view lhs, std::string_view rhs)
{
    return localizedStandardCompare(lhs, rhs) == UCOL_GREATER;
}

bool localizedStandardLessThan(std::string_view lhs, std::string_view rhs)
{
    return localizedStandardCompare(lhs, rhs) == UCOL_LESS;
}

} // namespace vt
