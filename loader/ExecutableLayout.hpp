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

// Reserves the part of Wine's DOS area that the executable cannot link, from
// max(0x1000, vm.mmap_min_addr) up to 0x10000, as an inaccessible mapping
// that replaces nothing. The launcher built with Wine's layout runs it before
// anything else in the process, its libraries' initialisers included
// (loader/wine_segments.S lists it in .preinit_array). It uses nothing but
// system calls: the C++ runtime is not set up yet when it runs.
extern "C" void vt_reserve_wine_low_dos_area(int argc, char** argv, char** envp);
