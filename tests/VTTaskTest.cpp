#include <csignal>
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>

#include "base/NotificationCenter.hpp"
#include "source/VTTask.hpp"
#include "standin/kit/TestSupport.hpp"

using namespace std::chrono_literals;
using vt::VTTask;
using vt::test::readFile;
using vt::test::TempDir;
using vt::test::waitUntil;

namespace {

// What vt-record-child wrote about itself.
struct ChildRecord {
    std::vector<std::string> argumentHex;
    std::vector<std::string> environment;
    std::string standardInput, standardOutput, directory;
    std::string ignoredSignals, blockedSignals; // hex masks, bit n-1 for signal n
};

ChildRecord readRecord(const std::filesystem::path& path)
{
    ChildRecord record;
    std::istringstream lines(readFile(path));
    std::string line;
    while (std::getline(lines, line)) {
        auto space = line.find_first_of(" \t");
        std::string key = line.substr(0, space), value = line.substr(space + 1);
        if (key == "arg")
            record.argumentHex.push_back(value);
        else if (key == "env")
            record.environment.push_back(value);
        else if (key == "stdin")
            record.standardInput = value;
        else if (key == "stdout")
            record.standardOutput = value;
        else if (key == "cwd")
            record.directory = value;
        else if (key == "SigIgn:")
            record.ignoredSignals = value.substr(value.find_first_not_of(" \t"));
        else if (key == "SigBlk:")
            record.blockedSignals = value.substr(value.find_first_not_of(" \t"));
    }
    return record;
}

bool processGone(pid_t pid)
{
    // After a reap the pid no longer exists; a zombie would still answer.
    return kill(pid, 0) != 0 && errno == ESRCH;
}

class VTTaskTest : public ::testing::Test {
protected:
    // Counts termination notices per object.
    void observeEnds()
    {
        observations.push_back(vt::NotificationCenter::defaultCenter().addObserver(
            vt::VTTaskDidTerminateNotification, nullptr, [this](const vt::Notification& n) {
                EXPECT_TRUE(vt::isMainThread());
                ended.push_back(n.object);
            }));
    }

    std::unique_ptr<VTTask> recordingTask(std::vector<std::string> extra = {})
    {
        auto task = std::make_unique<VTTask>();
        task->setLaunchPath(VT_RECORD_CHILD);
        std::vector<std::string> arguments { record.string() };
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        task->setArguments(arguments);
        return task;
    }

    TempDir dir;
    std::filesystem::path record = dir / "record";
    std::vector<const void*> ended;
    std::vector<vt::Observation> observations;
};

} // namespace

TEST_F(VTTaskTest, ArgumentsArriveAsTheCallersBytesUnnormalised)
{
    observeEnds();
    auto task = recordingTask({ "caf\xC3\xA9", "cafe\xCC\x81", "a b", "" });
    task->launch();
    ASSERT_TRUE(waitUntil([&] { return !ended.empty(); }));
    auto child = readRecord(record);
    ASSERT_EQ(child.argumentHex.size(), 6u);
    // argv[0] is the launch path, then the arguments in order.
    EXPECT_EQ(child.argumentHex[2], "636166C3A9");   // precomposed stays precomposed
    EXPECT_EQ(child.argumentHex[3], "63616665CC81"); // decomposed stays decomposed
    EXPECT_EQ(child.argumentHex[4], "612062");
    EXPECT_EQ(child.argumentHex[5], "");
}

TEST_F(VTTaskTest, EnvironmentIsExactlyTheOneGiven)
{
    observeEnds();
    auto task = recordingTask();
    task->setEnvironment({ { "VT_WINDOW_TAG", "123" }, { "EMPTY", "" }, { "WITH_EQUALS", "a=b" } });
    task->setCurrentDirectoryPath(dir.path().string());
    task->launch();
    ASSERT_TRUE(waitUntil([&] { return !ended.empty(); }));
    auto child = readRecord(record);
    std::sort(child.environment.begin(), child.environment.end());
    EXPECT_EQ(child.environment, (std::vector<std::string> { "EMPTY=", "VT_WINDOW_TAG=123", "WITH_EQUALS=a=b" }));
    EXPECT_EQ(child.directory, dir.path().string());
}

TEST_F(VTTaskTest, OneTerminationNoticeNamingTheWrapper)
{
    observeEnds();
    auto first = recordingTask();
    auto second = std::make_unique<VTTask>();
    second->setLaunchPath("/bin/true");
    first->launch();
    second->launch();
    EXPECT_TRUE(first->isRunning() || first->terminationStatus());
    ASSERT_TRUE(waitUntil([&] { return ended.size() == 2; }));
    // A later task's notice comes after any stray second one for these.
    VTTask third;
    third.setLaunchPath("/bin/true");
    third.launch();
    ASSERT_TRUE(waitUntil([&] { return ended.size() >= 3; }));
    EXPECT_EQ(ended.size(), 3u);
    EXPECT_NE(std::find(ended.begin(), ended.end(), first.get()), ended.end());
    EXPECT_NE(std::find(ended.begin(), ended.end(), second.get()), ended.end());
    EXPECT_FALSE(first->isRunning());
    ASSERT_TRUE(first->terminationStatus());
    EXPECT_TRUE(WIFEXITED(*first->terminationStatus()));
    EXPECT_EQ(WEXITSTATUS(*first->terminationStatus()), 0);
}

TEST_F(VTTaskTest, EarlyDestructionLeavesTheProcessRunningAndReapsIt)
{
    observeEnds();
    auto task = recordingTask({ "wait" });
    task->setStandardInput(VTTask::Stream::Pipe);
    task->launch();
    pid_t pid = task->processIdentifier();
    ASSERT_GT(pid, 0);
    vt::Fd lifeline = std::move(task->standardInputWriter());
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(record); }));
    task.reset();

    EXPECT_EQ(kill(pid, 0), 0) << "destroying the wrapper must not end the process";
    lifeline.reset();
    EXPECT_TRUE(waitUntil([&] { return processGone(pid); })) << "the ended child was not reaped";
    EXPECT_TRUE(ended.empty());
}

TEST_F(VTTaskTest, ChildrenStartWithDefaultSignalDispositionsAndNothingBlocked)
{
    // The launcher ignores SIGPIPE; its children must not inherit that.
    struct sigaction ignore {}, saved {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &saved);
    sigset_t usr1, savedMask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &savedMask);

    observeEnds();
    auto task = recordingTask();
    task->launch();
    sigaction(SIGPIPE, &saved, nullptr);
    pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
    ASSERT_TRUE(waitUntil([&] { return !ended.empty(); }));
    auto child = readRecord(record);
    // The classic signals, 1 to 31; the C library keeps the real-time ones above for itself.
    constexpr unsigned long long classic = (1ULL << 31) - 1;
    EXPECT_EQ(std::stoull(child.ignoredSignals, nullptr, 16) & classic, 0u) << child.ignoredSignals;
    EXPECT_EQ(std::stoull(child.blockedSignals, nullptr, 16) & classic, 0u) << child.blockedSignals;
}

TEST_F(VTTaskTest, ObserverMayDestroyTheTaskInsideTheNotice)
{
    auto task = recordingTask();
    bool notified = false;
    auto observation = vt::NotificationCenter::defaultCenter().addObserver(
        vt::VTTaskDidTerminateNotification, task.get(), [&](const vt::Notification&) {
            notified = true;
            task.reset();
        });
    task->launch();
    ASSERT_TRUE(waitUntil([&] { return notified; }));
    EXPECT_FALSE(task);
}

TEST_F(VTTaskTest, LaunchFailuresAreClearErrors)
{
    auto expectFailure = [](VTTask& task, const std::string& expected) {
        try {
            task.launch();
            ADD_FAILURE() << "launch succeeded";
        } catch (const vt::VTTaskLaunchError& e) {
            EXPECT_EQ(std::string(e.what()), expected);
        }
    };

    VTTask missing;
    missing.setLaunchPath((dir / "no-such-tool").string());
    expectFailure(missing, "cannot launch '" + (dir / "no-such-tool").string() + "': No such file or directory");

    auto notExecutable = dir / "data";
    vt::test::writeFile(notExecutable, "just text");
    VTTask plain;
    plain.setLaunchPath(notExecutable.string());
    expectFailure(plain, "cannot launch '" + notExecutable.string() + "': Permission denied");

    VTTask badDirectory;
    badDirectory.setLaunchPath("/bin/true");
    badDirectory.setCurrentDirectoryPath("/nonexistent-dir");
    expectFailure(badDirectory, "cannot launch '/bin/true' in directory '/nonexistent-dir': No such file or directory");

    VTTask noPath;
    expectFailure(noPath, "task has no launch path");

    VTTask twice;
    twice.setLaunchPath("/bin/true");
    twice.launch();
    expectFailure(twice, "task for '/bin/true' has already been launched");
    EXPECT_TRUE(waitUntil([&] { return !twice.isRunning(); }));
}
