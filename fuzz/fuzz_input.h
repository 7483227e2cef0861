#pragma once

// Encoding of a fuzz input: a sequence of operations, each one byte followed by
// its operands. Numbers are little-endian; "s8" and "s16" are signed.

#include <cstdint>

namespace leitch_fuzz {

// 0x00-0x7F: ReceiveData with the next op + 1 bytes.
constexpr uint8_t kChunk = 0x00;
constexpr uint8_t kChunkLast = 0x7F;
// 0x80-0x87: ReceiveData with a u16 length, then that many bytes.
constexpr uint8_t kLongChunk = 0x80;
constexpr uint8_t kLongChunkLast = 0x87;
// 0x88-0x9F: the next op - 0x88 + 1 bytes, each in a ReceiveData of its own.
constexpr uint8_t kByteChunks = 0x88;
constexpr uint8_t kByteChunksLast = 0x9F;
// 0xA0-0xAF: Crosspoint(level s8, source s8, destination s16).
constexpr uint8_t kCrosspoint = 0xA0;
constexpr uint8_t kCrosspointLast = 0xAF;
// 0xB0-0xBF: CrosspointLock(level s8, destination s16, state s8).
constexpr uint8_t kCrosspointLock = 0xB0;
constexpr uint8_t kCrosspointLockLast = 0xBF;
// 0xC0-0xCF: LevelList of (op & 7) levels, each host level s8, sources s8 and
// one byte for the destinations (see destinations()); update when op & 8.
constexpr uint8_t kLevelList = 0xC0;
constexpr uint8_t kLevelListLast = 0xCF;
constexpr uint8_t kLevelCountMask = 0x07;
constexpr uint8_t kLevelUpdateBit = 0x08;
// 0xD0-0xDF: LoadConfig from a u8 length and that many bytes:
// "device_id|level_mapping_video|level_control_video", missing parts absent.
constexpr uint8_t kLoadConfig = 0xD0;
constexpr uint8_t kLoadConfigLast = 0xDF;
// 0xE0-0xFF: the driver answers like a router from now on when op is odd,
// only records when it is even.
constexpr uint8_t kRouterOff = 0xE0;
constexpr uint8_t kRouterOn = 0xE1;

// Destinations of a level: 0 to 127 as they stand, 0x80 to 0xFE negative,
// 0xFF a full level of 1,024. A reset drives two calls per destination and
// level, so larger levels only slow the search down.
inline int destinations(uint8_t encoded) {
    if (encoded == 0xFF) return 1024;
    return static_cast<int8_t>(encoded);
}
constexpr uint8_t kFullLevel = 0xFF;

}  // namespace leitch_fuzz
