// A thread-safe notification centre: observers register for a notification
// name and/or a posting object, and posts are delivered synchronously on the
// posting thread, in registration order.
#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vt {

struct Notification {
    std::string name;
    const void* object = nullptr;
    std::map<std::string, std::any> userInfo;
};

class NotificationCenter {
public:
    using Handler = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // An empty name matches every name; a null object matches every object.
    void addObserver(const void* observer, std::string name, const void* object, Handler handler);

    // Removes every registration of the observer.
    void removeObserver(const void* observer);
    // Removes the observer's registrations that match name and object, where
    // an empty name or a null object stands for any.
    void removeObserver(const void* observer, const std::string& name, const void* object);

    void post(const Notification& notification);
    void post(std::string name, const void* object, std::map<std::string, std::any> userInfo = {});

    size_t observationCount(const void* observer) const;

private:
    struct Registration {
        const void* observer;
        std::string name;
        const void* object;
        Handler handler;
        bool removed = false; // guarded by m_mutex
    };

    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<Registration>> m_registrations;
};

} // namespace vt
