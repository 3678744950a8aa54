#include "base/BusCall.hpp"

#include <memory>

#include "base/VTLog.hpp"

namespace vt {

namespace {
    struct PendingCall {
        GPtr<GCancellable> cancellable;
        const char* what;
        BusCallDone done;
    };
} // namespace

void callOnBus(GDBusConnection* connection, const char* destination, const char* path, const char* interface,
               const char* method, GVariant* parameters, const GVariantType* replyType,
               std::chrono::milliseconds timeout, GCancellable* cancellable, const char* what, BusCallDone done)
{
    auto* pending = new PendingCall { cancellable ? addRef(cancellable) : GPtr<GCancellable>(), what, std::move(done) };
    g_dbus_connection_call(
        connection, destination, path, interface, method, parameters, replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START,
        static_cast<int>(timeout.count()), cancellable,
        +[](GObject* source, GAsyncResult* result, gpointer data) noexcept {
            std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(data));
            GErrorHolder error;
            GPtr<GVariant> reply = adopt(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error));
            if (call->cancellable && g_cancellable_is_cancelled(call->cancellable.get()))
                return;
            try {
                call->done(std::move(reply), reply ? std::string() : error.message());
            } catch (...) {
                VTLog("an answer of %s could not be taken", call->what);
            }
        },
        pending);
}

} // namespace vt
