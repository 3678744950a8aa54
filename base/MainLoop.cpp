#include "base/MainLoop.hpp"

#include <deque>
#include <glib-unix.h>
#include <mutex>
#include <thread>

namespace vt {

namespace {
    // Static initialisation runs on the process's first thread, which is the
    // one that runs the main loop.
    const std::thread::id mainThreadId = std::this_thread::get_id();

    gboolean dispatchSource(gpointer data) noexcept
    {
        auto* callback = static_cast<std::function<bool()>*>(data);
        try {
            return (*callback)() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
        } catch (...) {
            g_critical("a main-loop callback threw; it will not run again");
            return G_SOURCE_REMOVE;
        }
    }

    gboolean dispatchFdSource(gint, GIOCondition, gpointer data) noexcept { return dispatchSource(data); }

    void deleteCallback(gpointer data) noexcept { delete static_cast<std::function<bool()>*>(data); }
} // namespace

bool isMainThread() { return std::this_thread::get_id() == mainThreadId; }

OwnedSource::OwnedSource(GPtr<GSource> source, const char* name, std::function<bool()> callback,
                         GMainContext* context)
    : OwnedSource(std::move(source), name, std::move(callback), context, dispatchSource)
{
}

OwnedSource::OwnedSource(GPtr<GSource> source, const char* name, std::function<bool()> callback,
                         GMainContext* context, GSourceFunc dispatch)
    : m_source(std::move(source))
{
    g_source_set_name(m_source.get(), name);
    // GLib keeps the callback data alive until a running dispatch returns,
    // so destroying this object from inside the callback is safe.
    g_source_set_callback(m_source.get(), dispatch, new std::function<bool()>(std::move(callback)), deleteCallback);
    g_source_attach(m_source.get(), context);
}

UnixFdSource::UnixFdSource(const char* name, int fd, std::function<bool()> callback, GMainContext* context)
    : OwnedSource(adopt(g_unix_fd_source_new(fd, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR))), name,
                  std::move(callback), context, reinterpret_cast<GSourceFunc>(reinterpret_cast<void*>(dispatchFdSource)))
{
}

TimeoutSource::TimeoutSource(const char* name, std::chrono::milliseconds interval,
                             std::function<bool()> callback, GMainContext* context)
    : OwnedSource(adopt(g_timeout_source_new(static_cast<guint>(interval.count()))), name,
                  std::move(callback), context)
{
}

UnixSignalSource::UnixSignalSource(const char* name, int signalNumber, std::function<bool()> callback,
                                   GMainContext* context)
    : OwnedSource(adopt(g_unix_signal_source_new(signalNumber)), name, std::move(callback), context)
{
}

OwnedSource& OwnedSource::operator=(OwnedSource&& other) noexcept
{
    if (this != &other) {
        stop();
        m_source = std::move(other.m_source);
    }
    return *this;
}

void OwnedSource::stop() noexcept
{
    if (m_source) {
        g_source_destroy(m_source.get());
        m_source.reset();
    }
}

bool OwnedSource::isActive() const noexcept
{
    return m_source && !g_source_is_destroyed(m_source.get());
}

void DelayedCalls::schedule(std::chrono::milliseconds delay, std::function<void()> call)
{
    auto entry = m_calls.emplace(m_calls.end());
    *entry = TimeoutSource("vt delayed call", delay, [this, entry, call = std::move(call)]() mutable {
        // Take the call out first: erasing the entry destroys this lambda's
        // source, and the call may cancel or schedule others.
        auto pendingCall = std::move(call);
        m_calls.erase(entry);
        pendingCall();
        return false;
    });
}

void DelayedCalls::cancelAll() noexcept { m_calls.clear(); }

namespace {
    class MainQueue {
    public:
        static MainQueue& shared()
        {
            // Never destroyed: a thread that posts while the process ends
            // (Wine's, which may call exit() itself) must find it whole.
            static MainQueue* queue = new MainQueue;
            return *queue;
        }

        void push(std::function<void()> work)
        {
            std::lock_guard lock(m_mutex);
            m_work.push_back(std::move(work));
            if (m_wakeupPending)
                return;
            m_wakeupPending = true;
            // Attaching a source wakes the main context from another thread.
            GPtr<GSource> idle = adopt(g_idle_source_new());
            g_source_set_name(idle.get(), "vt main queue");
            g_source_set_callback(idle.get(), drain, this, nullptr);
            g_source_attach(idle.get(), nullptr);
        }

    private:
        static gboolean drain(gpointer data) noexcept
        {
            auto* self = static_cast<MainQueue*>(data);
            std::deque<std::function<void()>> work;
            {
                std::lock_guard lock(self->m_mutex);
                work.swap(self->m_work);
                self->m_wakeupPending = false;
            }
            for (auto& item : work) {
                try {
                    item();
                } catch (...) {
                    g_critical("work queued for the main loop threw");
                }
            }
            return G_SOURCE_REMOVE;
        }

        std::mutex m_mutex;
        std::deque<std::function<void()>> m_work;
        bool m_wakeupPending = false;
    };
} // namespace

void runOnMain(std::function<void()> work) { MainQueue::shared().push(std::move(work)); }

void MainQueueToken::post(std::function<void()> work) const
{
    runOnMain([alive = std::weak_ptr<int>(m_alive), work = std::move(work)] {
        if (!alive.expired())
            work();
    });
}

} // namespace vt
