// The client side of the loader hand-over (loader/WineLoaderProtocol.hpp),
// as the product's Wine loader speaks it: the stand-in loader, the tests and
// the benchmark send their requests through it. The pieces are separate so
// that a test can send exactly the bytes and descriptors it means to,
// malformed ones included.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/posix_glue.hpp"
#include "loader/WineLoaderProtocol.hpp"

namespace vt::standin {

// The strings, each followed by a NUL: the form of the environment and
// argument buffers.
std::string nulTerminated(const std::vector<std::string>& strings);

// The request up to the carrier byte: the type, then the three buffers with
// their 8-byte length prefixes.
std::string encodeRequestHead(uint32_t type, const std::string& workingDirectory, const std::string& environment,
                              const std::string& arguments);

// A stream socket connected to `path`; invalid (errno set) on failure.
Fd connectToLoader(const std::string& path);

// Writes all of `bytes` to `socket`; false (errno set) when the launcher
// has gone. Never raises SIGPIPE: a launcher that refuses may close the
// connection before the request is complete, and the client must live to
// read that refusal.
bool sendAll(int socket, const void* bytes, size_t length);

// Sends the carrier byte with `descriptors` attached (none: no control data).
bool sendCarrier(int socket, const std::vector<int>& descriptors);

// Shuts down the sending side and reads the answer: the word, or nothing
// when the launcher closed the connection without one.
std::optional<uint32_t> finishAndReadAnswer(int socket);

// All of it: connect, head, carrier, answer. Nothing when refused.
std::optional<uint32_t> sendLoaderRequest(const std::string& path, uint32_t type, const std::string& workingDirectory,
                                          const std::vector<std::string>& environment,
                                          const std::vector<std::string>& arguments,
                                          const std::vector<int>& descriptors);

} // namespace vt::standin
