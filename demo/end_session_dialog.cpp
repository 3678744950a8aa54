// GNOME Shell's end-session dialog, for a desktop without the shell: owns
// org.gnome.Shell on the session bus with the dialog gnome-session opens when
// an application holds a logout up, and answers each opening as a user who
// keeps the session: Canceled, then Closed. Each opening is said on standard
// output with the inhibitors it listed.
//
//   vt-end-session-dialog        (runs until it is ended)
#include <cstdio>

#include <gio/gio.h>

namespace {

const char* const kPath = "/org/gnome/SessionManager/EndSessionDialog";
const char* const kInterface = "org.gnome.SessionManager.EndSessionDialog";
const char* const kXml = R"xml(
<node>
  <interface name="org.gnome.SessionManager.EndSessionDialog">
    <method name="Open">
      <arg name="type" type="u" direction="in"/>
      <arg name="timestamp" type="u" direction="in"/>
      <arg name="seconds_to_stay_open" type="u" direction="in"/>
      <arg name="inhibitor_object_paths" type="ao" direction="in"/>
    </method>
    <method name="Close"/>
    <signal name="ConfirmedLogout"/>
    <signal name="ConfirmedReboot"/>
    <signal name="ConfirmedShutdown"/>
    <signal name="Canceled"/>
    <signal name="Closed"/>
  </interface>
</node>)xml";

void emit(GDBusConnection* bus, const char* signal)
{
    g_dbus_connection_emit_signal(bus, nullptr, kPath, kInterface, signal, nullptr, nullptr);
}

void onCall(GDBusConnection* bus, const char*, const char*, const char*, const char* method, GVariant* parameters,
            GDBusMethodInvocation* invocation, gpointer)
{
    if (g_strcmp0(method, "Open") == 0) {
        guint32 type = 0;
        GVariantIter* inhibitors = nullptr;
        g_variant_get(parameters, "(uuuao)", &type, nullptr, nullptr, &inhibitors);
        // Answered first: gnome-session serves the inhibitors' questions
        // once it has the answer.
        g_dbus_method_invocation_return_value(invocation, nullptr);
        std::printf("end-session dialog: opened (type %u)\n", type);
        const char* inhibitor = nullptr;
        while (g_variant_iter_next(inhibitors, "&o", &inhibitor)) {
            GVariant* reason = g_dbus_connection_call_sync(
                bus, "org.gnome.SessionManager", inhibitor, "org.gnome.SessionManager.Inhibitor", "GetReason",
                nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
            const char* text = nullptr;
            if (reason)
                g_variant_get(reason, "(&s)", &text);
            std::printf("end-session dialog: it lists \"%s\"\n", text ? text : "(no reason)");
            if (reason)
                g_variant_unref(reason);
        }
        g_variant_iter_free(inhibitors);
        std::printf("end-session dialog: the user cancels\n");
        std::fflush(stdout);
        emit(bus, "Canceled");
        emit(bus, "Closed");
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

} // namespace

int main()
{
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    GDBusNodeInfo* node = bus ? g_dbus_node_info_new_for_xml(kXml, &error) : nullptr;
    static const GDBusInterfaceVTable table = { onCall, nullptr, nullptr, { nullptr } };
    if (!node || !g_dbus_connection_register_object(bus, kPath, node->interfaces[0], &table, nullptr, nullptr, &error)) {
        std::fprintf(stderr, "vt-end-session-dialog: %s\n", error ? error->message : "no bus");
        return 1;
    }
    g_bus_own_name_on_connection(bus, "org.gnome.Shell", G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr,
                                 nullptr);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
}
