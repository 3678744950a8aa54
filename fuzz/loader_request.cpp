// The loader's request reader, WineLoaderClientConnection, over a stream
// socketpair as the product's Wine loader uses it, descriptors included, the
// bytes arriving in pieces as a slow loader's would.
//
// An input is two steering bytes, then the bytes of the stream:
//   byte 0, bits 0-2  descriptors on the carrier byte (0 to 7)
//           bit 3     the 32-bit launcher's layout
//           bit 4     pipe ends rather than the null device
//           bits 5-7  descriptors on the trailer's first byte (0 to 7)
//   byte 1            the trailer's length (the last bytes of the input)
//   the rest          the head, then the trailer
// The stream is the head, the carrier byte with its descriptors, the trailer
// with its own, then the end. The head is written in a few pieces, cut where
// a hash of the input says, and the reader reads what has come after each.
//
// A model of the protocol, written from its description, says whether the
// request is sound and what it holds; the reader must agree, and must not
// finish before the stream says it may. Descriptors it keeps are
// close-on-exec; after each input this process has exactly the descriptors
// it had before.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>

#include "base/posix_glue.hpp"
#include "fuzz/FuzzSupport.hpp"
#include "loader/WineLoaderClientConnection.hpp"

using namespace vt;

namespace {

// Bytes beyond these are not sent: the stream then fits the socket's
// buffer whole, and the writer never waits for the reader.
constexpr size_t kMaxHead = 48 * 1024;

struct Sent {
    std::string stream;
    size_t carrierAt = 0;
    int carrierDescriptors = 0;
    int trailerDescriptors = 0; // on the byte after the carrier
};

struct Expected {
    std::string workingDirectory;
    std::string environment;
    std::string arguments;
    int argumentCount = 0;
    int descriptors = 0;
};

// The request as its description defines it, or nothing when it must be
// refused.
std::optional<Expected> model(const Sent& sent, const WineLoaderLayout& layout)
{
    std::string_view stream = sent.stream;
    size_t at = 0;
    auto take = [&](void* out, size_t length) {
        if (stream.size() - at < length)
            return false;
        std::memcpy(out, stream.data() + at, length);
        at += length;
        return true;
    };
    uint32_t type = 0;
    if (!take(&type, sizeof type) || type != layout.ownRequest)
        return std::nullopt;
    uint64_t budget = kWineLoaderRequestLimit;
    std::string buffers[3];
    for (std::string& buffer : buffers) {
        uint64_t prefix = 0;
        if (!take(&prefix, sizeof prefix))
            return std::nullopt;
        uint64_t length = effectiveLength(layout, prefix);
        if (length > budget || length > stream.size() - at)
            return std::nullopt;
        budget -= length;
        buffer = std::string(stream.substr(at, length));
        at += length;
    }
    const std::string& directory = buffers[0];
    const std::string& environment = buffers[1];
    const std::string& arguments = buffers[2];
    if (!directory.empty() && directory.find('\0') != directory.size() - 1)
        return std::nullopt;
    if (!environment.empty() && environment.back() != '\0')
        return std::nullopt;
    if (arguments.empty() || arguments.back() != '\0')
        return std::nullopt;
    // The carrier is the next byte, and the last; only descriptors that
    // came with that very byte count.
    if (at + 1 != stream.size())
        return std::nullopt;
    int descriptors = at == sent.carrierAt ? sent.carrierDescriptors
        : at == sent.carrierAt + 1         ? sent.trailerDescriptors
                                           : 0;
    if (descriptors < kWineLoaderRequiredDescriptors || descriptors > kWineLoaderMaxDescriptors)
        return std::nullopt;
    Expected expected;
    expected.workingDirectory = directory.empty() ? std::string() : directory.substr(0, directory.size() - 1);
    expected.environment = environment;
    expected.arguments = arguments;
    for (char c : arguments)
        expected.argumentCount += c == '\0';
    expected.descriptors = descriptors;
    return expected;
}

// `count` descriptors to send: ends of fresh pipes, or the null device.
std::vector<Fd> makeDescriptors(int count, bool pipes)
{
    std::vector<Fd> made;
    while (static_cast<int>(made.size()) < count) {
        if (pipes) {
            int ends[2];
            VT_FUZZ_CHECK(::pipe2(ends, O_CLOEXEC) == 0);
            made.emplace_back(ends[0]);
            made.emplace_back(ends[1]);
        } else {
            made.emplace_back(::open("/dev/null", O_RDWR | O_CLOEXEC));
            VT_FUZZ_CHECK(made.back());
        }
    }
    made.resize(static_cast<size_t>(count));
    return made;
}

// Sends `bytes` with `descriptors` attached to their first byte.
void sendWith(int socket, std::string_view bytes, const std::vector<Fd>& descriptors)
{
    if (bytes.empty())
        return;
    iovec data { const_cast<char*>(bytes.data()), bytes.size() };
    msghdr message {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    std::vector<char> control;
    if (!descriptors.empty()) {
        control.assign(CMSG_SPACE(sizeof(int) * descriptors.size()), 0);
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
        for (size_t i = 0; i < descriptors.size(); ++i) {
            int fd = descriptors[i].get();
            std::memcpy(CMSG_DATA(header) + i * sizeof(int), &fd, sizeof fd);
        }
    }
    // The stream fits the socket's buffer: one call takes it all.
    VT_FUZZ_CHECK(::sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()));
}

// Where the head is cut: up to three places, from a hash of the head, so
// that the fuzzer's changes move the cuts too.
std::vector<size_t> cuts(std::string_view head)
{
    uint64_t hash = 1469598103934665603ull;
    for (char c : head)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    std::vector<size_t> at;
    for (int i = 0; i < 3 && !head.empty(); ++i, hash >>= 16)
        at.push_back((hash & 0xFFFF) % head.size());
    std::sort(at.begin(), at.end());
    return at;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const uint8_t flags = input.byte();
    const size_t trailerLength = input.byte();
    const WineLoaderLayout& layout = flags & 0x08 ? kWineLoaderLayout32 : kWineLoaderLayout64;
    std::string_view rest = input.rest();
    std::string_view trailer = rest.substr(rest.size() - std::min(trailerLength, rest.size()));
    std::string_view head = rest.substr(0, std::min(rest.size() - trailer.size(), kMaxHead));

    const size_t before = fuzz::openDescriptorCount();
    {
        int ends[2];
        VT_FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        Fd sender(ends[0]), receiver(ends[1]);
        WineLoaderClientConnection connection(layout, receiver.get());

        Sent sent;
        sent.stream = std::string(head) + '\0' + std::string(trailer);
        sent.carrierAt = head.size();
        sent.carrierDescriptors = flags & 0x07;
        sent.trailerDescriptors = trailer.empty() ? 0 : flags >> 5;
        const bool pipes = flags & 0x10;
        std::optional<Expected> expected = model(sent, layout);

        // Until the stream has ended, a sound request cannot be whole.
        size_t from = 0;
        for (size_t cut : cuts(head)) {
            VT_FUZZ_CHECK(writeAll(sender.get(), head.data() + from, cut - from, true));
            from = cut;
            connection.readAvailable();
            VT_FUZZ_CHECK(!expected || !connection.isFinished());
        }
        VT_FUZZ_CHECK(writeAll(sender.get(), head.data() + from, head.size() - from, true));
        sendWith(sender.get(), std::string_view("\0", 1), makeDescriptors(sent.carrierDescriptors, pipes));
        sendWith(sender.get(), trailer, makeDescriptors(sent.trailerDescriptors, pipes));
        connection.readAvailable();
        VT_FUZZ_CHECK(!expected || !connection.isFinished());
        VT_FUZZ_CHECK(::shutdown(sender.get(), SHUT_WR) == 0);

        // All of it is there now: one read to the end.
        using State = WineLoaderClientConnection::State;
        State state = connection.readAvailable();
        VT_FUZZ_CHECK(connection.isFinished());
        VT_FUZZ_CHECK((state == State::Complete) == expected.has_value());
        if (expected) {
            WineLoaderRequest request = connection.takeRequest();
            VT_FUZZ_CHECK(request.workingDirectory == expected->workingDirectory);
            VT_FUZZ_CHECK(std::string(request.environment.begin(), request.environment.end())
                          == expected->environment);
            VT_FUZZ_CHECK(std::string(request.arguments.begin(), request.arguments.end()) == expected->arguments);
            VT_FUZZ_CHECK(request.argumentCount == expected->argumentCount);
            for (int i = 0; i < kWineLoaderMaxDescriptors; ++i) {
                const Fd& received = request.descriptors[static_cast<size_t>(i)];
                VT_FUZZ_CHECK(static_cast<bool>(received) == (i < expected->descriptors));
                // No child may inherit one before Wine is handed it.
                if (received)
                    VT_FUZZ_CHECK(::fcntl(received.get(), F_GETFD) == FD_CLOEXEC);
            }
        }
    }
    VT_FUZZ_CHECK(fuzz::openDescriptorCount() == before);
    return 0;
}
