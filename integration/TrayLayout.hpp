// Where the fields of a tray message and of its tray record lie. Both depend
// on the word size of the Wine side that sends them (which must be the
// launcher's own): the message's operation field is the sender's unsigned
// long, and the record header is its struct notify_data. Every size-dependent
// rule reads it from here, so both layouts are exercised in one build.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vt {

// The one message code a tray message may carry.
inline constexpr uint32_t kTrayMessageCode = 74;

// The tray operations of a message.
inline constexpr uint64_t kTrayOperationAdd = 0;
inline constexpr uint64_t kTrayOperationModify = 1;
inline constexpr uint64_t kTrayOperationDelete = 2;

struct TrayLayout {
    const char* name;
    // The message: code (4 bytes), operation (this wide), payload length (4 bytes).
    size_t operationWidth;
    // The record: header fields and the header's size; the mask follows it.
    size_t hwndOffset;
    size_t idOffset;
    size_t callbackMessageOffset;
    size_t widthOffset;
    size_t heightOffset;
    size_t planesOffset;
    size_t bppOffset;
    size_t recordHeaderSize;

    constexpr size_t messageHeaderSize() const { return 4 + operationWidth + 4; }
    // The largest payload the launcher reads: a header and the bits of a
    // 256 x 256, 32-bpp icon (the largest a Windows tray shows) with its mask.
    constexpr size_t payloadLimit() const { return recordHeaderSize + 256 * 256 / 8 + 256 * 256 * 4; }
};

inline constexpr TrayLayout kTrayLayout64 { "64-bit", 8, 0, 8, 16, 968, 972, 976, 980, 984 };
inline constexpr TrayLayout kTrayLayout32 { "32-bit", 4, 0, 4, 12, 944, 948, 952, 956, 960 };
inline constexpr const TrayLayout& kNativeTrayLayout = sizeof(unsigned long) == 8 ? kTrayLayout64 : kTrayLayout32;

} // namespace vt
