// One accepted loader connection, on a thread of its own: it reads the start
// request (WineLoaderProtocol.hpp) and, when the request is sound, loads
// Wine's library, asks the server for the single hand-over, answers, and
// turns this process into the Windows program's Wine process by calling
// wine_init on its thread, from which it never returns when all goes well.
//
// Every refusal is logged, writes no answer, closes every descriptor the
// request brought and leaves the server listening.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/posix_glue.hpp"
#include "loader/WineLoaderProtocol.hpp"

namespace vt {

class WineLoader;

// A request read in full, end-of-stream included.
struct WineLoaderRequest {
    // Empty when the request asks for no directory change.
    std::string workingDirectory;
    // NAME=value strings, each NUL-terminated.
    std::vector<char> environment;
    // NUL-terminated strings; argumentCount of them.
    std::vector<char> arguments;
    int argumentCount = 0;
    // By WineLoaderDescriptor; the wait-children pipe may be missing.
    std::array<Fd, kWineLoaderMaxDescriptors> descriptors;
};

class WineLoaderClientConnection {
public:
    // `loader` is not kept alive: a connection whose server has gone is
    // refused the hand-over.
    WineLoaderClientConnection(WineLoader& loader, Fd socket);

    // Starts the connection's own thread, which handles it and then lets it
    // go. When no thread can be made, the connection is closed, logged.
    static void handleConnectionInBackground(std::unique_ptr<WineLoaderClientConnection> connection);

    // Reads and validates the request, then starts Wine. Blocks: no read has
    // a time limit.
    void handleConnection();

    // The reading side alone; nothing on any refusal (logged, the request's
    // descriptors closed).
    std::optional<WineLoaderRequest> readRequest();

    // Exactly `length` bytes, or false (errno kept) at end-of-stream or error.
    bool readData(void* buffer, size_t length);
    // A length-prefixed buffer within what is left of the request limit;
    // nothing on failure (logged). `length` is the prefix as sent.
    std::optional<std::vector<char>> readLengthPrefixedBuffer(uint64_t& length);

private:
    bool receiveDescriptors(WineLoaderRequest& request);
    bool requireEndOfStream();
    void startWine(WineLoaderRequest& request);
    void postWrongArchitecture();

    std::weak_ptr<WineLoader> m_loader;
    // The server's identity as the notifications' object, never dereferenced here.
    const WineLoader* m_loaderObject;
    std::string m_vantorRoot;
    const WineLoaderLayout& m_layout;
    Fd m_sock;
    uint64_t m_budget = kWineLoaderRequestLimit;
};

} // namespace vt
