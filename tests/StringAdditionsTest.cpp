#include "source/StringAdditions.hpp"

#include <latch>
#include <stdexcept>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace {

using Strings = std::vector<std::string>;

// Each row: input, expected output.
void expectEach(std::string (*convert)(std::string_view),
                std::initializer_list<std::pair<std::string, std::string>> rows)
{
    for (const auto& [input, expected] : rows)
        EXPECT_EQ(convert(input), expected) << "input: " << input;
}

TEST(StringQuoting, BashQuotesOneWordAndExpandsEveryApostrophe)
{
    expectEach(vt::stringQuotedForBash, {
        {"abc", "'abc'"},
        {"it's", "'it'\\''s'"},
        {"", "''"},
        {"'''", "''\\'''\\'''\\'''"},
        {"$x \"y\" \\z\n", "'$x \"y\" \\z\n'"},
    });
}

TEST(StringQuoting, AppleScriptAsciiReplacesQuotesBackslashesAndLineFeeds)
{
    expectEach(vt::asciiStringQuotedForAppleScript, {
        {"say \"hi\"", "\"say \" & quote & \"hi\" & quote & \"\""},
        {"a\\b", "\"a\" & (ASCII character 92) & \"b\""},
        {"x\ny", "\"x\" & return & \"y\""},
        {"", "\"\""},
        {"a\rb\tc", "\"a\rb\tc\""},
        {"\\\"", "\"\" & (ASCII character 92) & \"\" & quote & \"\""},
    });
}

TEST(StringQuoting, AppleScriptNonAsciiSpellsOutUtf8Bytes)
{
    expectEach(vt::nonAsciiStringQuotedForAppleScript, {
        {"\u00E9", "(\u00ABdata utf8c3a9\u00BB as Unicode text)"},
        {"\u00FC\u4E2D", "(\u00ABdata utf8c3bce4b8ad\u00BB as Unicode text)"},
        {"", "\"\""},
    });
}

TEST(StringQuoting, AppleScriptJoinsQuotedAsciiAndNonAsciiRuns)
{
    expectEach(vt::stringQuotedForAppleScript, {
        {"Caf\u00E9 \"x\"",
         "\"Caf\" & (\u00ABdata utf8c3a9\u00BB as Unicode text) & \" \" & quote & \"x\" & quote & \"\""},
        {"", "\"\""},
    });
    for (const char* ascii : {"plain", "a\\b \"c\"\n"})
        EXPECT_EQ(vt::stringQuotedForAppleScript(ascii), vt::asciiStringQuotedForAppleScript(ascii));
    // It quotes by the split into runs, which refuses a string that begins outside ASCII.
    EXPECT_THROW(vt::stringQuotedForAppleScript("\u00E9cole"), std::invalid_argument);
    EXPECT_THROW(vt::componentsSeparatedIntoAsciiAndNonAscii("\U0001F600 a"), std::invalid_argument);
}

TEST(StringQuoting, RemovingASetKeepsEverythingElseInOrder)
{
    const auto& whiteSpace = vt::initCharacterSets().skipBetweenComponents;
    EXPECT_EQ(vt::stringByRemovingCharactersInSet(" a b\tc ", whiteSpace), "abc");
    EXPECT_EQ(vt::stringByRemovingCharactersInSet("\u00A0x\u2028y\u0085\r\n", whiteSpace), "xy");
    EXPECT_EQ(vt::stringByRemovingCharactersInSet("", whiteSpace), "");
    // A character outside the BMP is one member, not two code units.
    icu::UnicodeSet emoji(0x1F600, 0x1F600);
    EXPECT_EQ(vt::stringByRemovingCharactersInSet("a\U0001F600b\U0001F601", emoji), "ab\U0001F601");
}

TEST(CommandLine, GroupsByDoubleQuotesWithoutAnyEscapeCharacter)
{
    const std::pair<std::string, Strings> rows[] = {
        {"", {}},
        {" \t\n ", {}},
        {"foo  bar", {"foo", "bar"}},
        {"\"a b\" c", {"a b", "c"}},
        {"a\"b c\"d e", {"ab cd", "e"}},
        {"\"\" x", {"", "x"}},
        {"\"unterminated quote", {"unterminated quote"}},
        {"it's a\\ b", {"it's", "a\\", "b"}},
        {"x\"\"y", {"xy"}},
        {"\"", {""}},
        {"a\\\"b c\"", {"a\\b c"}},
        {"  lead trail  ", {"lead", "trail"}},
    };
    for (const auto& [line, arguments] : rows)
        EXPECT_EQ(vt::componentsOfCommandLine(line), arguments) << "line: " << line;
}

TEST(CommandLine, SplitsOnUnicodeSeparatorsAndKeepsOtherCharacters)
{
    EXPECT_EQ(vt::componentsOfCommandLine("a\u00A0b\u2028c\u3000d\u0085\U0001F600"),
              (Strings{"a", "b", "c", "d", "\U0001F600"}));
}

TEST(CommandLine, ConcurrentFirstUseGivesEveryThreadTheRightAnswer)
{
    constexpr int threadCount = 8;
    std::latch start(threadCount);
    std::vector<Strings> results(threadCount);
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            results[i] = vt::componentsOfCommandLine("run \"C:\\My Files\\x.exe\" -v");
        });
    for (auto& thread : threads)
        thread.join();
    for (const auto& result : results)
        EXPECT_EQ(result, (Strings{"run", "C:\\My Files\\x.exe", "-v"}));
}

TEST(AsciiSplit, AlternatesAsciiAndNonAsciiRuns)
{
    const std::pair<std::string, Strings> rows[] = {
        {"", {}},
        {"abc", {"abc"}},
        {"Caf\u00E9 \"x\"", {"Caf", "\u00E9", " \"x\""}},
        {"a\u4E2D\u6587b\u00FC", {"a", "\u4E2D\u6587", "b", "\u00FC"}},
        {"a\U0001F600", {"a", "\U0001F600"}},
    };
    for (const auto& [text, runs] : rows)
        EXPECT_EQ(vt::componentsSeparatedIntoAsciiAndNonAscii(text), runs) << "text: " << text;
}

TEST(UnicodeForms, DecomposesToCanonicalUtf8Bytes)
{
    const std::string bytes = vt::decomposedUTF8String("\u00E9");
    EXPECT_EQ(bytes, "\x65\xCC\x81");
    EXPECT_EQ(bytes.c_str()[bytes.size()], '\0');
    EXPECT_EQ(vt::decomposedUTF8String("\uD55C"), "\u1112\u1161\u11AB");
    EXPECT_EQ(vt::decomposedUTF8String("e\u0301"), "e\u0301");
    EXPECT_EQ(vt::decomposedUTF8String(""), "");
}

TEST(UnicodeForms, FileSystemFormIsDecomposedAndEndsAtNul)
{
    EXPECT_EQ(vt::stringInFileSystemRepresentationForm("Caf\u00E9.txt"), "Cafe\u0301.txt");
    EXPECT_EQ(vt::stringInFileSystemRepresentationForm("Cafe\u0301.txt"), "Cafe\u0301.txt");
    EXPECT_EQ(vt::stringInFileSystemRepresentationForm(std::string_view("a\0b", 3)), "a");
}

TEST(UnicodeForms, IllFormedUtf8BecomesReplacementCharacter)
{
    EXPECT_EQ(vt::decomposedUTF8String("a\xFF"), "a\uFFFD");
    EXPECT_EQ(vt::componentsOfCommandLine("\xC3 x"), (Strings{"\uFFFD", "x"}));
    EXPECT_EQ(vt::stringQuotedForBash("\xE4\xB8"), "'\uFFFD'");
}

TEST(StandardCompare, OrdersNumbersByValueAndIgnoresCaseBeforeLettersDiffer)
{
    EXPECT_TRUE(vt::localizedStandardLessThan("file2", "file10"));
    EXPECT_TRUE(vt::localizedStandardGreaterThan("file10", "file2"));
    EXPECT_TRUE(vt::localizedStandardLessThan("abc", "ABD"));
    // Case alone still orders two distinct names, one way only.
    EXPECT_NE(vt::localizedStandardLessThan("abc", "ABC"), vt::localizedStandardGreaterThan("abc", "ABC"));
    // Canonically equivalent forms are equal.
    EXPECT_FALSE(vt::localizedStandardLessThan("Caf\u00E9", "Cafe\u0301"));
    EXPECT_FALSE(vt::localizedStandardGreaterThan("Caf\u00E9", "Cafe\u0301"));
}

} // namespace
