// The address ranges that the launcher's executable keeps free for Wine (its
// zero-fill segments, loader/wine_segments.S) and that the hand-over gives to
// Wine's memory manager once Wine runs inside this process.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vt {

struct ReservedArea {
    uintptr_t start;
    size_t length;
};

// The address ranges kept for Wine, in the order they are handed over:
// the DOS area (from max(0x1000, vm.mmap_min_addr) to 0x40001000) and the shared heap.
std::array<ReservedArea, 2> wineReservedAreas();

} // namespace vt
