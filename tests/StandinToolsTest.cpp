// The stand-in tools, run as the launcher runs them: by their installed
// names, with an exact environment, on the null device or on pipes.
#include <csignal>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "source/VTTask.hpp"
#include "standin/kit/StandinTools.hpp"
#include "standin/kit/TestSupport.hpp"

using vt::VTTask;
using vt::test::StandinTools;
using vt::test::TempDir;
using vt::test::waitUntil;

namespace {

class StandinToolsTest : public ::testing::Test {
protected:
    std::unique_ptr<VTTask> start(const std::string& role, std::vector<std::string> arguments,
                                  VTTask::Stream streams = VTTask::Stream::NullDevice,
                                  std::map<std::string, std::string> environment = {})
    {
        auto task = std::make_unique<VTTask>();
        task->setLaunchPath((bin / role).string());
        task->setArguments(std::move(arguments));
        task->setEnvironment(environment.empty() ? tools.variables() : std::move(environment));
        task->setStandardInput(streams);
        task->setStandardOutput(streams);
        task->launch();
        return task;
    }

    std::unique_ptr<VTTask> startWindowCommandTool()
    {
        return start("wine", { "--bottle", "Office", "--wl-app", "sendwndcmd", "-n", "-e", "explorer;apprunner" },
                     VTTask::Stream::Pipe);
    }

    // The wait status once the task has ended.
    static std::optional<int> waitForEnd(VTTask& task)
    {
        if (!waitUntil([&] { return !task.isRunning(); }))
            return std::nullopt;
        return task.terminationStatus();
    }

    static void send(VTTask& task, const std::string& bytes)
    {
        ASSERT_EQ(write(task.standardInputWriter().get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    // One read, as the launcher takes an answer; empty at the end of the stream.
    static std::optional<std::string> readOnce(VTTask& task)
    {
        struct pollfd answer { task.standardOutputReader().get(), POLLIN, 0 };
        if (poll(&answer, 1, 10000) != 1)
            return std::nullopt;
        char buffer[256];
        ssize_t count = read(answer.fd, buffer, sizeof buffer);
        if (count < 0)
            return std::nullopt;
        return std::string(buffer, static_cast<size_t>(count));
    }

    TempDir dir;
    StandinTools tools { dir / "tools" };
    std::filesystem::path bin = tools.install(dir / "Vantor.app");
};

} // namespace

TEST_F(StandinToolsTest, RecordsWhatItWasGivenAndExitsWithTheStatusItIsTold)
{
    auto environment = tools.variables();
    environment["VT_WINDOW_TAG"] = "4242";
    environment["VT_LAUNCHER_BUNDLE_NAME"] = "Bloc-notes \xC3\xA9=1";
    auto task = std::make_unique<VTTask>();
    task->setLaunchPath((bin / "vtmenu").string());
    task->setArguments({ "--bottle", "B\xC3\xBCr\xC3\xB8", "--start", "Programs/cafe\xCC\x81 1.lnk", "" });
    task->setEnvironment(environment);
    task->setCurrentDirectoryPath(dir.path().string());
    task->setStandardInput(VTTask::Stream::NullDevice);
    task->setStandardOutput(VTTask::Stream::NullDevice);
    task->launch();

    ASSERT_TRUE(tools.waitForRecords(1));
    auto record = tools.records().at(0);
    EXPECT_EQ(record.role, "vtmenu");
    EXPECT_EQ(record.pid, task->processIdentifier());
    EXPECT_EQ(record.parent, getpid());
    EXPECT_EQ(record.argv, (std::vector<std::string> { (bin / "vtmenu").string(), "--bottle", "B\xC3\xBCr\xC3\xB8",
                                                       "--start", "Programs/cafe\xCC\x81 1.lnk", "" }));
    EXPECT_EQ(record.environment, environment);
    EXPECT_EQ(record.directory, std::filesystem::canonical(dir.path()).string());
    EXPECT_EQ(record.standardInput, "null");
    EXPECT_EQ(record.standardOutput, "null");
    EXPECT_TRUE(task->isRunning());
    EXPECT_FALSE(tools.ending(record.pid));

    tools.end(record.pid, 7);
    auto status = waitForEnd(*task);
    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 7);
    EXPECT_EQ(tools.ending(record.pid), "exit 7");
}

TEST_F(StandinToolsTest, WithoutItsDirectoryAToolExitsWithStatus3)
{
    auto environment = tools.variables();
    environment.erase("VT_STANDIN_TOOLS_DIR");
    auto task = start("vtstart", {}, VTTask::Stream::NullDevice, environment);
    auto status = waitForEnd(*task);
    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 3);
    EXPECT_TRUE(tools.records().empty());
}

TEST_F(StandinToolsTest, SigtermAndEndAllEndEveryTool)
{
    auto document = start("vtstart", { "--bottle", "Office", "--", "/tmp/a.txt" });
    auto channel = startWindowCommandTool();
    ASSERT_TRUE(tools.waitForRecords(2));

    kill(document->processIdentifier(), SIGTERM);
    auto status = waitForEnd(*document);
    ASSERT_TRUE(status && WIFSIGNALED(*status));
    EXPECT_EQ(WTERMSIG(*status), SIGTERM);
    EXPECT_EQ(tools.ending(document->processIdentifier()), "signal 15");

    // The window-command tool ends with the others although its input is open.
    tools.endAll(5);
    status = waitForEnd(*channel);
    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 5);

    // A tool started afterwards records its start and ends at once.
    auto late = start("vtmenu", {});
    status = waitForEnd(*late);
    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 5);
    EXPECT_EQ(tools.records("vtmenu").size(), 1u);
}

TEST_F(StandinToolsTest, WindowCommandToolAnswersAsScripted)
{
    auto channel = startWindowCommandTool();
    ASSERT_TRUE(tools.waitForRecords("wine", 1));
    auto record = tools.records("wine").at(0);
    EXPECT_EQ(record.pid, channel->processIdentifier());
    EXPECT_EQ(record.standardInput, "pipe");
    EXPECT_EQ(record.standardOutput, "pipe");

    send(*channel, "-t 42 -c helperDelegateCommand0 -a haswindows\n");
    EXPECT_EQ(readOnce(*channel), "helperDelegateCommand0:1\n");

    tools.setAnswer("close", "0");
    send(*channel, "-t 42 -c helperDelegateCommand1 -a close\n");
    EXPECT_EQ(readOnce(*channel), "helperDelegateCommand1:0\n");

    tools.setAnswer("activatesystray", "raw:{id}:1:x\\nmore");
    send(*channel, "-t 42 -c helperDelegateCommand2 -a activatesystray -h 65636 -m 1025 -s 1\n");
    EXPECT_EQ(readOnce(*channel), "helperDelegateCommand2:1:x\nmore");

    EXPECT_EQ(tools.commands(), (std::vector<std::string> {
                                    "-t 42 -c helperDelegateCommand0 -a haswindows\n",
                                    "-t 42 -c helperDelegateCommand1 -a close\n",
                                    "-t 42 -c helperDelegateCommand2 -a activatesystray -h 65636 -m 1025 -s 1\n" }));
    EXPECT_EQ(tools.commandTexts(),
              (std::vector<std::string> { "haswindows", "close", "activatesystray -h 65636 -m 1025 -s 1" }));

    tools.setAnswer("queryendsession", "exit");
    send(*channel, "-t 42 -c helperDelegateCommand3 -a queryendsession\n");
    EXPECT_EQ(readOnce(*channel), "");
    auto status = waitForEnd(*channel);
    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_EQ(tools.commands().size(), 4u);
}

TEST_F(StandinToolsTest, SilentWindowCommandToolKeepsReadingUntilEndOfInput)
{
    auto channel = startWindowCommandTool();
    tools.setAnswer("haswindows", "silent");
    send(*channel, "-t 42 -c helperDelegateCommand0 -a haswindows\n");
    send(*channel, "-t 42 -c helperDelegateCommand1 -a haswindows\n-t 42 -c helperDelegateCommand2 -a close\n");
    // Nothing for the first two: the first bytes are the answer to the third.
    EXPECT_EQ(readOnce(*channel), "helperDelegateCommand2:1\n");

    send(*channel, "-t 42 -c helperDelegateCommand3 -a endsess");
    channel->standardInputWriter().reset();
    auto status = waitForEnd(*channel);
    ASSERT_TRUE(status && WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_EQ(tools.commands().back(), "-t 42 -c helperDelegateCommand3 -a endsess");
    EXPECT_EQ(tools.commands().size(), 4u);
}
