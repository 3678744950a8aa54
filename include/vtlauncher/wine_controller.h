/*
 * The seam through which an in-process Wine display driver takes part in the
 * launcher's life once Wine runs inside the launcher process.
 *
 * The driver fills a vt_wine_controller with the callbacks it implements
 * (a null callback is one it does not answer), sets `size` to
 * sizeof(vt_wine_controller) and registers it with vt_set_wine_controller(),
 * from any thread. From then on every event of the launcher is offered to
 * handle_event first; did_send_event follows the launcher's own dispatch of
 * every event that was not consumed; and the driver receives exactly those
 * life-cycle notifications whose callbacks it set. Every callback is called
 * on the launcher's main thread, which runs its event loop, whichever thread
 * registered it. The launcher copies the structure but does not own `context`.
 */
#ifndef VTLAUNCHER_WINE_CONTROLLER_H
#define VTLAUNCHER_WINE_CONTROLLER_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VT_EXPORT __attribute__((visibility("default")))

typedef enum vt_event_type {
    VT_EVENT_OPEN_UNTITLED = 1, /* launched without documents */
    VT_EVENT_OPEN_FILES = 2,    /* items: absolute file paths */
    VT_EVENT_OPEN_URL = 3,      /* items[0]: the URL */
    VT_EVENT_REOPEN = 4,        /* launched again while running, no documents;
                                   its untitled-file questions follow without
                                   an event of their own */
    VT_EVENT_ACTIVATE = 5,      /* the user activated the launcher */
    VT_EVENT_QUIT_REQUEST = 6,  /* a signal, the quit action or the menu */
    VT_EVENT_MENU_ITEM = 7      /* action: the menu item's action */
} vt_event_type;

typedef struct vt_event {
    vt_event_type type;
    const char* const* items;
    size_t item_count;
    const char* action;
} vt_event;

/* Replies to the quit question; LATER waits for
 * vt_reply_to_application_should_terminate(). */
typedef enum vt_terminate_reply {
    VT_TERMINATE_CANCEL = 0,
    VT_TERMINATE_NOW = 1,
    VT_TERMINATE_LATER = 2
} vt_terminate_reply;

typedef void (*vt_notification_callback)(void* context);

typedef struct vt_wine_controller {
    /* sizeof(vt_wine_controller) as the driver was built. The structure only
     * ever grows at its end: the launcher reads no field beyond `size`, so a
     * driver built against an older header keeps working, its missing
     * callbacks counted as not answered. */
    size_t size;
    void* context;

    bool (*handle_event)(void* context, const vt_event* event); /* true: consumed */
    void (*did_send_event)(void* context, const vt_event* event);

    /* Life-cycle notifications, one callback each. The launcher has no window
     * of its own: become/resign active and hide/unhide follow the user's
     * activations and the launcher's own hiding (a hidden launcher is never
     * active), will/did update close each turn of the event loop that brought
     * an event, and did_change_screen_parameters is never called, as the
     * driver's own display connection tells it about monitors. */
    vt_notification_callback application_did_become_active;
    vt_notification_callback application_did_change_screen_parameters;
    vt_notification_callback application_did_finish_launching;
    vt_notification_callback application_did_hide;
    vt_notification_callback application_did_resign_active;
    vt_notification_callback application_did_unhide;
    vt_notification_callback application_did_update;
    vt_notification_callback application_will_become_active;
    vt_notification_callback application_will_finish_launching;
    vt_notification_callback application_will_hide;
    vt_notification_callback application_will_resign_active;
    vt_notification_callback application_will_terminate;
    vt_notification_callback application_will_unhide;
    vt_notification_callback application_will_update;

    /* Questions that expect an answer. An answer to should_terminate that is
     * none of the three replies is logged and taken as VT_TERMINATE_CANCEL:
     * a quit that nobody clearly agreed to must not lose the user's work. */
    vt_terminate_reply (*should_terminate)(void* context);
    bool (*should_handle_reopen)(void* context, bool has_visible_windows);
} vt_wine_controller;

/* Registers `controller` (copied), replacing any earlier one; NULL clears.
 * A controller whose `size` does not reach past `context` is refused (logged).
 * From any thread: the registration is made on the main thread and is in place
 * when this returns (on the main thread, at once). The launcher's main thread
 * never waits for one of its threads, but it does wait for the answer to a
 * window command: register before the calling thread owns a window. */
VT_EXPORT void vt_set_wine_controller(const vt_wine_controller* controller);

/* Answers a quit question that was answered with VT_TERMINATE_LATER. From any
 * thread, also from inside should_terminate: the reply is queued and the main
 * loop takes it once the question is open; an agreed quit ends the process
 * there, never inside this call. */
VT_EXPORT void vt_reply_to_application_should_terminate(bool should_terminate);

#ifdef __cplusplus
}
#endif

#endif
