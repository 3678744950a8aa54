#include "base/PlatformLog.hpp"

#include "base/posix_glue.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <sys/time.h>
#include <unistd.h>

namespace vt {

namespace detail {

std::string render(std::string_view format, const std::vector<LogArg>& args)
{
    std::string out;
    size_t next = 0;
    char piece[512];
    for (size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%') {
            out += format[at];
            continue;
        }
        if (at + 1 < format.size() && format[at + 1] == '%') {
            out += '%';
            ++at;
            continue;
        }
        Conversion c = readConversion(format, at);
        at = c.end - 1;
        // Formats are checked when they are compiled; this only keeps a
        // format that slipped past the check from reading a wrong argument.
        if (!c.valid || next >= args.size() || !fits(c, { args[next].kind, 0 })) {
            out += "<format mismatch>";
            continue;
        }
        const LogArg& arg = args[next++];
        if (c.type == '@') {
            out += arg.text;
            continue;
        }
        // The flags, width and precision as written, then a length modifier
        // that fits the value as it is held here.
        std::string directive(format.substr(c.begin, c.end - 1 - c.begin));
        while (!directive.empty() && std::string_view("hlzjtL").find(directive.back()) != std::string_view::npos)
            directive.pop_back();
        int length = 0;
        switch (c.type) {
        case 's':
            length = std::snprintf(piece, sizeof piece, (directive + 's').c_str(), arg.text.c_str());
            if (length >= static_cast<int>(sizeof piece)) {
                // A long text with a width: nothing to pad, take it whole.
                out += arg.text;
                continue;
            }
            break;
        case 'p':
            length = std::snprintf(piece, sizeof piece, (directive + 'p').c_str(), arg.pointer);
            break;
        case 'd': case 'i': case 'u': case 'x': case 'X': case 'o': case 'c': {
            // Narrowed to the integer the length modifier names, as printf would.
            unsigned long long bits = arg.kind == ArgKind::Signed ? static_cast<unsigned long long>(arg.integer)
                                                                  : arg.unsignedInteger;
            if (c.integerSize < sizeof bits)
                bits &= (1ULL << (8 * c.integerSize)) - 1;
            if (c.type == 'c') {
                length = std::snprintf(piece, sizeof piece, (directive + 'c').c_str(), static_cast<int>(bits & 0xFF));
            } else if (c.type == 'd' || c.type == 'i') {
                long long value = static_cast<long long>(bits);
                if (c.integerSize < sizeof bits && (bits >> (8 * c.integerSize - 1)) & 1)
                    value = static_cast<long long>(bits) - static_cast<long long>(1ULL << (8 * c.integerSize));
                length = std::snprintf(piece, sizeof piece, (directive + "ll" + c.type).c_str(), value);
            } else {
                length = std::snprintf(piece, sizeof piece, (directive + "ll" + c.type).c_str(), bits);
            }
            break;
        }
        default:
            length = std::snprintf(piece, sizeof piece, (directive + c.type).c_str(), arg.floating);
            break;
        }
        if (length > 0)
            out.append(piece, std::min(static_cast<size_t>(length), sizeof piece - 1));
    }
    return out;
}

} // namespace detail

std::string logLinePrefix()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    return formatMessage("%@.%03d %@[%d] ", stamp, static_cast<int>(now.tv_usec / 1000),
                         program_invocation_short_name, static_cast<int>(getpid()));
}

void writeLogLine(std::string_view message)
{
    std::string line = logLinePrefix();
    line.append(message);
    if (line.empty() || line.back() != '\n')
        line += '\n';

    int saved = errno;
    writeAll(STDERR_FILENO, line.data(), line.size());
    errno = saved;
}

} // namespace vt
