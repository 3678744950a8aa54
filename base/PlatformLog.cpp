#include "base/PlatformLog.hpp"

#include "base/posix_glue.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

#include <sys/time.h>
#include <unistd.h>

namespace vt {

namespace detail {

std::string objectFormatToPrintf(const char* format)
{
    std::string out;
    for (const char* p = format; *p; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += "%%";
            ++p;
        } else if (p[0] == '%' && p[1] == '@') {
            out += "%s";
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

std::string formatV(const char* printfFormat, ...)
{
    va_list args;
    va_start(args, printfFormat);
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(nullptr, 0, printfFormat, args);
    va_end(args);
    std::string out;
    if (length > 0) {
        std::vector<char> buffer(static_cast<size_t>(length) + 1);
        std::vsnprintf(buffer.data(), buffer.size(), printfFormat, again);
        out.assign(buffer.data(), static_cast<size_t>(length));
    }
    va_end(again);
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
    return detail::formatV("%s.%03d %s[%d] ", stamp, static_cast<int>(now.tv_usec / 1000),
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
