// Placeholder until the layout lands.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
namespace vt {
struct ReservedArea { uintptr_t start; size_t length; };
std::array<ReservedArea, 2> wineReservedAreas();
}
