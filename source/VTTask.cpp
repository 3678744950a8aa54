#include "source/VTTask.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include "base/NotificationCenter.hpp"
#include "base/glib_glue.hpp"

extern char** environ;

namespace vt {

// Shared between a VTTask and the child watch that outlives it: the watch
// must go on to reap the child after the VTTask is gone.
struct detail::TaskWatch {
    std::mutex mutex;
    std::condition_variable noticeDelivered;
    VTTask* owner = nullptr; // cleared when the VTTask is destroyed
    std::optional<int> status;
    // The thread delivering the termination notice, while it does.
    std::optional<std::thread::id> deliveringThread;
};

namespace {

    void childEnded(GPid, gint status, gpointer data) noexcept
    {
        auto watch = *static_cast<std::shared_ptr<detail::TaskWatch>*>(data);
        std::unique_lock lock(watch->mutex);
        watch->status = status;
        VTTask* owner = watch->owner;
        if (!owner)
            return;
        // Observers run without the lock; a VTTask destroyed meanwhile on
        // another thread waits in its destructor until the notice is over,
        // so it never names an object that has gone.
        watch->deliveringThread = std::this_thread::get_id();
        lock.unlock();
        try {
            NotificationCenter::defaultCenter().post(VTTaskDidTerminateNotification, owner);
        } catch (const std::exception& e) {
            g_critical("an observer of a task's end threw: %s", e.what());
        } catch (...) {
            g_critical("an observer of a task's end threw");
        }
        lock.lock();
        watch->deliveringThread.reset();
        lock.unlock();
        watch->noticeDelivered.notify_all();
    }

    void deleteWatch(gpointer data) noexcept { delete static_cast<std::shared_ptr<detail::TaskWatch>*>(data); }

    class SpawnActions {
    public:
        SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
        ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
        posix_spawn_file_actions_t* get() { return &m_actions; }

    private:
        posix_spawn_file_actions_t m_actions;
    };

    class SpawnAttributes {
    public:
        SpawnAttributes()
        {
            posix_spawnattr_init(&m_attributes);
            // The child starts with every signal at its default and none
            // blocked, whatever the launcher itself has set up.
            sigset_t all, none;
            sigfillset(&all);
            sigemptyset(&none);
            posix_spawnattr_setsigdefault(&m_attributes, &all);
            posix_spawnattr_setsigmask(&m_attributes, &none);
            posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        }
        ~SpawnAttributes() { posix_spawnattr_destroy(&m_attributes); }
        posix_spawnattr_t* get() { return &m_attributes; }

    private:
        posix_spawnattr_t m_attributes;
    };

    // Connects one of the child's standard streams. For a pipe, `ours` gets
    // the launcher's end and `theirs` the child's, closed after the spawn.
    void connectStream(SpawnActions& actions, VTTask::Stream stream, int target, Fd& ours, Fd& theirs)
    {
        switch (stream) {
        case VTTask::Stream::Inherit:
            return;
        case VTTask::Stream::NullDevice:
            posix_spawn_file_actions_addopen(actions.get(), target, "/dev/null",
                                             target == STDIN_FILENO ? O_RDONLY : O_WRONLY, 0);
            return;
        case VTTask::Stream::Pipe: {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC) != 0)
                throw VTTaskLaunchError(std::string("cannot make a pipe: ") + std::strerror(errno));
            bool childReads = target == STDIN_FILENO;
            theirs.reset(fds[childReads ? 0 : 1]);
            ours.reset(fds[childReads ? 1 : 0]);
            // dup2 onto the standard descriptor clears close-on-exec there only.
            posix_spawn_file_actions_adddup2(actions.get(), theirs.get(), target);
            return;
        }
        }
    }

} // namespace

std::vector<std::string> argumentsUpToFirstMissing(std::initializer_list<std::optional<std::string>> elements)
{
    std::vector<std::string> arguments;
    for (const auto& element : elements) {
        if (!element)
            break;
        arguments.push_back(*element);
    }
    return arguments;
}

VTTask::VTTask() = default;

VTTask::~VTTask()
{
    if (!m_watch)
        return;
    std::unique_lock lock(m_watch->mutex);
    m_watch->owner = nullptr;
    // An observer may destroy the task from inside the notice itself.
    auto self = std::this_thread::get_id();
    m_watch->noticeDelivered.wait(
        lock, [&] { return !m_watch->deliveringThread || *m_watch->deliveringThread == self; });
}

void VTTask::launch()
{
    if (m_pid > 0)
        throw VTTaskLaunchError("task for '" + m_launchPath + "' has already been launched");
    if (m_launchPath.empty())
        throw VTTaskLaunchError("task has no launch path");

    SpawnActions actions;
    Fd stdinChild, stdoutChild, stderrChild, stdinOurs, stdoutOurs, stderrOurs;
    connectStream(actions, m_stdin, STDIN_FILENO, stdinOurs, stdinChild);
    connectStream(actions, m_stdout, STDOUT_FILENO, stdoutOurs, stdoutChild);
    connectStream(actions, m_stderr, STDERR_FILENO, stderrOurs, stderrChild);
    if (m_currentDirectory)
        posix_spawn_file_actions_addchdir_np(actions.get(), m_currentDirectory->c_str());
    // A child gets its three standard streams and nothing else of ours: a
    // descriptor Wine holds in this process (the wait-children pipe above
    // all, whose last holder ends the loader's wait) must not live on in it.
    posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);

    // The strings' own bytes, unchanged: no normalisation on the way.
    std::vector<char*> argv;
    argv.push_back(m_launchPath.data());
    for (auto& argument : m_arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    std::vector<std::string> environmentStrings;
    std::vector<char*> envp;
    if (m_environment) {
        for (const auto& [name, value] : *m_environment)
            environmentStrings.push_back(name + "=" + value);
        for (auto& entry : environmentStrings)
            envp.push_back(entry.data());
        envp.push_back(nullptr);
    }

    SpawnAttributes attributes;
    pid_t pid = 0;
    int error = posix_spawn(&pid, m_launchPath.c_str(), actions.get(), attributes.get(), argv.data(),
                            m_environment ? envp.data() : environ);
    if (error != 0) {
        std::string reason = std::strerror(error);
        if (m_currentDirectory && access(m_currentDirectory->c_str(), X_OK) != 0)
            throw VTTaskLaunchError("cannot launch '" + m_launchPath + "' in directory '" + *m_currentDirectory
                                    + "': " + reason);
        throw VTTaskLaunchError("cannot launch '" + m_launchPath + "': " + reason);
    }

    m_pid = pid;
    m_stdinWriter = std::move(stdinOurs);
    m_stdoutReader = std::move(stdoutOurs);
    m_stderrReader = std::move(stderrOurs);
    m_watch = std::make_shared<detail::TaskWatch>();
    m_watch->owner = this;

    // The watch is not owned by the task: it reaps the child and then removes
    // itself, even when the task is long gone.
    GPtr<GSource> source = adopt(g_child_watch_source_new(pid));
    g_source_set_name(source.get(), "vt task end");
    g_source_set_callback(source.get(), reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(childEnded)),
                          new std::shared_ptr<detail::TaskWatch>(m_watch), deleteWatch);
    g_source_attach(source.get(), nullptr);
}

bool VTTask::isRunning() const
{
    if (!m_watch)
        return false;
    std::lock_guard lock(m_watch->mutex);
    return !m_watch->status;
}

std::optional<int> VTTask::terminationStatus() const
{
    if (!m_watch)
        return std::nullopt;
    std::lock_guard lock(m_watch->mutex);
    return m_watch->status;
}

} // namespace vt
