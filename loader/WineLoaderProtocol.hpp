// The hand-over of a Wine loader's start request to the launcher: the wire
// format both sides share and the numbers that differ between the 64-bit and
// the 32-bit launcher.
//
// One request, at most one answer, on one stream connection. All integers
// are in host byte order.
//
//   uint32  request type (WineLoaderRequestI386 / WineLoaderRequestX86_64)
//   uint64  W, then W bytes: the working directory (empty, or one
//           NUL-terminated string)
//   uint64  E, then E bytes: the environment (NAME=value strings, each
//           NUL-terminated)
//   uint64  A, then A bytes: the arguments (NUL-terminated strings, at least
//           one; an empty first argument asks for the default loader)
//   1 byte  carrier, its value ignored: it carries 4 or 5 descriptors as
//           SCM_RIGHTS (standard input, output, error, the Wine server
//           socket, optionally the wait-children pipe)
//   then the client shuts down its sending side.
//
// The answer is WineLoaderResponseProceed, written only when the launcher
// takes the start over; any refusal is the end of the stream with no answer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vt {

inline constexpr uint32_t WineLoaderRequestI386 = 0x52C17355;
inline constexpr uint32_t WineLoaderRequestX86_64 = 0x52C17357;
inline constexpr uint32_t WineLoaderResponseProceed = 0x52C17356;

// Descriptors that travel with the carrier byte, in this order.
enum WineLoaderDescriptor : int {
    WineLoaderStandardInput = 0,
    WineLoaderStandardOutput = 1,
    WineLoaderStandardError = 2,
    WineLoaderServerSocket = 3,
    WineLoaderWaitChildPipe = 4, // optional
};
inline constexpr int kWineLoaderRequiredDescriptors = 4;
inline constexpr int kWineLoaderMaxDescriptors = 5;

// No real request comes near this (an environment is a few KiB): the three
// length-prefixed buffers together may not exceed it, so a bad peer cannot
// make the launcher allocate without bound.
inline constexpr uint64_t kWineLoaderRequestLimit = 16u << 20;

// What depends on the launcher's word size. Written once here, so that the
// tests of a 64-bit build exercise the 32-bit launcher's rules too.
struct WineLoaderLayout {
    uint32_t ownRequest;           // the request this launcher serves
    uint32_t otherRequest;         // refused as the wrong architecture
    const char* otherArchitecture; // what the refused loader asked for
    const char* libraryDirectory;  // under the product's root: libwine.so.1
    const char* defaultLoader;     // under <root>/bin: for an empty first argument
    unsigned lengthBits;           // bits of a length prefix that count
};

inline constexpr WineLoaderLayout kWineLoaderLayout64 {
    WineLoaderRequestX86_64, WineLoaderRequestI386, "i386", "lib64", "wineloader64", 64,
};
inline constexpr WineLoaderLayout kWineLoaderLayout32 {
    WineLoaderRequestI386, WineLoaderRequestX86_64, "x86_64", "lib", "wineloader", 32,
};
inline constexpr const WineLoaderLayout& kNativeWineLoaderLayout
    = sizeof(void*) == 8 ? kWineLoaderLayout64 : kWineLoaderLayout32;

// The length a prefix stands for under `layout`: a 32-bit launcher uses
// only the low 32 bits.
constexpr uint64_t effectiveLength(const WineLoaderLayout& layout, uint64_t prefix)
{
    return layout.lengthBits >= 64 ? prefix : prefix & ((uint64_t { 1 } << layout.lengthBits) - 1);
}

inline constexpr const char* kWineLibraryName = "libwine.so.1";

} // namespace vt
