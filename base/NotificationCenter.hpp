// A thread-safe notification centre: observers register for a notification
// name and/or a posting object, and posts are delivered synchronously on the
// posting thread, in registration order.
//
// A registration is an Observation, a move-only object that removes it when
// it goes away: nobody removes observers by hand on each failure path, and
// nothing is keyed by an observer's address.
//
// It carries only the notifications other parties see: the application's
// life-cycle (a Wine controller receives them), the process wrapper's
// termination notice and the loader's wrong-architecture notification. The
// launcher's own collaborators are wired with typed callbacks instead.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vt {

struct Notification {
    std::string name;
    const void* object = nullptr;
    // The user-info dictionary. Its values are texts: the notifications the
    // launcher posts for others carry nothing else (the loader's refused
    // architecture), and a typed value cannot be taken for another type.
    std::map<std::string, std::string> userInfo;
};

class NotificationCenter;

// One registration with a notification centre. Destroying or resetting it
// removes the registration, and when that returns its handler is not running
// on any other thread and will not run again. It may be reset from inside its
// own handler (the call then returns at once). Two handlers on two threads
// that each remove the other's observation would wait for each other: don't.
class Observation {
public:
    Observation() noexcept = default;
    Observation(Observation&& other) noexcept;
    Observation& operator=(Observation&& other) noexcept;
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;
    ~Observation() { reset(); }

    void reset() noexcept;
    explicit operator bool() const noexcept { return m_registration != nullptr; }

private:
    friend class NotificationCenter;
    struct Registration;
    Observation(NotificationCenter* center, std::shared_ptr<Registration> registration) noexcept;

    NotificationCenter* m_center = nullptr;
    std::shared_ptr<Registration> m_registration;
};

class NotificationCenter {
public:
    using Handler = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // An empty name matches every name; a null object matches every object.
    [[nodiscard]] Observation addObserver(std::string name, const void* object, Handler handler);

    // Handlers run without any lock held: they may post, observe and remove
    // observations freely. An exception from a handler reaches the poster.
    void post(const Notification& notification);
    void post(std::string name, const void* object, std::map<std::string, std::string> userInfo = {});

private:
    friend class Observation;
    void remove(Observation::Registration& registration) noexcept;

    std::mutex m_mutex;
    std::condition_variable m_deliveryEnded;
    std::vector<std::shared_ptr<Observation::Registration>> m_registrations;
};

} // namespace vt
