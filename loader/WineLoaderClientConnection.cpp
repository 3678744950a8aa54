#include "loader/WineLoaderClientConnection.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>

#include "base/PlatformLog.hpp"

namespace vt {

namespace {
    constexpr const char* kHandle = "-[WineLoaderClientConnection handleConnection]";
    constexpr const char* kReadBuffer = "-[WineLoaderClientConnection readLengthPrefixedBuffer:]";
    // What a buffer is called in the message of a read that failed.
    constexpr const char* kBufferNames[] = { "working directory", "environment", "args" };
    constexpr int kBufferCount = 3;
    // One read's worth; a buffer grows by what each read brought.
    constexpr size_t kChunk = 64 * 1024;

    // What the kernel handed over with the carrier byte: every descriptor of
    // every SCM_RIGHTS header, so that none is left open on a refusal.
    std::vector<Fd> takeReceivedDescriptors(msghdr& message)
    {
        std::vector<Fd> received;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
                continue;
            size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
                received.emplace_back(fd);
            }
        }
        return received;
    }
} // namespace

WineLoaderClientConnection::WineLoaderClientConnection(const WineLoaderLayout& layout, int socket)
    : m_layout(layout)
    , m_sock(socket)
{
    // Nothing here may wait for a peer: the main loop reads every connection.
    int flags = ::fcntl(m_sock, F_GETFL);
    if (flags < 0) {
        platformLog("%s: fcntl(F_GETFL) failed; errno %d", kHandle, errno);
        refuse();
    } else if (!(flags & O_NONBLOCK) && ::fcntl(m_sock, F_SETFL, flags | O_NONBLOCK) != 0) {
        platformLog("%s: fcntl(F_SETFL) failed; errno %d", kHandle, errno);
        refuse();
    }
}

WineLoaderClientConnection::State WineLoaderClientConnection::readAvailable()
{
    for (;;) {
        bool progressed = false;
        switch (m_state) {
        case State::RequestType:
            progressed = readRequestType();
            break;
        case State::BufferLength:
            progressed = readBufferLength();
            break;
        case State::BufferBytes:
            progressed = readBufferBytes();
            break;
        case State::Descriptors:
            progressed = receiveDescriptors();
            break;
        case State::EndOfStream:
            progressed = requireEndOfStream();
            break;
        case State::Complete:
        case State::WrongArchitecture:
        case State::Refused:
            return m_state;
        }
        if (!progressed)
            return m_state;
    }
}

WineLoaderClientConnection::Read WineLoaderClientConnection::readInto(void* buffer, size_t length, size_t& got)
{
    for (;;) {
        ssize_t n = ::read(m_sock, buffer, length);
        if (n > 0) {
            got = static_cast<size_t>(n);
            return Read::Progress;
        }
        if (n == 0) {
            errno = 0; // the end of the stream, no error
            return Read::Failed;
        }
        if (errno == EINTR)
            continue;
        return errno == EAGAIN || errno == EWOULDBLOCK ? Read::Wait : Read::Failed;
    }
}

WineLoaderClientConnection::Read WineLoaderClientConnection::fillWord(size_t length)
{
    size_t got = 0;
    Read read = readInto(m_word + m_wordFilled, length - m_wordFilled, got);
    if (read == Read::Progress) {
        m_wordFilled += got;
        if (m_wordFilled < length)
            return Read::Wait;
        m_wordFilled = 0;
    }
    return read;
}

bool WineLoaderClientConnection::readRequestType()
{
    const size_t filledBefore = m_wordFilled;
    Read read = fillWord(sizeof(uint32_t));
    if (read == Read::Wait)
        return m_wordFilled != filledBefore;
    if (read == Read::Failed) {
        platformLog("%s: reading request type failed; errno %d", kHandle, errno);
        refuse();
        return true;
    }
    uint32_t type;
    std::memcpy(&type, m_word, sizeof type);
    if (type == m_layout.otherRequest) {
        m_state = State::WrongArchitecture;
    } else if (type != m_layout.ownRequest) {
        platformLog("%s: unknown request type 0x%08x", kHandle, type);
        refuse();
    } else {
        m_state = State::BufferLength;
    }
    return true;
}

void WineLoaderClientConnection::bufferFailed()
{
    platformLog("%s: reading %s failed", kHandle, kBufferNames[m_buffer]);
    refuse();
}

bool WineLoaderClientConnection::readBufferLength()
{
    const size_t filledBefore = m_wordFilled;
    Read read = fillWord(sizeof(uint64_t));
    if (read == Read::Wait)
        return m_wordFilled != filledBefore;
    if (read == Read::Failed) {
        platformLog("%s: reading length failed; errno %d", kReadBuffer, errno);
        bufferFailed();
        return true;
    }
    uint64_t prefix;
    std::memcpy(&prefix, m_word, sizeof prefix);
    m_length = effectiveLength(m_layout, prefix);
    // No real request comes near the limit; a peer that claims more is not
    // worth the memory.
    if (m_length > m_budget) {
        platformLog("%s: buffer of length %llu is beyond the request limit of %llu bytes", kReadBuffer,
                    static_cast<unsigned long long>(m_length),
                    static_cast<unsigned long long>(kWineLoaderRequestLimit));
        bufferFailed();
        return true;
    }
    m_budget -= m_length;
    m_bytes = {};
    if (m_length == 0)
        finishBuffer();
    else
        m_state = State::BufferBytes;
    return true;
}

bool WineLoaderClientConnection::readBufferBytes()
{
    char chunk[kChunk];
    size_t got = 0;
    Read read = readInto(chunk, static_cast<size_t>(std::min<uint64_t>(m_length - m_bytes.size(), sizeof chunk)), got);
    if (read == Read::Wait)
        return false;
    if (read == Read::Failed) {
        platformLog("%s: reading buffer failed; errno %d", kReadBuffer, errno);
        bufferFailed();
        return true;
    }
    try {
        // Grows as bytes come, doubling, but never beyond the announced length.
        size_t needed = m_bytes.size() + got;
        if (m_bytes.capacity() < needed)
            m_bytes.reserve(static_cast<size_t>(std::min<uint64_t>(m_length, std::max(needed, 2 * m_bytes.capacity()))));
        m_bytes.insert(m_bytes.end(), chunk, chunk + got);
    } catch (const std::bad_alloc&) {
        platformLog("%s: failed to allocate buffer of length %llu", kReadBuffer,
                    static_cast<unsigned long long>(m_length));
        bufferFailed();
        return true;
    }
    if (m_bytes.size() == m_length)
        finishBuffer();
    return true;
}

void WineLoaderClientConnection::finishBuffer()
{
    switch (m_buffer) {
    case 0:
        if (!m_bytes.empty()) {
            if (m_bytes.back() != '\0' || std::strlen(m_bytes.data()) + 1 != m_bytes.size()) {
                platformLog("%s: working directory is not a single null-terminated string", kHandle);
                refuse();
                return;
            }
            m_request.workingDirectory = m_bytes.data();
        }
        break;
    case 1:
        if (!m_bytes.empty() && m_bytes.back() != '\0') {
            platformLog("%s: environment is not null-terminated", kHandle);
            refuse();
            return;
        }
        m_request.environment = std::move(m_bytes);
        break;
    default:
        if (m_bytes.empty()) {
            platformLog("%s: args list is empty", kHandle);
            refuse();
            return;
        }
        if (m_bytes.back() != '\0') {
            platformLog("%s: args is not null-terminated", kHandle);
            refuse();
            return;
        }
        m_request.argumentCount = static_cast<int>(std::count(m_bytes.begin(), m_bytes.end(), '\0'));
        m_request.arguments = std::move(m_bytes);
        break;
    }
    m_bytes = {};
    m_state = ++m_buffer < kBufferCount ? State::BufferLength : State::Descriptors;
}

bool WineLoaderClientConnection::receiveDescriptors()
{
    char carrier = 0;
    iovec data { &carrier, 1 };
    // Room for the five descriptors a request may bring. Linux aligns control
    // data to 8 bytes, so a sixth still fits without truncation: the count
    // is checked below, not left to the buffer's size.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kWineLoaderMaxDescriptors)];
    msghdr message {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received;
    // Close-on-exec from the moment they arrive: no child of the launcher
    // inherits a descriptor that is not handed over yet.
    do
        received = ::recvmsg(m_sock, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    while (received < 0 && errno == EINTR);
    if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return false;
    if (received != 1) {
        if (received >= 0)
            takeReceivedDescriptors(message);
        platformLog("%s: failed to receive file descriptors; errno %d", kHandle, received < 0 ? errno : 0);
        refuse();
        return true;
    }

    // Only the first header counts; anything else that came is closed.
    std::vector<Fd> descriptors = takeReceivedDescriptors(message);
    cmsghdr* first = CMSG_FIRSTHDR(&message);
    bool rights = first && first->cmsg_level == SOL_SOCKET && first->cmsg_type == SCM_RIGHTS;
    size_t count = rights ? (first->cmsg_len - CMSG_LEN(0)) / sizeof(int) : 0;
    bool sound = !(message.msg_flags & MSG_CTRUNC) && count >= static_cast<size_t>(kWineLoaderRequiredDescriptors)
        && count <= static_cast<size_t>(kWineLoaderMaxDescriptors);
    if (!sound) {
        platformLog("%s: failed to receive file descriptors", kHandle);
        refuse();
        return true;
    }
    for (size_t i = 0; i < count; ++i)
        m_request.descriptors[i] = std::move(descriptors[i]);
    m_state = State::EndOfStream;
    return true;
}

bool WineLoaderClientConnection::requireEndOfStream()
{
    char extra;
    size_t got = 0;
    Read read = readInto(&extra, 1, got);
    if (read == Read::Wait)
        return false;
    if (read == Read::Progress) {
        platformLog("%s: got extraneous data instead of EOF", kHandle);
        refuse();
    } else if (errno != 0) {
        platformLog("%s: failed to read EOF; errno %d", kHandle, errno);
        refuse();
    } else {
        m_state = State::Complete;
    }
    return true;
}

void WineLoaderClientConnection::refuse() noexcept
{
    m_state = State::Refused;
    m_bytes = {};
    m_request = {}; // closes every descriptor it brought
}

} // namespace vt
