// The main loop (GLib's default main context) and the ways onto it: owned
// timeout sources, delayed calls owned by their target, and a queue through
// which other threads run work on the main thread.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <type_traits>

#include "base/glib_glue.hpp"

namespace vt {

// True on the thread that runs the main loop: the process's first thread.
bool isMainThread();

// A main-loop source with a name and a callback, attached to `context` (the
// default main context when null) and removed when this object goes away. It
// may be stopped or destroyed from inside its own callback. The callback
// answers true to stay attached.
class OwnedSource {
public:
    OwnedSource() = default;
    OwnedSource(GPtr<GSource> source, const char* name, std::function<bool()> callback,
                GMainContext* context = nullptr);
    // For a source whose callback type is not GSourceFunc: `dispatch` is
    // called by GLib as that type, with the callback's data last.
    OwnedSource(GPtr<GSource> source, const char* name, std::function<bool()> callback, GMainContext* context,
                GSourceFunc dispatch);
    OwnedSource(OwnedSource&&) noexcept = default;
    OwnedSource& operator=(OwnedSource&& other) noexcept;
    ~OwnedSource() { stop(); }

    void stop() noexcept;
    bool isActive() const noexcept;

private:
    GPtr<GSource> m_source;
};

// A timeout: runs after `interval`, and again after each interval while the
// callback answers true.
class TimeoutSource : public OwnedSource {
public:
    TimeoutSource() = default;
    TimeoutSource(const char* name, std::chrono::milliseconds interval, std::function<bool()> callback,
                  GMainContext* context = nullptr);
};

// A Unix signal (SIGTERM, SIGINT, SIGHUP...) delivered as a main-loop callback.
class UnixSignalSource : public OwnedSource {
public:
    UnixSignalSource() = default;
    UnixSignalSource(const char* name, int signalNumber, std::function<bool()> callback,
                     GMainContext* context = nullptr);
};

// A descriptor that is readable (or hung up, or in error) delivered as a
// main-loop callback, while it stays attached.
class UnixFdSource : public OwnedSource {
public:
    UnixFdSource() = default;
    UnixFdSource(const char* name, int fd, std::function<bool()> callback, GMainContext* context = nullptr);
};

// Delayed calls that belong to the object that scheduled them: all pending
// calls are cancelled together, or when the owner is destroyed.
class DelayedCalls {
public:
    DelayedCalls() = default;
    DelayedCalls(const DelayedCalls&) = delete;
    DelayedCalls& operator=(const DelayedCalls&) = delete;
    ~DelayedCalls() { cancelAll(); }

    void schedule(std::chrono::milliseconds delay, std::function<void()> call);
    void cancelAll() noexcept;
    size_t pending() const noexcept { return m_calls.size(); }

private:
    std::list<TimeoutSource> m_calls;
};

// Queues `work` to run on the main loop; returns at once.
void runOnMain(std::function<void()> work);

// Held by an object that queues work for the main loop on its own behalf:
// work queued through it runs only while the object still lives. The object
// is destroyed on the main thread, where the work runs, so the two never race.
class MainQueueToken {
public:
    void post(std::function<void()> work) const;

private:
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};

// Runs `work` on the main loop and waits for its result (or exception). On
// the main thread it runs at once, so the main thread never waits for itself.
template <typename F> std::invoke_result_t<F> runOnMainAndWait(F&& work)
{
    if (isMainThread())
        return work();
    auto task = std::make_shared<std::packaged_task<std::invoke_result_t<F>()>>(std::forward<F>(work));
    auto result = task->get_future();
    runOnMain([task] { (*task)(); });
    return result.get();
}

} // namespace vt
