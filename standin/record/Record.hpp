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
//   tool      vtmenu, vtstart or wine started: role, arg (argv[0] first),
//             env (NAME=VALUE, each as given), cwd, stdin and stdout (null,
//             pipe, other or closed)
//   tool-end  a tool is ending: role, and either signal and sender (the
//             signal that ended it and the pid that sent it) or reason
//   request   the window-command tool received a request: line (its bytes,
//             line end included)
//   call      the helper server received a call: method, argument (the
//             bottle or the tag, when the method has one), reply
//             ("expecting-reply" when the caller waits for an answer)
//   main-app  the main application: event (started, open or activate) and
//             arg (argv for started, the URIs for open)
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

} // namespace vt::standin
