#include "standin/loader/LoaderClient.hpp"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace vt::standin {

std::string nulTerminated(const std::vector<std::string>& strings)
{
    std::string bytes;
    for (const auto& s : strings) {
        bytes += s;
        bytes += '\0';
    }
    return bytes;
}

std::string encodeRequestHead(uint32_t type, const std::string& workingDirectory, const std::string& environment,
                              const std::string& arguments)
{
    std::string bytes(reinterpret_cast<const char*>(&type), sizeof type);
    for (const std::string* buffer : { &workingDirectory, &environment, &arguments }) {
        uint64_t length = buffer->size();
        bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
        bytes += *buffer;
    }
    return bytes;
}

Fd connectToLoader(const std::string& path)
{
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (!socket)
        return {};
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {};
    return socket;
}

bool sendAll(int socket, const void* bytes, size_t length) { return writeAll(socket, bytes, length, true); }

bool sendCarrier(int socket, const std::vector<int>& descriptors)
{
    char carrier = 0;
    iovec data { &carrier, 1 };
    msghdr message {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(sizeof(int) * descriptors.size()));
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
        std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof(int) * descriptors.size());
    }
    ssize_t sent;
    do
        sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent == 1;
}

std::optional<uint32_t> finishAndReadAnswer(int socket)
{
    ::shutdown(socket, SHUT_WR);
    uint32_t answer = 0;
    size_t got = 0;
    while (got < sizeof answer) {
        ssize_t n = ::read(socket, reinterpret_cast<char*>(&answer) + got, sizeof answer - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return std::nullopt;
        got += static_cast<size_t>(n);
    }
    return answer;
}

std::optional<uint32_t> sendLoaderRequest(const std::string& path, uint32_t type, const std::string& workingDirectory,
                                          const std::vector<std::string>& environment,
                                          const std::vector<std::string>& arguments,
                                          const std::vector<int>& descriptors)
{
    Fd socket = connectToLoader(path);
    if (!socket)
        return std::nullopt;
    std::string cwd = workingDirectory.empty() ? std::string() : workingDirectory + '\0';
    std::string head = encodeRequestHead(type, cwd, nulTerminated(environment), nulTerminated(arguments));
    if (!sendAll(socket.get(), head.data(), head.size()) || !sendCarrier(socket.get(), descriptors))
        return std::nullopt;
    return finishAndReadAnswer(socket.get());
}

} // namespace vt::standin
