// The platform log: one line on standard error with the date and time (to the
// millisecond), the process name and id, then the message.
//
// Formats are printf-style; "%@" takes a string (std::string,
// std::filesystem::path, a C string) or an object with description(), so the
// product's message texts are used as they stand.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <type_traits>

namespace vt {

namespace detail {
    // "%@" becomes "%s"; everything else is left to vsnprintf.
    std::string objectFormatToPrintf(const char* format);
    std::string formatV(const char* printfFormat, ...);

    // An object with description() is logged as its description.
    template <typename T> decltype(auto) describe(const T& value)
    {
        if constexpr (requires { value.description(); })
            return std::string(value.description());
        else
            return (value);
    }

    // What vsnprintf is handed for one argument.
    template <typename T> auto cArg(const T& value)
    {
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::filesystem::path>) {
            return value.c_str();
        } else if constexpr (std::is_convertible_v<const T&, const char*>) {
            const char* s = value;
            return s ? s : "(null)";
        } else {
            static_assert(std::is_arithmetic_v<T> || std::is_pointer_v<T> || std::is_enum_v<T>,
                          "log arguments are strings, numbers, pointers or have description()");
            return value;
        }
    }
} // namespace detail

template <typename... Args> std::string formatMessage(const char* format, const Args&... args)
{
    return detail::formatV(detail::objectFormatToPrintf(format).c_str(),
                           detail::cArg(detail::describe(args))...);
}

// Writes one already formatted message as a log line (a trailing line end in
// the message is not doubled). One write per line, so lines from several
// threads never interleave.
void writeLogLine(std::string_view message);

// The product's NSLog: always writes.
template <typename... Args> void platformLog(const char* format, const Args&... args)
{
    writeLogLine(formatMessage(format, args...));
}

// The prefix of every log line, exposed for tests: "2026-11-23 10:04:05.123 name[pid] ".
std::string logLinePrefix();

} // namespace vt
