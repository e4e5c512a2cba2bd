#pragma once
// A header structure's store read as rpm's header reader holds it, without reading the whole store
// into memory: the checks rpm makes of the index against the store before it reads a tag, and the
// values of entries, read from the file in blocks.
//
// rpm's checks of a header structure (all offsets relative to the store, dl bytes long):
//   - region: when the first entry has the region tag (62 for the signature header, 63 for the main
//     header), it must be binary with count 16 and its offset must leave 16 bytes for the region
//     trailer in the store; the trailer is an index entry of the same tag, type and count whose
//     offset, negated, is 16 times the entries of the region (at most all of them); the region's
//     store ends after the trailer. Without a region entry the header is read without a region.
//     In the main header the region must cover every entry and the whole store.
//   - every other entry: tag at least 100, type 1 to 9, count from 1 to dl (below 2^20 for all types
//     but binary), offset aligned to its type and inside the store, data that fits in the store (a
//     string type: count NUL-terminated strings), offsets in index order that never go back into the
//     data before, and no data over the region trailer.
#include <cstdint>
#include <string>
#include <vector>

#include "PackageFile.h"

// The store of a header structure, read from the file in blocks of 64 KiB.
class HeaderStore {
public:
    HeaderStore(const PackageFile& file, const HeaderStructure& header);

    uint32_t Size() const { return header_.dataSize; }
    const HeaderStructure& Header() const { return header_; }
    // count bytes at offset (count at most 64 KiB); the store must hold them.
    std::vector<unsigned char> Bytes(uint32_t offset, uint32_t count) const;
    // The length (its NUL included) of count NUL-terminated strings from offset, or false when the
    // store ends first.
    bool StringsLength(uint32_t offset, uint32_t count, uint32_t& length) const;
    // The string at offset and its length without its NUL; at most keep of its characters are
    // returned. False when it is not terminated in the store.
    bool String(uint32_t offset, size_t keep, std::string& text, uint32_t& length) const;

private:
    const unsigned char* Block(uint32_t offset) const;

    const PackageFile& file_;
    const HeaderStructure& header_;
    mutable std::vector<unsigned char> block_;
    mutable uint64_t blockStart_ = ~uint64_t(0);
};

// Where the region of a header ends, as its checks found it: whether there is one, and how many
// entries and bytes of store it covers.
struct HeaderRegion {
    bool found = false;
    uint32_t entries = 0;
    uint32_t dataSize = 0;
};

// rpm's checks of the structure in store with its region tag regionTag; exactSize: the region must
// cover the whole header. The fault is the failing check in rpm's manner ("region trailer: BAD, tag
// 62 type 7 offset -96 count 16"), empty when the header passes.
HeaderRegion CheckHeaderAsRpm(const HeaderStore& store, uint32_t regionTag, bool exactSize, std::string& fault);
