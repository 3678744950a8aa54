// The reading side of one accepted loader connection: the start request
// (WineLoaderProtocol.hpp) read as its bytes arrive, on the main loop, from
// a non-blocking socket. It never waits: each call reads what has come and
// moves on as far as that allows, through the request's parts in order (the
// type word, the three length-prefixed buffers, the carrier byte with the
// descriptors, the end of the stream).
//
// A buffer grows with the bytes that have arrived, never to its announced
// length at once: a peer that announces 16 MiB and stalls costs what it has
// sent. Every refusal is logged, and every descriptor the request brought is
// closed with it. What a complete request leads to (the hand-over) and how
// long a connection may take are the server's business (WineLoader).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/posix_glue.hpp"
#include "loader/WineLoaderProtocol.hpp"

namespace vt {

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
    enum class State {
        RequestType,       // the 4-byte type word
        BufferLength,      // the 8-byte prefix of the current buffer
        BufferBytes,       // the current buffer's bytes
        Descriptors,       // the carrier byte and the descriptors it brings
        EndOfStream,       // nothing more may come
        Complete,          // a sound request, whole: takeRequest()
        WrongArchitecture, // the other word size's loader; read no further
        Refused,           // logged; nothing it brought is kept
    };

    // Reads from `socket`, which the caller owns and keeps open while this
    // reads; it is made non-blocking here (a failure to do so is a refusal,
    // logged).
    WineLoaderClientConnection(const WineLoaderLayout& layout, int socket);
    WineLoaderClientConnection(const WineLoaderClientConnection&) = delete;
    WineLoaderClientConnection& operator=(const WineLoaderClientConnection&) = delete;

    // Reads what has arrived, without waiting; the state reached. From
    // Complete, WrongArchitecture and Refused on, nothing more is read.
    State readAvailable();

    State state() const noexcept { return m_state; }
    bool isFinished() const noexcept { return m_state >= State::Complete; }

    // The request, once Complete.
    WineLoaderRequest takeRequest() { return std::move(m_request); }

private:
    // How one read ended, for the state's own message.
    enum class Read { Progress, Wait, Failed };

    // Each step reads once; false when it must wait for more to arrive.
    bool readRequestType();
    bool readBufferLength();
    bool readBufferBytes();
    bool receiveDescriptors();
    bool requireEndOfStream();

    Read readInto(void* buffer, size_t length, size_t& got);
    // Fills the word up to `length` bytes; Progress once it is full.
    Read fillWord(size_t length);
    void finishBuffer();
    // Logs why the current buffer could not be read.
    void bufferFailed();
    void refuse() noexcept;

    const WineLoaderLayout& m_layout;
    int m_sock;
    State m_state = State::RequestType;
    // The type word or a length prefix as it arrives.
    alignas(uint64_t) unsigned char m_word[sizeof(uint64_t)] = {};
    size_t m_wordFilled = 0;
    // Which of the three buffers is being read, its length, its bytes.
    int m_buffer = 0;
    uint64_t m_length = 0;
    std::vector<char> m_bytes;
    uint64_t m_budget = kWineLoaderRequestLimit;
    WineLoaderRequest m_request;
};

} // namespace vt
