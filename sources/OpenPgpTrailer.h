#pragma once
// The end of what a version 4 OpenPGP signature hashes (RFC 4880, 5.2.4): 0x04, 0xFF and the length
// of the hashed part (the signature's fields up to the end of its hashed subpackets), as 32 bits.
#include <array>
#include <cstdint>

inline std::array<unsigned char, 6> OpenPgpV4Trailer(uint32_t hashedPart) {
    return {0x04,
            0xFF,
            static_cast<unsigned char>(hashedPart >> 24),
            static_cast<unsigned char>(hashedPart >> 16),
            static_cast<unsigned char>(hashedPart >> 8),
            static_cast<unsigned char>(hashedPart)};
}
