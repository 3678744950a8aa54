// The tray message reader, LaunchNotifySocket on the main loop: the input
// is what one sender writes on one connection to the real socket, read by
// the 64-bit and then by the 32-bit layout. A receiver records what the
// reader applies and passes it on to a fresh icon list, so the decoding and
// the painting run too.
//
// A model of the message, written from its description, says what must
// arrive: nothing for a wrong code or a payload beyond the limit, otherwise
// the operation with the payload (what did not come reads as zeros), then
// the redraw. After each input this process has exactly the descriptors it
// had before.
#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "base/posix_glue.hpp"
#include "fuzz/FuzzSupport.hpp"
#include "integration/LaunchNotifySocket.hpp"
#include "integration/TrayIconList.hpp"

using namespace vt;

namespace {

// A sender's message never comes near this; the stream then fits the
// socket's buffer whole and the writer never waits for the reader.
constexpr size_t kMaxMessage = 48 * 1024;

enum class Call { Add, Modify, Delete, UpdateBadges };
struct Received {
    Call call;
    std::vector<uint8_t> record;
    bool operator==(const Received&) const = default;
};

class Recorder : public TrayMessageReceiver {
public:
    void addIconWithData(std::vector<uint8_t>& record) override
    {
        received.push_back({ Call::Add, record });
        list->addIconWithData(record);
    }
    void modifyIconWithData(std::vector<uint8_t>& record) override
    {
        received.push_back({ Call::Modify, record });
        list->modifyIconWithData(record);
    }
    void deleteIconWithData(std::vector<uint8_t>& record) override
    {
        received.push_back({ Call::Delete, record });
        list->deleteIconWithData(record);
    }
    void updateBadges() override
    {
        received.push_back({ Call::UpdateBadges, {} });
        list->updateBadges();
    }

    TrayIconList* list = nullptr;
    std::vector<Received> received;
};

// One listening socket per layout for the whole run, as the launcher has one.
struct Endpoint {
    explicit Endpoint(const TrayLayout& layout) : socket(recorder, layout)
    {
        VT_FUZZ_CHECK(socket.startLaunchNotify(fuzz::privateDirectory()));
        socket.monitorFeedbackSocket();
    }
    Recorder recorder;
    LaunchNotifySocket socket;
};

// What the reader must hand on for `message` under `layout`.
std::vector<Received> model(std::string_view message, const TrayLayout& layout)
{
    size_t at = 0;
    // A field that is cut short keeps the bytes that came; the rest are zero.
    auto field = [&](size_t width) {
        uint64_t value = 0;
        size_t length = std::min(width, message.size() - at);
        std::copy_n(message.data() + at, length, reinterpret_cast<char*>(&value));
        at += length;
        return value;
    };
    if (field(4) != kTrayMessageCode)
        return {};
    uint64_t operation = field(layout.operationWidth);
    uint64_t length = field(4);
    if (length > layout.payloadLimit())
        return {};
    std::vector<uint8_t> payload(length, 0);
    std::copy_n(message.data() + at, std::min<size_t>(length, message.size() - at), payload.begin());
    std::vector<Received> expected;
    if (operation <= kTrayOperationDelete)
        expected.push_back({ static_cast<Call>(operation), std::move(payload) });
    expected.push_back({ Call::UpdateBadges, {} });
    return expected;
}

// The sender's end, its message written whole and its writing side shut.
Fd send(const std::string& path, std::string_view message)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    VT_FUZZ_CHECK(path.size() < sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    Fd sender(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    VT_FUZZ_CHECK(sender);
    VT_FUZZ_CHECK(::connect(sender.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    VT_FUZZ_CHECK(writeAll(sender.get(), message.data(), message.size(), true));
    VT_FUZZ_CHECK(::shutdown(sender.get(), SHUT_WR) == 0);
    return sender;
}

// Whether the launcher has closed its end: an end of stream, or a reset
// when it left part of what was sent unread.
bool closedByLauncher(const Fd& sender)
{
    char byte;
    ssize_t count = ::recv(sender.get(), &byte, 1, MSG_DONTWAIT);
    VT_FUZZ_CHECK(count <= 0);
    return count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

void readAs(Endpoint& endpoint, const TrayLayout& layout, std::string_view message, GdkPixbuf* baseIcon)
{
    int tiles = 0;
    TrayIconList list(addRef(baseIcon), [&](const GdkPixbuf& tile) {
        VT_FUZZ_CHECK(gdk_pixbuf_get_width(&tile) == kTileSize && gdk_pixbuf_get_height(&tile) == kTileSize);
        ++tiles;
    }, layout);
    endpoint.recorder.list = &list;
    endpoint.recorder.received.clear();

    Fd sender = send(endpoint.socket.launchNotifySocketName(), message);
    // Everything is there already: the accept, the read, the closing and
    // the message's effect follow without any time passing.
    while (!closedByLauncher(sender))
        g_main_context_iteration(nullptr, TRUE);
    // Then the repaint, at the end of the turn.
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    VT_FUZZ_CHECK(endpoint.recorder.received == model(message, layout));
    VT_FUZZ_CHECK(tiles == (endpoint.recorder.received.empty() ? 0 : 1));
    endpoint.recorder.list = nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Endpoint endpoint64(kTrayLayout64);
    static Endpoint endpoint32(kTrayLayout32);
    static const GPtr<GdkPixbuf> baseIcon = genericApplicationIcon();
    // The main context's own wake-up descriptor is made on first use, for good.
    static GMainContext* const mainContext = g_main_context_default();
    (void)mainContext;
    std::string_view message(reinterpret_cast<const char*>(data), std::min(size, kMaxMessage));

    const size_t before = fuzz::openDescriptorCount();
    readAs(endpoint64, kTrayLayout64, message, baseIcon.get());
    readAs(endpoint32, kTrayLayout32, message, baseIcon.get());
    VT_FUZZ_CHECK(fuzz::openDescriptorCount() == before);
    return 0;
}
