#include "base/NotificationCenter.hpp"

#include <algorithm>
#include <utility>

namespace vt {

struct Observation::Registration {
    std::string name;
    const void* object;
    NotificationCenter::Handler handler;
    // Guarded by the centre's mutex.
    bool removed = false;
    std::vector<std::thread::id> deliveringThreads;
};

Observation::Observation(NotificationCenter* center, std::shared_ptr<Registration> registration) noexcept
    : m_center(center), m_registration(std::move(registration))
{
}

Observation::Observation(Observation&& other) noexcept
    : m_center(std::exchange(other.m_center, nullptr)), m_registration(std::move(other.m_registration))
{
}

Observation& Observation::operator=(Observation&& other) noexcept
{
    if (this != &other) {
        reset();
        m_center = std::exchange(other.m_center, nullptr);
        m_registration = std::move(other.m_registration);
    }
    return *this;
}

void Observation::reset() noexcept
{
    if (m_registration)
        m_center->remove(*m_registration);
    m_registration.reset();
    m_center = nullptr;
}

NotificationCenter& NotificationCenter::defaultCenter()
{
    // Never destroyed: Wine, running inside the launcher on a thread of its
    // own, may end the process with exit() while a notice is being posted,
    // and static destructors run then.
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

Observation NotificationCenter::addObserver(std::string name, const void* object, Handler handler)
{
    auto registration = std::make_shared<Observation::Registration>(
        Observation::Registration { std::move(name), object, std::move(handler), false, {} });
    std::lock_guard lock(m_mutex);
    m_registrations.push_back(registration);
    return Observation(this, std::move(registration));
}

void NotificationCenter::remove(Observation::Registration& registration) noexcept
{
    std::unique_lock lock(m_mutex);
    registration.removed = true;
    std::erase_if(m_registrations, [&](const auto& r) { return r.get() == &registration; });
    // A delivery on this very thread is the caller's own handler (or one
    // further up its stack): waiting for it would never end.
    auto self = std::this_thread::get_id();
    m_deliveryEnded.wait(lock, [&] {
        return std::all_of(registration.deliveringThreads.begin(), registration.deliveringThreads.end(),
                           [&](std::thread::id thread) { return thread == self; });
    });
}

void NotificationCenter::post(std::string name, const void* object, std::map<std::string, std::string> userInfo)
{
    post(Notification { std::move(name), object, std::move(userInfo) });
}

void NotificationCenter::post(const Notification& notification)
{
    std::vector<std::shared_ptr<Observation::Registration>> targets;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& r : m_registrations) {
            if ((r->name.empty() || r->name == notification.name) && (!r->object || r->object == notification.object))
                targets.push_back(r);
        }
    }
    auto self = std::this_thread::get_id();
    for (const auto& r : targets) {
        {
            std::lock_guard lock(m_mutex);
            // Removed since the list was taken: it must not run again.
            if (r->removed)
                continue;
            r->deliveringThreads.push_back(self);
        }
        // Whatever the handler does, its delivery ends here, so that a
        // removal waiting on another thread goes on.
        struct DeliveryEnd {
            NotificationCenter& center;
            Observation::Registration& registration;
            std::thread::id thread;
            ~DeliveryEnd()
            {
                {
                    std::lock_guard lock(center.m_mutex);
                    auto& threads = registration.deliveringThreads;
                    threads.erase(std::find(threads.begin(), threads.end(), thread));
                }
                center.m_deliveryEnded.notify_all();
            }
        } end { *this, *r, self };
        r->handler(notification);
    }
}

} // namespace vt
