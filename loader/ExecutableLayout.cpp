#include "loader/ExecutableLayout.hpp"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vt {

namespace {

constexpr uintptr_t kWineDosAreaLowest = 0x1000;
// Where the executable's zero-fill segment for the DOS area begins.
constexpr uintptr_t kWineDosAreaLinkedStart = 0x10000;
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

extern "C" void vt_reserve_wine_low_dos_area(int, char**, char**)
{
    using namespace vt;
    // Read with bare system calls: no stream, no allocation, no locale yet.
    uintptr_t lowest = kUsualMmapMinAddr;
    int fd = ::open("/proc/sys/vm/mmap_min_addr", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char text[32];
        ssize_t n = ::read(fd, text, sizeof text);
        ::close(fd);
        uintptr_t value = 0;
        bool digits = n > 0;
        for (ssize_t i = 0; i < n && text[i] != '\n'; ++i) {
            if (text[i] < '0' || text[i] > '9') {
                digits = false;
                break;
            }
            value = value * 10 + static_cast<uintptr_t>(text[i] - '0');
        }
        if (digits)
            lowest = (value + kPageSize - 1) & ~(kPageSize - 1);
    }
    uintptr_t start = lowest < kWineDosAreaLowest ? kWineDosAreaLowest : lowest;
    if (start >= kWineDosAreaLinkedStart)
        return;
    // Nothing may sit there yet, and nothing is replaced if something does:
    // the hand-over maps over the whole area in any case.
    void* wanted = reinterpret_cast<void*>(start);
    size_t length = kWineDosAreaLinkedStart - start;
    void* got = ::mmap(wanted, length, PROT_NONE, MAP_FIXED_NOREPLACE | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                       -1, 0);
    // A kernel that predates MAP_FIXED_NOREPLACE takes the address as a hint.
    if (got != MAP_FAILED && got != wanted)
        ::munmap(got, length);
}
