#include "loader/ExecutableLayout.hpp"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <string>

namespace vt {

namespace {

constexpr uintptr_t kWineDosAreaLowest = 0x1000;
constexpr uintptr_t kWineDosAreaEnd = 0x40001000;
constexpr uintptr_t kWineSharedHeapStart = 0x7F000000;
constexpr size_t kWineSharedHeapLength = 0x03000000;

// What most kernels are configured with; taken when the setting cannot be read.
constexpr uintptr_t kUsualMmapMinAddr = 65536;
constexpr uintptr_t kPageSize = 0x1000;

// The lowest page this machine lets a process map (the setting need not be a
// whole number of pages; the kernel refuses the page it falls into).
uintptr_t mmapMinAddr()
{
    std::ifstream file("/proc/sys/vm/mmap_min_addr");
    std::string text;
    if (!(file >> text))
        return kUsualMmapMinAddr;
    uintptr_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return kUsualMmapMinAddr;
    return (value + kPageSize - 1) & ~(kPageSize - 1);
}

} // namespace

std::array<ReservedArea, 2> wineReservedAreas()
{
    // The executable links the DOS area from 0x10000, the highest minimum in
    // common use; below that, as far down as the machine allows, Wine gets the
    // pages too, since nothing in the image is mapped there.
    static const uintptr_t dosStart = std::clamp(mmapMinAddr(), kWineDosAreaLowest, kWineDosAreaEnd);
    return { {
        { dosStart, kWineDosAreaEnd - dosStart },
        { kWineSharedHeapStart, kWineSharedHeapLength },
    } };
}

} // namespace vt
