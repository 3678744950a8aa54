// The platform log: one line on standard error with the date and time (to the
// millisecond), the process name and id, then the message.
//
// Formats are printf-style, and "%@" takes a string (std::string,
// std::string_view, std::filesystem::path, a C string) or an object with
// description(), so the product's message texts are used as they stand.
// Every format is checked against its arguments when the program is
// compiled: a missing or extra argument, or one that does not fit its
// conversion ("%@" or "%s" given a number, "%d" given a string or a wider
// integer than the conversion names), is a compile error, never a wrong
// read at run time.
#pragma once

#include <concepts>
#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace vt {

namespace detail {

    // What one argument is, as far as a conversion cares.
    enum class ArgKind { Text, Signed, Unsigned, Floating, Pointer, Unsupported };

    template <typename T> consteval ArgKind argKind()
    {
        if constexpr (requires(const T& value) { value.description(); })
            return ArgKind::Text;
        else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>
                           || std::is_same_v<T, std::filesystem::path> || std::is_convertible_v<const T&, const char*>)
            return ArgKind::Text;
        else if constexpr (std::is_enum_v<T>)
            return std::is_signed_v<std::underlying_type_t<T>> ? ArgKind::Signed : ArgKind::Unsigned;
        else if constexpr (std::is_integral_v<T>)
            return std::is_signed_v<T> ? ArgKind::Signed : ArgKind::Unsigned;
        else if constexpr (std::is_floating_point_v<T>)
            return ArgKind::Floating;
        else if constexpr (std::is_pointer_v<T>)
            return ArgKind::Pointer;
        else
            return ArgKind::Unsupported;
    }

    struct ArgInfo {
        ArgKind kind = ArgKind::Unsupported;
        size_t size = 0;
    };

    // One conversion of a format, as both the compile-time check and the
    // formatter read it.
    struct Conversion {
        size_t begin = 0;       // the '%'
        size_t end = 0;         // just after the conversion character
        char type = 0;          // d i u x X o f F e E g G a A c s p @
        size_t integerSize = 0; // the width of the integer the length modifier names
        bool valid = true;
    };

    // The conversion that starts at `at` (a '%' that is not "%%").
    constexpr Conversion readConversion(std::string_view format, size_t at)
    {
        Conversion c;
        c.begin = at++;
        auto more = [&] { return at < format.size(); };
        if (more() && format[at] == '@') {
            c.type = '@';
            c.end = at + 1;
            return c;
        }
        while (more() && std::string_view("-+ #0'").find(format[at]) != std::string_view::npos)
            ++at;
        while (more() && format[at] >= '0' && format[at] <= '9')
            ++at;
        if (more() && format[at] == '.') {
            ++at;
            while (more() && format[at] >= '0' && format[at] <= '9')
                ++at;
        }
        c.integerSize = sizeof(int);
        if (format.substr(at, 2) == "hh") {
            c.integerSize = sizeof(char);
            at += 2;
        } else if (format.substr(at, 2) == "ll") {
            c.integerSize = sizeof(long long);
            at += 2;
        } else if (more() && std::string_view("hlzjt").find(format[at]) != std::string_view::npos) {
            switch (format[at++]) {
            case 'h': c.integerSize = sizeof(short); break;
            case 'l': c.integerSize = sizeof(long); break;
            case 'z': c.integerSize = sizeof(size_t); break;
            case 'j': c.integerSize = sizeof(long long); break;
            case 't': c.integerSize = sizeof(std::ptrdiff_t); break;
            }
        }
        if (!more() || std::string_view("diuxXofFeEgGaAcsp").find(format[at]) == std::string_view::npos) {
            // '*' widths, '%n' and anything unknown are not supported.
            c.valid = false;
            c.end = at;
            return c;
        }
        c.type = format[at];
        c.end = at + 1;
        return c;
    }

    constexpr bool fits(const Conversion& c, const ArgInfo& arg)
    {
        switch (c.type) {
        case '@':
        case 's':
            return arg.kind == ArgKind::Text;
        case 'd': case 'i': case 'u': case 'x': case 'X': case 'o': case 'c':
            return (arg.kind == ArgKind::Signed || arg.kind == ArgKind::Unsigned) && arg.size <= c.integerSize;
        case 'p':
            return arg.kind == ArgKind::Pointer;
        default:
            return arg.kind == ArgKind::Floating;
        }
    }

    // Not constexpr on purpose: reaching one of these while checking a
    // format makes the check fail to compile, and the compiler names it.
    void theFormatNamesMoreArgumentsThanTheCallGives();
    void theCallGivesMoreArgumentsThanTheFormatNames();
    void anArgumentDoesNotFitItsConversion();
    void theFormatHasAConversionThatIsNotSupported();

    template <typename... Args> consteval void checkFormat(std::string_view format)
    {
        const ArgInfo args[] = { ArgInfo { argKind<Args>(), sizeof(Args) }..., ArgInfo {} };
        size_t next = 0;
        for (size_t at = 0; at < format.size(); ++at) {
            if (format[at] != '%')
                continue;
            if (at + 1 < format.size() && format[at + 1] == '%') {
                ++at;
                continue;
            }
            Conversion c = readConversion(format, at);
            if (!c.valid)
                theFormatHasAConversionThatIsNotSupported();
            if (next >= sizeof...(Args))
                theFormatNamesMoreArgumentsThanTheCallGives();
            if (!fits(c, args[next]))
                anArgumentDoesNotFitItsConversion();
            ++next;
            at = c.end - 1;
        }
        if (next != sizeof...(Args))
            theCallGivesMoreArgumentsThanTheFormatNames();
    }

    // One argument as the formatter takes it.
    struct LogArg {
        ArgKind kind;
        std::string text;
        long long integer = 0;
        unsigned long long unsignedInteger = 0;
        double floating = 0;
        const void* pointer = nullptr;
    };

    template <typename T> LogArg logArg(const T& value)
    {
        LogArg arg { argKind<T>(), {} };
        if constexpr (requires { value.description(); }) {
            arg.text = std::string(value.description());
        } else if constexpr (std::is_same_v<T, std::filesystem::path>) {
            arg.text = value.string();
        } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
            arg.text = std::string(value);
        } else if constexpr (std::is_convertible_v<const T&, const char*>) {
            const char* text = value;
            arg.text = text ? text : "(null)";
        } else if constexpr (std::is_enum_v<T> || std::is_integral_v<T>) {
            if (arg.kind == ArgKind::Signed)
                arg.integer = static_cast<long long>(value);
            else
                arg.unsignedInteger = static_cast<unsigned long long>(value);
        } else if constexpr (std::is_floating_point_v<T>) {
            arg.floating = static_cast<double>(value);
        } else if constexpr (std::is_pointer_v<T>) {
            arg.pointer = static_cast<const void*>(value);
        }
        return arg;
    }

    std::string render(std::string_view format, const std::vector<LogArg>& args);

} // namespace detail

// A format checked against the types of the arguments it is used with.
template <typename... Args> class LogFormat {
public:
    template <typename Text>
        requires std::convertible_to<const Text&, std::string_view>
    consteval LogFormat(const Text& text) : m_text(text)
    {
        detail::checkFormat<std::remove_cvref_t<Args>...>(m_text);
    }
    std::string_view text() const { return m_text; }

private:
    std::string_view m_text;
};

template <typename... Args>
std::string formatMessage(LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
{
    return detail::render(format.text(), { detail::logArg(args)... });
}

// Writes one already formatted message as a log line (a trailing line end in
// the message is not doubled). One write per line, so lines from several
// threads never interleave.
void writeLogLine(std::string_view message);

// The product's NSLog: always writes.
template <typename... Args> void platformLog(LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
{
    writeLogLine(formatMessage<Args...>(format, args...));
}

// The prefix of every log line, exposed for tests: "2026-11-23 10:04:05.123 name[pid] ".
std::string logLinePrefix();

} // namespace vt
