// The stand-in Wine library, libwine.so.1: what the launcher loads from the
// product's lib64 directory and runs inside its own process once a Wine
// loader has handed its start over. It proves what it was given through
// records (standin/record/Record.hpp: wine-init, mmap, controller) and plays
// the in-process display driver through the launcher's controller seam
// (vtlauncher/wine_controller.h).
//
// VT_STANDIN_WINE, read by wine_init (it comes with the start request's
// environment), chooses the behaviour; comma-separated words:
//   fail              wine_init writes an error text and returns, as Wine
//                     does when it cannot start
//   no-controller     registers no controller
//   terminate=now|cancel|later-yes|later-no
//                     answers the quit question (default: no answer, so the
//                     launcher ends the session its own way); later-* answers
//                     LATER, then a moment later answers yes or no from a
//                     thread of its own
//   reopen=yes|no     answers the reopen question (default: no answer)
//   consume=<number>  handle_event consumes events of that type
//   exit=<status>     after its record wine_init ends the process with
//                     exit(status), as Wine does once the Windows program
//                     has ended
//   exit-when=<path>  the same with status 0 once <path> exists: the
//                     program ends when the test says so (it took
//                     WM_ENDSESSION, say), with the launcher in the middle
//                     of whatever it was doing
// Otherwise it registers a controller that records every notification,
// handle_event and did_send_event, consuming nothing, and wine_init keeps its
// thread forever, as the Windows program would.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include "standin/record/Record.hpp"
#include "vtlauncher/wine_controller.h"

extern char** environ;

#define WINE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using vt::standin::Record;

// Trivially destructible: the registered one is a global that the
// launcher's controller may still use while the process exits.
struct Behaviour {
    bool fail = false;
    bool registersController = true;
    std::optional<vt_terminate_reply> terminateReply;
    bool laterAnswer = false; // the answer given after LATER
    std::optional<bool> reopenReply;
    std::optional<int> consumedType;
    std::optional<int> exitStatus;
};

// `exitWhen` (kept apart: the controller's copy of the behaviour must stay
// trivially destructible) gets the file of exit-when=.
Behaviour behaviourFromEnvironment(std::string& exitWhen)
{
    Behaviour behaviour;
    const char* setting = std::getenv("VT_STANDIN_WINE");
    std::string_view words = setting ? setting : "";
    while (!words.empty()) {
        size_t comma = words.find(',');
        std::string_view word = words.substr(0, comma);
        words = comma == std::string_view::npos ? std::string_view() : words.substr(comma + 1);
        if (word == "fail")
            behaviour.fail = true;
        else if (word == "no-controller")
            behaviour.registersController = false;
        else if (word == "terminate=now")
            behaviour.terminateReply = VT_TERMINATE_NOW;
        else if (word == "terminate=cancel")
            behaviour.terminateReply = VT_TERMINATE_CANCEL;
        else if (word == "terminate=later-yes" || word == "terminate=later-no") {
            behaviour.terminateReply = VT_TERMINATE_LATER;
            behaviour.laterAnswer = word == "terminate=later-yes";
        } else if (word == "reopen=yes" || word == "reopen=no")
            behaviour.reopenReply = word == "reopen=yes";
        else if (word.starts_with("consume="))
            behaviour.consumedType = std::atoi(std::string(word.substr(8)).c_str());
        else if (word.starts_with("exit="))
            behaviour.exitStatus = std::atoi(std::string(word.substr(5)).c_str());
        else if (word.starts_with("exit-when="))
            exitWhen = word.substr(10);
        else if (!word.empty())
            std::fprintf(stderr, "stand-in Wine: unknown word \"%.*s\" in VT_STANDIN_WINE\n",
                         static_cast<int>(word.size()), word.data());
    }
    return behaviour;
}

const char* yesNo(bool value) { return value ? "yes" : "no"; }

bool onMainThread() { return gettid() == getpid(); }

std::string hex(unsigned long long value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", value);
    return text;
}

// The variable's value and what its number stands for in this process.
void addDescriptorVariable(Record& record, const char* variable, const std::string& field)
{
    const char* value = std::getenv(variable);
    if (!value)
        return;
    char* end = nullptr;
    errno = 0;
    long fd = std::strtol(value, &end, 10);
    bool number = *value && !*end && errno == 0 && fd >= 0 && fd <= INT32_MAX;
    int flags = number ? fcntl(static_cast<int>(fd), F_GETFD) : -1;
    record.add(field, value);
    record.add(field + "-open", yesNo(flags >= 0));
    record.add(field + "-cloexec", yesNo(flags >= 0 && (flags & FD_CLOEXEC)));
}

Record initRecord(int argc, char* argv[])
{
    Record record("wine-init");
    for (int i = 0; i < argc && argv[i]; ++i)
        record.add("arg", argv[i]);
    std::error_code error;
    record.add("cwd", std::filesystem::current_path(error).string());
    for (char** entry = environ; *entry; ++entry)
        record.add("env", *entry);
    record.add("stdin", vt::standin::descriptorKind(STDIN_FILENO));
    record.add("stdout", vt::standin::descriptorKind(STDOUT_FILENO));
    record.add("stderr", vt::standin::descriptorKind(STDERR_FILENO));
    record.add("main-thread", yesNo(onMainThread()));
    addDescriptorVariable(record, "WINESERVERSOCKET", "server-socket");
    addDescriptorVariable(record, "WINE_WAIT_CHILD_PIPE", "wait-child-pipe");
    return record;
}

// The controller's callbacks. The launcher calls them from C: nothing may
// be thrown back at it.

Record callbackRecord(const char* callback)
{
    Record record("controller");
    record.add("callback", callback).add("main-thread", yesNo(onMainThread()));
    return record;
}

void addEvent(Record& record, const vt_event* event)
{
    record.add("event", std::to_string(static_cast<int>(event->type)));
    for (size_t i = 0; i < event->item_count; ++i)
        record.add("item", event->items[i] ? event->items[i] : "");
    if (event->action)
        record.add("action", event->action);
}

bool handleEvent(void* context, const vt_event* event) noexcept
{
    const auto& behaviour = *static_cast<const Behaviour*>(context);
    bool consumed = behaviour.consumedType == static_cast<int>(event->type);
    try {
        Record record = callbackRecord("handle_event");
        addEvent(record, event);
        vt::standin::send(record.add("consumed", yesNo(consumed)));
    } catch (...) {
    }
    return consumed;
}

void didSendEvent(void*, const vt_event* event) noexcept
{
    try {
        Record record = callbackRecord("did_send_event");
        addEvent(record, event);
        vt::standin::send(record);
    } catch (...) {
    }
}

void answerQuitLater(bool answer)
{
    // A driver answers once its own windows have agreed to close: some time
    // after the question, on a thread of its own.
    std::thread([answer] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        try {
            vt::standin::send(Record("controller")
                                  .add("callback", "reply_to_application_should_terminate")
                                  .add("main-thread", "no")
                                  .add("reply", yesNo(answer)));
        } catch (...) {
        }
        using Reply = void (*)(bool);
        if (auto reply = reinterpret_cast<Reply>(dlsym(RTLD_DEFAULT, "vt_reply_to_application_should_terminate")))
            reply(answer);
    }).detach();
}

vt_terminate_reply shouldTerminate(void* context) noexcept
{
    const auto& behaviour = *static_cast<const Behaviour*>(context);
    vt_terminate_reply reply = behaviour.terminateReply.value_or(VT_TERMINATE_CANCEL);
    try {
        const char* names[] = { "cancel", "now", "later" };
        vt::standin::send(callbackRecord("should_terminate").add("reply", names[reply]));
        if (reply == VT_TERMINATE_LATER)
            answerQuitLater(behaviour.laterAnswer);
    } catch (...) {
    }
    return reply;
}

bool shouldHandleReopen(void* context, bool hasVisibleWindows) noexcept
{
    bool reply = static_cast<const Behaviour*>(context)->reopenReply.value_or(true);
    try {
        vt::standin::send(callbackRecord("should_handle_reopen")
                              .add("visible-windows", yesNo(hasVisibleWindows))
                              .add("reply", yesNo(reply)));
    } catch (...) {
    }
    return reply;
}

struct Notification {
    const char* name;
    vt_notification_callback vt_wine_controller::*slot;
};

constexpr Notification kNotifications[] = {
    { "application_did_become_active", &vt_wine_controller::application_did_become_active },
    { "application_did_change_screen_parameters", &vt_wine_controller::application_did_change_screen_parameters },
    { "application_did_finish_launching", &vt_wine_controller::application_did_finish_launching },
    { "application_did_hide", &vt_wine_controller::application_did_hide },
    { "application_did_resign_active", &vt_wine_controller::application_did_resign_active },
    { "application_did_unhide", &vt_wine_controller::application_did_unhide },
    { "application_did_update", &vt_wine_controller::application_did_update },
    { "application_will_become_active", &vt_wine_controller::application_will_become_active },
    { "application_will_finish_launching", &vt_wine_controller::application_will_finish_launching },
    { "application_will_hide", &vt_wine_controller::application_will_hide },
    { "application_will_resign_active", &vt_wine_controller::application_will_resign_active },
    { "application_will_terminate", &vt_wine_controller::application_will_terminate },
    { "application_will_unhide", &vt_wine_controller::application_will_unhide },
    { "application_will_update", &vt_wine_controller::application_will_update },
};

template <size_t Index> void notified(void*) noexcept
{
    try {
        vt::standin::send(callbackRecord(kNotifications[Index].name));
    } catch (...) {
    }
}

template <size_t... Index> void setNotificationCallbacks(vt_wine_controller& controller, std::index_sequence<Index...>)
{
    ((controller.*(kNotifications[Index].slot) = &notified<Index>), ...);
}

// The registered controller's context. A process runs one Wine, and it
// never gives its controller back; the context stays as long as the
// process, and nothing about it needs destroying.
Behaviour controllerBehaviour;
static_assert(std::is_trivially_destructible_v<Behaviour>);

// Registers a controller for `behaviour`; what the wine-init record says
// about it.
const char* registerController(const Behaviour& behaviour)
{
    if (!behaviour.registersController)
        return "none";
    using Register = void (*)(const vt_wine_controller*);
    // Looked up, not linked: the library also loads into a process without the seam.
    auto registerWith = reinterpret_cast<Register>(dlsym(RTLD_DEFAULT, "vt_set_wine_controller"));
    if (!registerWith)
        return "unavailable";
    vt_wine_controller controller {};
    controller.size = sizeof controller;
    controllerBehaviour = behaviour;
    controller.context = &controllerBehaviour;
    controller.handle_event = handleEvent;
    controller.did_send_event = didSendEvent;
    setNotificationCallbacks(controller, std::make_index_sequence<std::size(kNotifications)>());
    // Without these two the launcher answers its own questions, as it does
    // for a driver that leaves them to the application.
    if (behaviour.terminateReply)
        controller.should_terminate = shouldTerminate;
    if (behaviour.reopenReply)
        controller.should_handle_reopen = shouldHandleReopen;
    registerWith(&controller);
    return "registered";
}

void writeError(char* error, int errorSize, const char* text)
{
    if (error && errorSize > 0)
        std::snprintf(error, static_cast<size_t>(errorSize), "%s", text);
}

} // namespace

WINE_EXPORT void wine_init(int argc, char* argv[], char* error, int error_size) noexcept
{
    try {
        std::string exitWhen;
        Behaviour behaviour = behaviourFromEnvironment(exitWhen);
        Record record = initRecord(argc, argv);
        if (behaviour.fail) {
            vt::standin::send(record.add("controller", "none"));
            writeError(error, error_size, "the stand-in Wine was told to fail (VT_STANDIN_WINE)");
            return;
        }
        vt::standin::send(record.add("controller", registerController(behaviour)));
        if (behaviour.exitStatus)
            std::exit(*behaviour.exitStatus);
        if (!exitWhen.empty()) {
            while (!std::filesystem::exists(exitWhen))
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            std::exit(0);
        }
    } catch (const std::exception& e) {
        writeError(error, error_size, e.what());
        return;
    } catch (...) {
        writeError(error, error_size, "the stand-in Wine failed");
        return;
    }
    // The Windows program runs here from now on; it has nothing to do.
    for (;;)
        pause();
}

// Address space: these only record. The launcher may run under
// AddressSanitizer, whose shadow memory lies where Wine's ranges would be.
WINE_EXPORT void* wine_anon_mmap(void* start, size_t size, int prot, int flags) noexcept
{
    try {
        vt::standin::send(Record("mmap")
                              .add("call", "wine_anon_mmap")
                              .add("start", hex(reinterpret_cast<uintptr_t>(start)))
                              .add("size", hex(size))
                              .add("prot", hex(static_cast<unsigned>(prot)))
                              .add("flags", hex(static_cast<unsigned>(flags))));
    } catch (...) {
    }
    return start;
}

WINE_EXPORT void wine_mmap_add_reserved_area(void* addr, size_t size) noexcept
{
    try {
        vt::standin::send(Record("mmap")
                              .add("call", "wine_mmap_add_reserved_area")
                              .add("start", hex(reinterpret_cast<uintptr_t>(addr)))
                              .add("size", hex(size)));
    } catch (...) {
    }
}
