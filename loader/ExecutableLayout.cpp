#include "loader/ExecutableLayout.hpp"
namespace vt {
std::array<ReservedArea, 2> wineReservedAreas() { return { { { 0x10000, 0x40001000 - 0x10000 }, { 0x7F000000, 0x03000000 } } }; }
}
