#include "base/NotificationCenter.hpp"

#include <algorithm>

namespace vt {

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

void NotificationCenter::addObserver(const void* observer, std::string name, const void* object,
                                     Handler handler)
{
    auto registration = std::make_shared<Registration>(
        Registration { observer, std::move(name), object, std::move(handler) });
    std::lock_guard lock(m_mutex);
    m_registrations.push_back(std::move(registration));
}

void NotificationCenter::removeObserver(const void* observer)
{
    removeObserver(observer, {}, nullptr);
}

void NotificationCenter::removeObserver(const void* observer, const std::string& name,
                                        const void* object)
{
    std::lock_guard lock(m_mutex);
    std::erase_if(m_registrations, [&](const std::shared_ptr<Registration>& r) {
        bool matches = r->observer == observer && (name.empty() || r->name == name)
            && (!object || r->object == object);
        // A post in progress holds its own copy of the list; the flag stops it
        // from calling an observer that has gone away in the meantime.
        if (matches)
            r->removed = true;
        return matches;
    });
}

void NotificationCenter::post(std::string name, const void* object,
                              std::map<std::string, std::any> userInfo)
{
    post(Notification { std::move(name), object, std::move(userInfo) });
}

void NotificationCenter::post(const Notification& notification)
{
    std::vector<std::shared_ptr<Registration>> targets;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& r : m_registrations) {
            if ((r->name.empty() || r->name == notification.name)
                && (!r->object || r->object == notification.object))
                targets.push_back(r);
        }
    }
    // Handlers run without the lock, so they may post or (un)register freely.
    for (const auto& r : targets) {
        {
            std::lock_guard lock(m_mutex);
            if (r->removed)
                continue;
        }
        r->handler(notification);
    }
}

size_t NotificationCenter::observationCount(const void* observer) const
{
    std::lock_guard lock(m_mutex);
    return std::count_if(m_registrations.begin(), m_registrations.end(),
                         [&](const auto& r) { return r->observer == observer; });
}

} // namespace vt
