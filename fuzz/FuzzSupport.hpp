// What the fuzz targets share: a check that turns a broken promise into a
// crash libFuzzer keeps the input of, a reader that takes an input apart,
// and the descriptor count that shows a leak.
//
// Each target is one file defining LLVMFuzzerTestOneInput. The fuzz build
// (VT_FUZZ, clang) links it with libFuzzer; the normal build links it with
// replay_main.cpp, which feeds it the regression inputs and the seed corpus
// as a test.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vt::fuzz {

// Says what failed and aborts: to libFuzzer a crash, to the replay a test
// that fails.
[[noreturn]] void fail(const char* what, const char* file, int line);

#define VT_FUZZ_CHECK(condition) ((condition) ? (void)0 : ::vt::fuzz::fail(#condition, __FILE__, __LINE__))

// An input taken apart from the front: a few bytes that steer the target,
// then the bytes that go to the code under test. Past the end it gives
// zeros and empty pieces, so every input is a valid one.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    uint8_t byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    uint16_t u16()
    {
        uint16_t low = byte();
        return static_cast<uint16_t>(low | byte() << 8);
    }
    // Up to `length` bytes.
    std::string_view bytes(size_t length)
    {
        length = std::min(length, remaining());
        std::string_view piece(reinterpret_cast<const char*>(m_data) + m_at, length);
        m_at += length;
        return piece;
    }
    std::string_view rest() { return bytes(remaining()); }
    size_t remaining() const { return m_size - m_at; }
    bool empty() const { return m_at >= m_size; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

// The descriptors this process has open now.
size_t openDescriptorCount();

// A fresh private directory for a target's sockets, made once per process
// and removed with its contents when the process exits normally.
const std::string& privateDirectory();

} // namespace vt::fuzz
