// The address ranges Wine needs: kept free by the launcher's executable as
// linked and while it runs, and named the same way by the hand-over's table.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "loader/ExecutableLayout.hpp"
#include "standin/kit/StandinWorld.hpp"

using namespace vt::test;

namespace {

constexpr uintptr_t kDosLinkedStart = 0x10000;
constexpr uintptr_t kDosEnd = 0x40001000;
constexpr uintptr_t kSharedHeapStart = 0x7F000000;
constexpr size_t kSharedHeapLength = 0x03000000;
constexpr uintptr_t kImageStart = 0x7BF00000;

struct LoadSegment {
    uintptr_t offset, address;
    size_t fileSize, memorySize;
    std::string flags;
};

std::string commandOutput(const std::string& command)
{
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            output.append(buffer, n);
        pclose(pipe);
    }
    return output;
}

// The LOAD lines of `readelf -lW`: Offset VirtAddr PhysAddr FileSiz MemSiz Flg Align,
// where the flags may hold blanks ("R E").
std::vector<LoadSegment> loadSegments(const std::string& programHeaders)
{
    std::vector<LoadSegment> segments;
    std::istringstream lines(programHeaders);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string type, offset, address, physical, fileSize, memorySize;
        if (!(fields >> type >> offset >> address >> physical >> fileSize >> memorySize) || type != "LOAD")
            continue;
        std::vector<std::string> rest;
        for (std::string word; fields >> word;)
            rest.push_back(word);
        if (rest.empty())
            continue;
        rest.pop_back(); // the alignment
        std::string flags;
        for (const std::string& flag : rest)
            flags += flag;
        segments.push_back({ std::stoul(offset, nullptr, 16), std::stoul(address, nullptr, 16),
                             std::stoul(fileSize, nullptr, 16), std::stoul(memorySize, nullptr, 16), flags });
    }
    return segments;
}

struct Mapping {
    uintptr_t start, end;
    std::string permissions;
};

std::vector<Mapping> mappings(pid_t pid)
{
    std::vector<Mapping> result;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::string range, permissions;
        fields >> range >> permissions;
        size_t dash = range.find('-');
        result.push_back({ std::stoul(range.substr(0, dash), nullptr, 16), std::stoul(range.substr(dash + 1), nullptr, 16),
                           permissions });
    }
    return result;
}

// Whether [start, end) is mapped throughout (mappings come sorted by address).
bool mappedThroughout(const std::vector<Mapping>& maps, uintptr_t start, uintptr_t end)
{
    for (const Mapping& m : maps) {
        if (m.start <= start && start < m.end)
            start = m.end;
    }
    return start >= end;
}

uintptr_t machineMmapMinAddr()
{
    uintptr_t value = 65536;
    std::ifstream("/proc/sys/vm/mmap_min_addr") >> value;
    return value;
}

} // namespace

TEST(ExecutableLayout, LauncherIsLinkedWithTheReservedSegments)
{
#if !VT_EXECUTABLE_LAYOUT
    GTEST_SKIP() << "this build links the launcher without the layout (sanitizers, or VT_WINE_LAYOUT=OFF)";
#endif
    std::string headers = commandOutput(std::string("readelf -lW '") + VT_LAUNCHER_PATH + "'");
    ASSERT_NE(headers.find("Elf file type is EXEC"), std::string::npos) << headers;

    auto segments = loadSegments(headers);
    ASSERT_GE(segments.size(), 4u) << headers;
    // Ascending, or kernels before 6.7 leave a zero-fill segment unmapped.
    for (size_t i = 1; i < segments.size(); ++i)
        EXPECT_LT(segments[i - 1].address, segments[i].address) << headers;

    const LoadSegment& dos = segments.front();
    EXPECT_EQ(dos.address, kDosLinkedStart) << headers;
    EXPECT_EQ(dos.memorySize, kDosEnd - kDosLinkedStart) << headers;
    EXPECT_EQ(dos.fileSize, 0u) << headers;

    const LoadSegment& sharedHeap = segments.back();
    EXPECT_EQ(sharedHeap.address, kSharedHeapStart) << headers;
    EXPECT_EQ(sharedHeap.memorySize, kSharedHeapLength) << headers;
    EXPECT_EQ(sharedHeap.fileSize, 0u) << headers;

    // The image, headers first, lies between them, and its code with it.
    const LoadSegment& image = segments[1];
    EXPECT_EQ(image.address, kImageStart) << headers;
    EXPECT_EQ(image.offset, 0u) << headers;
    bool codeInImage = false;
    for (size_t i = 1; i + 1 < segments.size(); ++i) {
        EXPECT_GE(segments[i].address, kImageStart) << headers;
        EXPECT_LE(segments[i].address + segments[i].memorySize, kSharedHeapStart) << headers;
        codeInImage = codeInImage || segments[i].flags.find('E') != std::string::npos;
    }
    EXPECT_TRUE(codeInImage) << headers;

    EXPECT_LT(std::filesystem::file_size(VT_LAUNCHER_PATH), 20u << 20) << "the reserved ranges take file space";
}

TEST(ExecutableLayout, RunningLauncherHoldsTheRangesAndLeavesPageZeroFree)
{
#if !VT_EXECUTABLE_LAYOUT
    GTEST_SKIP() << "this build links the launcher without the layout (sanitizers, or VT_WINE_LAYOUT=OFF)";
#endif
    // Without a helper server the launcher keeps looking for one, long
    // enough to read its map after libraries, heap and threads are set up.
    StandinWorld w;
    auto& launcher = w.startLauncher();
    ASSERT_TRUE(w.waitForLog("looking for the helper server, attempt")) << w.launcherLog();

    // The DOS area from the lowest page this machine allows, the part below
    // the linked segment included: reserved, inaccessible, before anything
    // else could take it.
    const uintptr_t dosStart = std::max<uintptr_t>(0x1000, (machineMmapMinAddr() + 0xFFF) & ~uintptr_t { 0xFFF });
    auto maps = mappings(launcher.pid());
    ASSERT_FALSE(maps.empty());
    EXPECT_EQ(maps.front().start, std::min(dosStart, kDosLinkedStart)) << "page zero free, nothing else below";
    EXPECT_TRUE(mappedThroughout(maps, dosStart, kDosEnd));
    if (dosStart < kDosLinkedStart) {
        EXPECT_EQ(maps.front().end, kDosLinkedStart);
        EXPECT_EQ(maps.front().permissions, "---p");
    }
    EXPECT_TRUE(mappedThroughout(maps, kSharedHeapStart, kSharedHeapStart + kSharedHeapLength));
}

TEST(ExecutableLayout, ReservedAreasAreTheDosAreaFromTheLowestMappablePageThenTheSharedHeap)
{
    uintptr_t dosStart = std::max<uintptr_t>(0x1000, machineMmapMinAddr());
    auto areas = vt::wineReservedAreas();
    EXPECT_EQ(areas[0].start, dosStart);
    EXPECT_EQ(areas[0].start + areas[0].length, kDosEnd);
    EXPECT_EQ(areas[1].start, kSharedHeapStart);
    EXPECT_EQ(areas[1].length, kSharedHeapLength);
}
