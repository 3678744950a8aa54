#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/VTLog.hpp"
#include "standin/kit/TestSupport.hpp"

using vt::test::ScopedEnvironment;
using vt::test::StderrCapture;

namespace {
struct Described {
    int* calls;
    std::string description() const
    {
        ++*calls;
        return "described";
    }
};

void switchDebugLogging(ScopedEnvironment& env, const char* on)
{
    for (const char* name : { "VT_LOG", "VT_DEBUGMSG", "DEBUG" })
        env.unset(name);
    if (on)
        env.set(on, "");
    vt::readDebugLoggingSwitch();
}
} // namespace

TEST(PlatformLog, WritesOneStampedLineWithObjectsFilledIn)
{
    StderrCapture capture;
    vt::platformLog("Unable to locate %@ after %d attempts.  Yes%%", std::string("a server"), 10);
    std::string text = capture.text();
    std::regex line(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} vtlauncher_tests\[(\d+)\] )"
                    R"(Unable to locate a server after 10 attempts\.  Yes%\n$)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, line)) << text;
    EXPECT_EQ(std::stoi(match[1]), getpid());
}

TEST(PlatformLog, FormatsNumbersAndTextsAsPrintfWould)
{
    int calls = 0;
    EXPECT_EQ(vt::formatMessage("[%5d|%-4s|%03u|%x|%c|%.2f|%zu|%lld|%@]", -42, "ab", 7u, 255, 'z', 3.14159,
                                sizeof(int32_t), -1LL << 40, Described { &calls }),
              "[  -42|ab  |007|ff|z|3.14|4|-1099511627776|described]");
    // Read with the signedness of the conversion at the width it names, as printf does.
    EXPECT_EQ(vt::formatMessage("%u %hhu %d %hd", -1, static_cast<signed char>(-56), 4000000000u,
                                static_cast<unsigned short>(65535)),
              "4294967295 200 -294967296 -1");
    EXPECT_EQ(vt::formatMessage("%@", std::string(1000, 'x')).size(), 1000u);
    EXPECT_EQ(vt::formatMessage("%s", std::string(1000, 'y')).size(), 1000u);
}

TEST(PlatformLog, KeepsTheMessagesOwnLineEndSingle)
{
    StderrCapture capture;
    vt::platformLog("The helper server was there, but now it's gone.\n");
    vt::platformLog("%@ and %s", std::filesystem::path("/a b"), static_cast<const char*>(nullptr));
    std::string text = capture.text();
    EXPECT_NE(text.find("now it's gone.\n"), std::string::npos);
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    EXPECT_NE(text.find("] /a b and (null)\n"), std::string::npos);
}

TEST(PlatformLog, LinesFromManyThreadsStayWhole)
{
    StderrCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                vt::platformLog("thread %d line %d %@", t, i, std::string(100, 'x'));
        });
    for (auto& thread : threads)
        thread.join();
    std::istringstream lines(capture.text());
    std::string line;
    int count = 0;
    std::regex whole(R"(.*\] thread \d line \d+ x{100}$)");
    while (std::getline(lines, line)) {
        ++count;
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
    }
    EXPECT_EQ(count, 800);
}

TEST(VTLog, SilentWithoutAnyVariableAndFormatNotEvaluated)
{
    ScopedEnvironment env;
    switchDebugLogging(env, nullptr);
    int calls = 0;
    StderrCapture capture;
    vt::VTLog("object %@", Described { &calls });
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(calls, 0);
}

TEST(VTLog, EachVariableSwitchesItOnEvenWhenEmptyAndIsReadOnlyWhenAsked)
{
    for (const char* name : { "VT_LOG", "VT_DEBUGMSG", "DEBUG" }) {
        ScopedEnvironment env;
        switchDebugLogging(env, nullptr);
        StderrCapture capture;
        vt::VTLog("before");
        env.set(name, ""); // the value is never read
        vt::VTLog("unread");
        vt::readDebugLoggingSwitch();
        vt::VTLog("during");
        env.unset(name);
        vt::VTLog("still");
        vt::readDebugLoggingSwitch();
        vt::VTLog("after");
        EXPECT_EQ(capture.text().find("before"), std::string::npos) << name;
        EXPECT_EQ(capture.text().find("unread"), std::string::npos) << name;
        EXPECT_NE(capture.text().find("] during\n"), std::string::npos) << name;
        EXPECT_NE(capture.text().find("] still\n"), std::string::npos) << name;
        EXPECT_EQ(capture.text().find("after"), std::string::npos) << name;
    }
}

// Once Wine runs inside the launcher it changes the environment from its own
// thread; a debug line written meanwhile must not read the environment.
TEST(VTLog, LinesWrittenWhileAnotherThreadChangesTheEnvironmentReadNothingOfIt)
{
    vt::test::ScopedEnvironment env;
    switchDebugLogging(env, nullptr);
    std::atomic<bool> done { false };
    std::thread writer([&] {
        while (!done)
            vt::VTLog("quiet %d", 1);
    });
    // A new name grows the environment's array, which moves it (always, under
    // AddressSanitizer): a getenv meanwhile would read the array it left.
    for (int i = 0; i < 20000; ++i) {
        const std::string name = "VT_TEST_CHURN_" + std::to_string(i);
        ::setenv(name.c_str(), "x", 1);
        ::unsetenv(name.c_str());
    }
    done = true;
    writer.join();
}
