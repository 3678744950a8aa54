#include "standin/record/Record.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/posix_glue.hpp"

namespace vt::standin {

std::string Record::value(std::string_view name) const
{
    for (const auto& [fieldName, fieldValue] : fields) {
        if (fieldName == name)
            return fieldValue;
    }
    return {};
}

std::vector<std::string> Record::values(std::string_view name) const
{
    std::vector<std::string> found;
    for (const auto& [fieldName, fieldValue] : fields) {
        if (fieldName == name)
            found.push_back(fieldValue);
    }
    return found;
}

std::string Record::encode() const
{
    std::string text = kind + "\n";
    for (const auto& [name, value] : fields) {
        text += name + "=";
        for (char c : value)
            text += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
        text += "\n";
    }
    return text;
}

Record Record::decode(std::string_view datagram)
{
    Record record;
    size_t end = datagram.find('\n');
    record.kind = datagram.substr(0, end);
    while (end != std::string_view::npos && end + 1 < datagram.size()) {
        size_t start = end + 1;
        end = datagram.find('\n', start);
        std::string_view line = datagram.substr(start, end == std::string_view::npos ? end : end - start);
        size_t equals = line.find('=');
        std::string value;
        for (size_t i = equals + 1; equals != std::string_view::npos && i < line.size(); ++i) {
            if (line[i] == '\\' && i + 1 < line.size()) {
                ++i;
                value += line[i] == 'n' ? '\n' : line[i];
            } else {
                value += line[i];
            }
        }
        record.add(std::string(line.substr(0, equals)), std::move(value));
    }
    return record;
}

bool send(Record record)
{
    const char* path = std::getenv(kRecordsVariable);
    sockaddr_un address {};
    if (!path || !*path || std::strlen(path) >= sizeof address.sun_path)
        return false;
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path);

    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    record.fields.insert(record.fields.begin(),
                         { { "pid", std::to_string(getpid()) },
                           { "ms", std::to_string(now.tv_sec * 1000LL + now.tv_nsec / 1000000) } });
    std::string datagram = record.encode();
    Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return fd
        && sendto(fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address),
                  sizeof address)
        == static_cast<ssize_t>(datagram.size());
}

std::string descriptorKind(int fd)
{
    struct stat status {};
    struct stat null {};
    if (fstat(fd, &status) != 0)
        return "closed";
    if (S_ISFIFO(status.st_mode))
        return "pipe";
    if (S_ISSOCK(status.st_mode))
        return "socket";
    if (S_ISCHR(status.st_mode) && stat("/dev/null", &null) == 0 && status.st_rdev == null.st_rdev)
        return "null";
    return "other";
}

std::vector<int> openDescriptors()
{
    std::vector<int> descriptors;
    DIR* directory = opendir("/proc/self/fd");
    if (!directory)
        return descriptors;
    int own = dirfd(directory);
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.')
            continue;
        int fd = std::atoi(entry->d_name);
        if (fd != own)
            descriptors.push_back(fd);
    }
    closedir(directory);
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

} // namespace vt::standin
