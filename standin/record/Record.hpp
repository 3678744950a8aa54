// The one way the stand-in product tells a test (or the demo) what happened:
// records, each sent as one datagram to the Unix datagram socket that
// VT_STANDIN_RECORDS names. Without that variable nothing is sent.
//
// A datagram holds the record's kind on its first line, then one line
// "<name>=<value>" per field, in order; a name may repeat. In a value "\\"
// stands for a backslash and "\n" for a line end, so every byte arrives as
// it was (UTF-8, blanks, control characters). send() puts two fields first:
// "pid", the sender's process id, and "ms", CLOCK_MONOTONIC in milliseconds
// (g_get_monotonic_time() / 1000 in any process).
//
// Kinds and their fields:
//   tool      vtmenu, vtstart or wine started: role, started (CLOCK_MONOTONIC
//             in nanoseconds, read first thing in main), fd (each descriptor
//             it was started with: its number, a blank and what it is, as
//             descriptorKind() names it), arg (argv[0] first), env
//             (NAME=VALUE, each as given), cwd, stdin and stdout (what the
//             descriptor is)
//   tool-end  a tool is ending: role, and either signal and sender (the
//             signal that ended it and the pid that sent it) or reason
//   request   the window-command tool received a request: line (its bytes,
//             line end included)
//   call      the helper server received a call: method, argument (the
//             bottle or the tag, when the method has one), reply
//             ("expecting-reply" when the caller waits for an answer)
//   main-app  the main application: event (started, open or activate) and
//             arg (argv for started, the URIs for open)
//   loader    vtmenu or vtstart, acting as the Wine loader, handed its
//             start to the launcher: role, socket (the path it connected
//             to), outcome (proceed; refused when the connection ended
//             without that answer; unreachable when it could not connect)
//   wine-init the stand-in Wine library's wine_init was called: arg (argv,
//             each), cwd, env (the whole environment, each NAME=VALUE),
//             stdin, stdout and stderr (descriptorKind()), main-thread (yes
//             when called on the process's main thread, else no), and for
//             each of WINESERVERSOCKET and WINE_WAIT_CHILD_PIPE that is set
//             its value (server-socket, wait-child-pipe) and whether that
//             number is an open descriptor (server-socket-open,
//             wait-child-pipe-open) and close-on-exec (server-socket-cloexec,
//             wait-child-pipe-cloexec), yes or no; and last controller:
//             registered (the record follows the registration), none, or
//             unavailable (the process has no vt_set_wine_controller)
//   mmap      a call of the stand-in Wine library's address-space functions,
//             which only record: call (wine_anon_mmap or
//             wine_mmap_add_reserved_area), start, size and, for
//             wine_anon_mmap, prot and flags, all in hexadecimal ("0x50")
//   controller the launcher called the stand-in Wine's controller: callback
//             (the member's name in vt_wine_controller), main-thread (yes or
//             no); for handle_event and did_send_event: event (the type's
//             number), item (each), action (when there is one) and, for
//             handle_event, consumed (yes or no); for should_terminate:
//             reply (now, cancel or later); for should_handle_reopen:
//             visible-windows and reply (yes or no). The answer given later
//             to a quit question is recorded just before it is given, as
//             callback reply_to_application_should_terminate with reply yes
//             or no.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt::standin {

inline constexpr const char* kRecordsVariable = "VT_STANDIN_RECORDS";

struct Record {
    Record() = default;
    explicit Record(std::string recordKind) : kind(std::move(recordKind)) {}

    std::string kind;
    std::vector<std::pair<std::string, std::string>> fields;

    Record& add(std::string name, std::string value)
    {
        fields.emplace_back(std::move(name), std::move(value));
        return *this;
    }
    // The first value named `name`; empty when there is none.
    std::string value(std::string_view name) const;
    std::vector<std::string> values(std::string_view name) const;

    std::string encode() const;
    static Record decode(std::string_view datagram);
};

// Sends `record`, with pid and ms first; false when it was not sent.
bool send(Record record);

// What the descriptor `fd` is: null (the null device), pipe, socket, other,
// or closed.
std::string descriptorKind(int fd);

// The descriptors this process has open, in ascending order, without the
// one used to list them.
std::vector<int> openDescriptors();

} // namespace vt::standin
