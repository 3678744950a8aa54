// One asynchronous D-Bus method call whose answer (the reply or the error's
// message) is taken on the default main context, and not at all once the
// caller has cancelled: the caller's object may be gone by then.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <gio/gio.h>

#include "base/glib_glue.hpp"

namespace vt {

using BusCallDone = std::function<void(GPtr<GVariant> reply, const std::string& error)>;

// Never auto-starts the destination. `what` names the other side in the
// log line said when `done` throws.
void callOnBus(GDBusConnection* connection, const char* destination, const char* path, const char* interface,
               const char* method, GVariant* parameters, const GVariantType* replyType,
               std::chrono::milliseconds timeout, GCancellable* cancellable, const char* what, BusCallDone done);

} // namespace vt
