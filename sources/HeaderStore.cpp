#include "HeaderStore.h"

#include <algorithm>
#include <cstring>

#include "Exceptions.h"

namespace {

const uint32_t kBlock = 0x10000;
const uint32_t kEntrySize = 16;
// The tag of the main header's region when it was written whole (rpm's older packages carry it in
// the signature header's region trailer).
const uint32_t kHeaderImage = 61;
const uint32_t kSignatureRegion = 62;
// Below this tag lie the region tags and the i18n table: no entry of a header's data may use one.
const uint32_t kFirstDataTag = 100;
const uint32_t kMaxArrayCount = 0x000FFFFF;
// The largest header rpm reads: 8 bytes of counts, the index and the store.
const uint64_t kMaxHeaderBytes = uint64_t(256) * 1024 * 1024;

// Per type (0 to 9): the alignment of its data, and the size of one element (0: a string type).
const uint32_t kAlign[10] = {1, 1, 1, 2, 4, 8, 1, 1, 1, 1};
const uint32_t kElementSize[10] = {0, 1, 1, 2, 4, 8, 0, 1, 0, 0};

std::string EntryText(const HeaderEntry& entry) {
    return "tag " + std::to_string(entry.tag) + " type " + std::to_string(entry.type) + " offset " +
           std::to_string(static_cast<int32_t>(entry.offset)) + " count " + std::to_string(entry.count);
}

// The region's checks; false with fault when one fails.
bool CheckRegion(const HeaderStore& store, uint32_t regionTag, bool exactSize, HeaderRegion& region,
                 std::string& fault) {
    const HeaderStructure& header = store.Header();
    if (header.entries.empty()) {
        fault = "region: no tags";
        return false;
    }
    const HeaderEntry& first = header.entries.front();
    if (first.tag != regionTag) return true;
    const auto offset = static_cast<int32_t>(first.offset);
    if (first.type != RpmBinary || first.count != kEntrySize) {
        fault = "region tag: BAD, " + EntryText(first);
        return false;
    }
    if (offset < 0 || uint64_t(offset) + kEntrySize > header.dataSize) {
        fault = "region offset: BAD, " + EntryText(first);
        return false;
    }
    const std::vector<unsigned char> bytes = store.Bytes(first.offset, kEntrySize);
    ByteCursor cursor(bytes.data(), bytes.size(), "Region trailer");
    HeaderEntry trailer{cursor.ReadUInt32(), cursor.ReadUInt32(), cursor.ReadUInt32(), cursor.ReadUInt32()};
    if (regionTag == kSignatureRegion && trailer.tag == kHeaderImage) trailer.tag = kSignatureRegion;
    const int64_t span = -int64_t(static_cast<int32_t>(trailer.offset));
    trailer.offset = static_cast<uint32_t>(span);
    if (trailer.tag != regionTag || trailer.type != RpmBinary || trailer.count != kEntrySize) {
        fault = "region trailer: BAD, " + EntryText(trailer);
        return false;
    }
    region.dataSize = first.offset + kEntrySize;
    if (span < 0 || span % kEntrySize != 0 || span / kEntrySize > header.indexCount) {
        fault = "region " + std::to_string(regionTag) + " size: BAD, ril " + std::to_string(span / kEntrySize) +
                " il " + std::to_string(header.indexCount) + " rdl " + std::to_string(region.dataSize) + " dl " +
                std::to_string(header.dataSize);
        return false;
    }
    region.entries = static_cast<uint32_t>(span / kEntrySize);
    if (exactSize && (region.entries != header.indexCount || region.dataSize != header.dataSize)) {
        fault = "region " + std::to_string(regionTag) + ": tag number mismatch il " +
                std::to_string(header.indexCount) + " ril " + std::to_string(region.entries) + " dl " +
                std::to_string(header.dataSize) + " rdl " + std::to_string(region.dataSize);
        return false;
    }
    region.found = true;
    return true;
}

// The length of an entry's data in the store, or false when it does not fit.
bool DataLength(const HeaderStore& store, const HeaderEntry& entry, uint32_t& length) {
    if (entry.type == RpmString && entry.count != 1) return false;
    if (kElementSize[entry.type] == 0) return store.StringsLength(entry.offset, entry.count, length);
    const uint64_t size = uint64_t(kElementSize[entry.type]) * entry.count;
    if (size > store.Size() - entry.offset) return false;
    length = static_cast<uint32_t>(size);
    return true;
}

// One entry's checks, given the end of the data before it.
bool CheckEntry(const HeaderStore& store, const HeaderEntry& entry, const HeaderRegion& region, uint32_t& end) {
    const uint32_t size = store.Size();
    const auto offset = static_cast<int32_t>(entry.offset);
    if (offset < 0 || end > entry.offset) return false;
    if (entry.tag < kFirstDataTag || entry.type < 1 || entry.type > 9) return false;
    if (entry.count < 1 || entry.count > size) return false;
    if ((entry.offset & (kAlign[entry.type] - 1)) != 0 || entry.offset > size) return false;
    if (entry.type != RpmBinary && (entry.count & ~kMaxArrayCount) != 0) return false;
    uint32_t length = 0;
    if (!DataLength(store, entry, length) || length == 0) return false;
    end = entry.offset + length;
    if (end > size) return false;
    // The data must not reach into the region trailer.
    return !(region.found && end > region.dataSize - kEntrySize && entry.offset < region.dataSize);
}

}  // namespace

HeaderStore::HeaderStore(const PackageFile& file, const HeaderStructure& header) : file_(file), header_(header) {}

const unsigned char* HeaderStore::Block(uint32_t offset) const {
    const uint64_t start = offset - offset % kBlock;
    if (start != blockStart_) {
        const uint32_t count = std::min<uint32_t>(kBlock, header_.dataSize - static_cast<uint32_t>(start));
        block_.resize(count);
        if (file_.Read(block_.data(), count, header_.StoreStart() + start) != count) {
            throw InvalidFileStructureException("Header section is cut short");
        }
        blockStart_ = start;
    }
    return block_.data() + (offset - start);
}

std::vector<unsigned char> HeaderStore::Bytes(uint32_t offset, uint32_t count) const {
    std::vector<unsigned char> bytes;
    bytes.reserve(count);
    while (bytes.size() < count) {
        const uint32_t at = offset + static_cast<uint32_t>(bytes.size());
        const unsigned char* data = Block(at);
        const uint32_t take = std::min<uint32_t>(count - static_cast<uint32_t>(bytes.size()), kBlock - at % kBlock);
        bytes.insert(bytes.end(), data, data + take);
    }
    return bytes;
}

bool HeaderStore::StringsLength(uint32_t offset, uint32_t count, uint32_t& length) const {
    uint32_t at = offset;
    while (count > 0) {
        if (at >= header_.dataSize) return false;
        const unsigned char* data = Block(at);
        const uint32_t span = std::min<uint32_t>(kBlock - at % kBlock, header_.dataSize - at);
        const void* nul = std::memchr(data, '\0', span);
        if (nul == nullptr) {
            at += span;
            continue;
        }
        at += static_cast<uint32_t>(static_cast<const unsigned char*>(nul) - data) + 1;
        --count;
    }
    length = at - offset;
    return true;
}

bool HeaderStore::String(uint32_t offset, size_t keep, std::string& text, uint32_t& length) const {
    uint32_t size = 0;
    if (!StringsLength(offset, 1, size)) return false;
    length = size - 1;
    const std::vector<unsigned char> bytes = Bytes(offset, static_cast<uint32_t>(std::min<uint64_t>(keep, length)));
    text.assign(bytes.begin(), bytes.end());
    return true;
}

HeaderRegion CheckHeaderAsRpm(const HeaderStore& store, uint32_t regionTag, bool exactSize, std::string& fault) {
    const HeaderStructure& header = store.Header();
    HeaderRegion region;
    fault.clear();
    if (8 + uint64_t(kEntrySize) * header.indexCount + header.dataSize >= kMaxHeaderBytes) {
        fault = "blob size: BAD, 8 + 16 * il(" + std::to_string(header.indexCount) + ") + dl(" +
                std::to_string(header.dataSize) + ")";
        return region;
    }
    if (!CheckRegion(store, regionTag, exactSize, region, fault)) return region;
    uint32_t end = 0;
    for (size_t i = region.found ? 1 : 0; i < header.entries.size(); ++i) {
        if (!CheckEntry(store, header.entries[i], region, end)) {
            fault = "tag[" + std::to_string(region.found ? i - 1 : i) + "]: BAD, " + EntryText(header.entries[i]);
            return region;
        }
    }
    return region;
}
