// differential-mutate: writes the cases that differential-verdicts judges with two builds of the
// core. The first cases are the fixtures themselves (every package with every public key); then come
// COUNT mutated cases: about 85% a package damaged where its structure lives (lead, header
// indexes, the OpenPGP signature packets, digests, padding, payload) checked with a real key, the
// rest a public key damaged in its armor or in its packets checked with a real package. Half of the
// time the real file is one the fixture lists pair with the damaged one, so that damage to a
// package that verified shows as such.
//
//   differential-mutate [--data=DIR] [--fixtures=FOLDER] OUTDIR SEED COUNT
//
// The sources are the packages of DIR/rpm and DIR/current and the keys of DIR/keys and DIR/current
// (DIR: tests/data), or with --fixtures the packages (*.rpm) and public keys (*.asc) of one folder
// of DIR, such as oracle, where a package pairs with the keys whose names it holds
// (gpg-rsa2048-v4.rpm, multi-gpg-rsa2048-gpg-ed25519-v6.rpm with gpg-rsa2048.asc).
//
// OUTDIR/cases.txt      one case a line: PACKAGE<TAB>KEY (a fixture case names the fixture files)
// OUTDIR/mutations.txt  line for line, what was done: "fixture", or
//                       "package SOURCE: what" / "key SOURCE: what"
// OUTDIR/files/NNN/     the files of the mutated cases, one file each
//
// The same SEED and COUNT give the same files on every machine: the generator is a splitmix64 of
// its own, and case N draws from a stream seeded with SEED and N only, so one case can be made again
// without the ones before it.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <dirent.h>

#ifndef DIFFERENTIAL_TEST_DATA
#define DIFFERENTIAL_TEST_DATA "tests/data"
#endif

namespace {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------------------------
// Randomness

class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t Next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // A number in [0, n); 0 when n is 0.
    size_t Below(size_t n) { return n == 0 ? 0 : static_cast<size_t>(Next() % n); }
    // A number in [low, high].
    size_t Between(size_t low, size_t high) { return low + Below(high - low + 1); }
    bool Percent(unsigned chance) { return Below(100) < chance; }
    uint8_t Byte() { return static_cast<uint8_t>(Next()); }
    template <class T>
    const T& Pick(const std::vector<T>& items) {
        return items[Below(items.size())];
    }
    // An index chosen by weight.
    size_t Weighted(const std::vector<unsigned>& weights) {
        unsigned total = 0;
        for (unsigned weight : weights) total += weight;
        size_t roll = Below(total);
        for (size_t i = 0; i < weights.size(); ++i) {
            if (roll < weights[i]) return i;
            roll -= weights[i];
        }
        return weights.size() - 1;
    }

private:
    uint64_t state_;
};

uint64_t CaseSeed(uint64_t seed, uint64_t index) {
    Random mix(seed * 0x2545F4914F6CDD1DULL + index);
    mix.Next();
    return mix.Next() ^ (index << 1);
}

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string Num(uint64_t value) {
    return std::to_string(value);
}

// ---------------------------------------------------------------------------------------------
// Big-endian fields

uint32_t Get32(const Bytes& b, size_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) | b[at + 3];
}

void Put32(Bytes& b, size_t at, uint32_t value) {
    b[at] = static_cast<uint8_t>(value >> 24);
    b[at + 1] = static_cast<uint8_t>(value >> 16);
    b[at + 2] = static_cast<uint8_t>(value >> 8);
    b[at + 3] = static_cast<uint8_t>(value);
}

uint32_t Get16(const Bytes& b, size_t at) {
    return (uint32_t(b[at]) << 8) | b[at + 1];
}

void Put16(Bytes& b, size_t at, uint32_t value) {
    b[at] = static_cast<uint8_t>(value >> 8);
    b[at + 1] = static_cast<uint8_t>(value);
}

// ---------------------------------------------------------------------------------------------
// Base64 and the armor checksum

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Base64Encode(const uint8_t* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; i += 3) {
        uint32_t group = uint32_t(data[i]) << 16;
        if (i + 1 < size) group |= uint32_t(data[i + 1]) << 8;
        if (i + 2 < size) group |= data[i + 2];
        text += kBase64[(group >> 18) & 63];
        text += kBase64[(group >> 12) & 63];
        text += i + 1 < size ? kBase64[(group >> 6) & 63] : '=';
        text += i + 2 < size ? kBase64[group & 63] : '=';
    }
    return text;
}

// Decodes the Base64 characters of text, skipping everything else; stops at '='.
Bytes Base64Decode(const std::string& text) {
    Bytes out;
    uint32_t group = 0;
    int bits = 0;
    for (char c : text) {
        if (c == '=') break;
        const char* at = std::strchr(kBase64, c);
        if (c == '\0' || at == nullptr) continue;
        group = (group << 6) | uint32_t(at - kBase64);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<uint8_t>(group >> bits));
        }
    }
    return out;
}

uint32_t Crc24(const Bytes& data) {
    uint32_t crc = 0xB704CE;
    for (uint8_t byte : data) {
        crc ^= uint32_t(byte) << 16;
        for (int i = 0; i < 8; ++i) {
            crc <<= 1;
            if (crc & 0x1000000) crc ^= 0x1864CFB;
        }
    }
    return crc & 0xFFFFFF;
}

// ---------------------------------------------------------------------------------------------
// The RPM layout: lead, signature header, padding, main header, payload

const size_t kLead = 96;
const uint8_t kHeaderMagic[4] = {0x8E, 0xAD, 0xE8, 0x01};

struct Header {
    bool present = false;  // the 16 bytes of its intro are in the file and begin with the magic
    size_t start = 0;
    uint64_t count = 0, size = 0;
    uint64_t IndexStart() const { return start + 16; }
    uint64_t StoreStart() const { return start + 16 + 16 * count; }
    uint64_t End() const { return StoreStart() + size; }
    // Entries whose 16 bytes lie in the file.
    size_t EntriesIn(size_t fileSize) const {
        if (IndexStart() >= fileSize) return 0;
        return static_cast<size_t>(std::min<uint64_t>(count, (fileSize - IndexStart()) / 16));
    }
    size_t Entry(size_t i) const { return start + 16 + 16 * i; }
};

struct Layout {
    Header signature, main;
    bool mainPlaced = false;  // the signature header is whole, so the main header's place is known
    size_t mainStart = 0;
};

Header ReadHeader(const Bytes& b, size_t start) {
    Header h;
    h.start = start;
    if (start + 16 <= b.size() && std::memcmp(&b[start], kHeaderMagic, 4) == 0) {
        h.present = true;
        h.count = Get32(b, start + 8);
        h.size = Get32(b, start + 12);
    }
    return h;
}

Layout Parse(const Bytes& b) {
    Layout layout;
    layout.signature = ReadHeader(b, kLead);
    if (layout.signature.present && layout.signature.End() <= b.size()) {
        layout.mainPlaced = true;
        layout.mainStart = static_cast<size_t>((layout.signature.End() + 7) & ~uint64_t(7));
        layout.main = ReadHeader(b, layout.mainStart);
    }
    return layout;
}

// The places where one part of the package ends and the next begins.
std::vector<size_t> Boundaries(const Bytes& b, const Layout& layout) {
    std::vector<uint64_t> all = {0, 4, kLead};
    for (const Header* h : {&layout.signature, &layout.main}) {
        if (!h->present) continue;
        all.push_back(h->start + 8);
        all.push_back(h->IndexStart());
        all.push_back(h->StoreStart());
        all.push_back(h->End());
    }
    if (layout.mainPlaced) all.push_back(layout.mainStart);
    std::vector<size_t> in;
    for (uint64_t at : all) {
        if (at <= b.size()) in.push_back(static_cast<size_t>(at));
    }
    return in;
}

// A position to damage: mostly inside the headers, where the structure lives.
size_t Position(const Bytes& b, const Layout& layout, Random& rng) {
    if (b.empty()) return 0;
    const unsigned roll = static_cast<unsigned>(rng.Below(100));
    if (roll < 45 && layout.signature.present) {
        const uint64_t end = std::min<uint64_t>(layout.signature.End(), b.size());
        if (end > kLead) return rng.Between(kLead, static_cast<size_t>(end) - 1);
    }
    if (roll < 70 && layout.main.present) {
        const uint64_t end = std::min<uint64_t>(layout.main.End(), b.size());
        if (end > layout.main.start) return rng.Between(layout.main.start, static_cast<size_t>(end) - 1);
    }
    if (roll < 78) return rng.Below(std::min(b.size(), kLead));
    return rng.Below(b.size());
}

// Tags a verifier looks for: those of the signature header, and those of the main header that the
// current policy reads (payload digests and their algorithm, the package format).
const std::vector<uint32_t> kSignatureHeaderTags = {62,   63,   267,  268,  269,  270,  271,  273,
                                                    278,  279,  1000, 1002, 1004, 1005, 1007, 1008,
                                                    5092, 5093, 5114, 5121, 5123, 100,  999};
const std::vector<uint32_t> kMainHeaderTags = {62, 63, 269, 1000, 1004, 5092, 5093, 5097, 5114, 5121, 5123};
const std::vector<uint32_t> kSignatureTags = {267, 268, 1002, 1005};
const std::vector<uint32_t> kHugeValues = {0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFF0, 0x10000000, 0x01000000};

uint32_t Nearby(uint32_t value, Random& rng) {
    static const int64_t kSteps[] = {-16, -8, -2, -1, 1, 2, 8, 16};
    return static_cast<uint32_t>(int64_t(value) + kSteps[rng.Below(8)]);
}

// The header that a mutation of an index works on: the signature header mostly, the main header
// (whose tags the current policy reads: payload digests, the package format) otherwise.
const Header* ChooseHeader(const Bytes& b, const Layout& layout, Random& rng) {
    const bool signature = layout.signature.EntriesIn(b.size()) > 0;
    const bool main = layout.main.present && layout.main.EntriesIn(b.size()) > 0;
    if (signature && (!main || rng.Percent(65))) return &layout.signature;
    return main ? &layout.main : nullptr;
}

const char* HeaderName(const Layout& layout, const Header* h) {
    return h == &layout.signature ? "signature header" : "main header";
}

// Bytes inserted at or deleted from the signature header's store move the main header; the padding
// after the store is made again, so that the main header starts on its 8-byte boundary.
void Repad(Bytes& b, size_t storeEnd, size_t oldPaddedEnd) {
    const size_t paddedEnd = (storeEnd + 7) & ~size_t(7);
    b.erase(b.begin() + static_cast<std::ptrdiff_t>(storeEnd), b.begin() + static_cast<std::ptrdiff_t>(oldPaddedEnd));
    b.insert(b.begin() + static_cast<std::ptrdiff_t>(storeEnd), paddedEnd - storeEnd, 0);
}

// Appends value to the store of h (which must be whole in the file) and returns its offset.
uint32_t AppendToStore(Bytes& b, const Layout& layout, const Header& h, const Bytes& value) {
    const size_t end = static_cast<size_t>(h.End());
    const uint32_t offset = static_cast<uint32_t>(h.size);
    if (&h == &layout.signature) {
        const size_t padded = std::min(b.size(), (end + 7) & ~size_t(7));
        b.insert(b.begin() + static_cast<std::ptrdiff_t>(end), value.begin(), value.end());
        Repad(b, end + value.size(), padded + value.size());
    } else {
        b.insert(b.begin() + static_cast<std::ptrdiff_t>(end), value.begin(), value.end());
    }
    Put32(b, h.start + 12, static_cast<uint32_t>(h.size + value.size()));
    return offset;
}

// Where the value of entry i lies in the file, as far as it lies there: [begin, end).
bool ValueSpan(const Bytes& b, const Header& h, size_t i, size_t& begin, size_t& end) {
    const size_t at = h.Entry(i);
    const uint32_t type = Get32(b, at + 4), offset = Get32(b, at + 8), count = Get32(b, at + 12);
    const uint64_t start = h.StoreStart() + offset;
    if (offset >= h.size || start >= b.size()) return false;
    uint64_t length = 0;
    switch (type) {
        case 2:
        case 1: length = count; break;  // CHAR, INT8
        case 3: length = uint64_t(count) * 2; break;
        case 4: length = uint64_t(count) * 4; break;
        case 5: length = uint64_t(count) * 8; break;
        case 7: length = count; break;  // BIN
        default: {                      // strings: up to the end of the last one
            uint64_t p = start;
            for (uint32_t s = 0; s < std::max<uint32_t>(count, 1) && p < b.size(); ++s) {
                while (p < b.size() && b[p] != 0) ++p;
                if (p < b.size()) ++p;
            }
            length = p - start;
        }
    }
    const uint64_t limit = std::min<uint64_t>({start + length, h.End(), b.size()});
    if (limit <= start) return false;
    begin = static_cast<size_t>(start);
    end = static_cast<size_t>(limit);
    return true;
}

// Entries of h (in the file) with one of tags.
std::vector<size_t> EntriesWith(const Bytes& b, const Header& h, const std::vector<uint32_t>& tags) {
    std::vector<size_t> found;
    for (size_t i = 0; i < h.EntriesIn(b.size()); ++i) {
        if (std::find(tags.begin(), tags.end(), Get32(b, h.Entry(i))) != tags.end()) found.push_back(i);
    }
    return found;
}

// ---------------------------------------------------------------------------------------------
// OpenPGP packets

struct Packet {
    size_t start = 0;  // the first byte of the packet's header
    size_t headerLength = 0;
    size_t bodyLength = 0;  // as far as it lies in the buffer
    unsigned tag = 0;
    bool newFormat = false;
    size_t Body() const { return start + headerLength; }
    size_t End() const { return Body() + bodyLength; }
};

// Reads the packet at start of [start, limit); false when no packet header is there.
bool ReadPacket(const Bytes& b, size_t start, size_t limit, Packet& p) {
    if (start >= limit || !(b[start] & 0x80)) return false;
    p.start = start;
    uint64_t length = 0;
    if (b[start] & 0x40) {
        p.newFormat = true;
        p.tag = b[start] & 0x3F;
        if (start + 1 >= limit) return false;
        const uint8_t first = b[start + 1];
        if (first < 192) {
            p.headerLength = 2;
            length = first;
        } else if (first < 224) {
            if (start + 2 >= limit) return false;
            p.headerLength = 3;
            length = ((uint64_t(first) - 192) << 8) + b[start + 2] + 192;
        } else if (first == 255) {
            if (start + 5 >= limit) return false;
            p.headerLength = 6;
            length = Get32(b, start + 2);
        } else {
            p.headerLength = 2;  // a partial length: taken as the rest
            length = limit - start - 2;
        }
    } else {
        p.newFormat = false;
        p.tag = (b[start] >> 2) & 0x0F;
        const unsigned type = b[start] & 3;
        if (type == 3) {
            p.headerLength = 1;
            length = limit - start - 1;
        } else {
            p.headerLength = size_t(1) + (size_t(1) << type);
            if (start + p.headerLength > limit) return false;
            for (size_t i = 1; i < p.headerLength; ++i) length = (length << 8) | b[start + i];
        }
    }
    p.bodyLength = static_cast<size_t>(std::min<uint64_t>(length, limit - start - p.headerLength));
    return true;
}

std::vector<Packet> ReadPackets(const Bytes& b, size_t start, size_t limit) {
    std::vector<Packet> packets;
    Packet p;
    while (start < limit && ReadPacket(b, start, limit, p)) {
        packets.push_back(p);
        start = p.End();
    }
    return packets;
}

// A packet header for tag and length in the given format.
Bytes PacketHeader(unsigned tag, bool newFormat, uint64_t length) {
    Bytes h;
    if (newFormat) {
        h.push_back(static_cast<uint8_t>(0xC0 | (tag & 0x3F)));
        if (length < 192) {
            h.push_back(static_cast<uint8_t>(length));
        } else if (length < 8384) {
            h.push_back(static_cast<uint8_t>(((length - 192) >> 8) + 192));
            h.push_back(static_cast<uint8_t>(length - 192));
        } else {
            h.push_back(255);
            h.resize(6);
            Put32(h, 2, static_cast<uint32_t>(length));
        }
    } else if (length < 256) {
        h = {static_cast<uint8_t>(0x80 | ((tag & 0xF) << 2)), static_cast<uint8_t>(length)};
    } else if (length < 65536) {
        h = {static_cast<uint8_t>(0x81 | ((tag & 0xF) << 2)), 0, 0};
        Put16(h, 1, static_cast<uint32_t>(length));
    } else {
        h = {static_cast<uint8_t>(0x82 | ((tag & 0xF) << 2)), 0, 0, 0, 0};
        Put32(h, 1, static_cast<uint32_t>(length));
    }
    return h;
}

void ReplaceRange(Bytes& b, size_t begin, size_t end, const Bytes& with) {
    b.erase(b.begin() + static_cast<std::ptrdiff_t>(begin), b.begin() + static_cast<std::ptrdiff_t>(end));
    b.insert(b.begin() + static_cast<std::ptrdiff_t>(begin), with.begin(), with.end());
}

// The subpackets of the signature packet body at [body, end): positions of their length octets.
struct Subpacket {
    size_t start, data, end;  // length octets, type octet, past the end
};

void ReadSubpackets(const Bytes& b, size_t from, size_t to, std::vector<Subpacket>& out) {
    size_t at = from;
    while (at < to) {
        const uint8_t first = b[at];
        uint64_t length;
        size_t lengthOctets;
        if (first < 192) {
            length = first;
            lengthOctets = 1;
        } else if (first < 255) {
            if (at + 1 >= to) return;
            length = ((uint64_t(first) - 192) << 8) + b[at + 1] + 192;
            lengthOctets = 2;
        } else {
            if (at + 4 >= to) return;
            length = Get32(b, at + 1);
            lengthOctets = 5;
        }
        if (length == 0 || at + lengthOctets + length > to) return;
        out.push_back({at, at + lengthOctets, static_cast<size_t>(at + lengthOctets + length)});
        at = out.back().end;
    }
}

// Damages a signature packet that occupies [begin, end) of b in place (its length in the buffer
// stays the same). Aims at the fields a verifier reads: versions, algorithms, the subpacket areas
// and the subpackets in them (issuer, creation time, critical bits), the quick-check bytes, the MPIs.
std::string MutateSignaturePacket(Bytes& b, size_t begin, size_t end, Random& rng) {
    Packet p;
    const bool framed = ReadPacket(b, begin, end, p) && p.bodyLength > 0;
    const size_t body = framed ? p.Body() : begin;
    const size_t bodyEnd = framed ? p.End() : end;
    const uint8_t version = b[body];
    // Field positions of a version 4 packet (hashed area, unhashed area, quick check, MPIs) or of a
    // version 3 one.
    size_t hashedLength = 0, unhashedLength = 0, quick = 0, mpi = 0;
    std::vector<Subpacket> subpackets;
    if (version == 4 && body + 6 <= bodyEnd) {
        hashedLength = body + 4;
        const size_t hashedEnd = body + 6 + Get16(b, hashedLength);
        if (hashedEnd + 2 <= bodyEnd) {
            ReadSubpackets(b, body + 6, hashedEnd, subpackets);
            unhashedLength = hashedEnd;
            const size_t unhashedEnd = hashedEnd + 2 + Get16(b, hashedEnd);
            if (unhashedEnd + 4 <= bodyEnd) {
                ReadSubpackets(b, hashedEnd + 2, unhashedEnd, subpackets);
                quick = unhashedEnd;
                mpi = unhashedEnd + 2;
            }
        }
    } else if (version == 3 && body + 21 <= bodyEnd) {
        quick = body + 17;
        mpi = body + 19;
    }
    const size_t what = rng.Weighted({14, 10, 6, 4, 8, 4, 10, 6, 6, 8, 4});
    switch (what) {
        case 1: {  // the packet header, the version and the algorithm octets
            const size_t at = begin + rng.Below(std::min<size_t>(end - begin, 8));
            const unsigned bit = static_cast<unsigned>(rng.Below(8));
            b[at] ^= static_cast<uint8_t>(1u << bit);
            return "flip bit " + Num(bit) + " of signature packet byte " + Num(at - begin);
        }
        case 2: {
            static const std::vector<uint8_t> kVersions = {2, 3, 4, 5, 6, 0};
            const uint8_t to = rng.Pick(kVersions);
            b[body] = to;
            return "signature packet version " + Num(version) + " -> " + Num(to);
        }
        case 3: {
            static const std::vector<uint8_t> kTypes = {0x00, 0x01, 0x10, 0x13, 0x18, 0x1F, 0x20, 0x30};
            const size_t at = version == 3 ? body + 2 : body + 1;
            if (at >= bodyEnd) break;
            b[at] = rng.Pick(kTypes);
            return "signature type -> " + Hex(b[at]);
        }
        case 4: {  // public key or hash algorithm
            static const std::vector<uint8_t> kKeys = {0, 1, 2, 3, 16, 17, 19, 22, 27, 100};
            static const std::vector<uint8_t> kHashes = {0, 1, 2, 3, 8, 9, 10, 11, 12, 14, 100};
            const bool hash = rng.Percent(50);
            const size_t at = (version == 3 ? body + 15 : body + 2) + (hash ? 1 : 0);
            if (at >= bodyEnd) break;
            b[at] = hash ? rng.Pick(kHashes) : rng.Pick(kKeys);
            return std::string(hash ? "hash" : "public key") + " algorithm -> " + Num(b[at]);
        }
        case 5: {  // the length of the hashed or unhashed area
            const size_t at = rng.Percent(50) || unhashedLength == 0 ? hashedLength : unhashedLength;
            if (at == 0) break;
            const uint32_t from = Get16(b, at);
            const uint32_t to = rng.Percent(25) ? 0xFFFF : (rng.Percent(20) ? 0 : Nearby(from, rng) & 0xFFFF);
            Put16(b, at, to);
            return std::string(at == hashedLength ? "hashed" : "unhashed") + " area length " + Num(from) + " -> " +
                   Num(to);
        }
        case 6: {  // a subpacket's length, type or data; the issuer's key ID or the creation time
            if (subpackets.empty()) break;
            const Subpacket s = rng.Pick(subpackets);
            const uint8_t type = b[s.data];
            switch (rng.Below(4)) {
                case 0: b[s.start] = static_cast<uint8_t>(b[s.start] + (rng.Percent(50) ? 1 : -1)); break;
                case 1: b[s.data] = static_cast<uint8_t>(type ^ 0x80); break;  // the critical bit
                case 2: {
                    static const std::vector<uint8_t> kSubTypes = {2, 3, 9, 16, 27, 33, 34, 0, 110};
                    b[s.data] = rng.Pick(kSubTypes);
                    break;
                }
                default:
                    if (s.data + 1 < s.end) {
                        b[rng.Between(s.data + 1, s.end - 1)] ^= static_cast<uint8_t>(1u << rng.Below(8));
                    } else {
                        b[s.data] ^= 0x01;
                    }
            }
            return "subpacket of type " + Num(type) + " damaged";
        }
        case 7: {  // the issuer key ID: a key the key file does not hold
            for (const Subpacket& s : subpackets) {
                if ((b[s.data] & 0x7F) == 16 && s.end - s.data == 9) {
                    b[s.end - 1] ^= 0x01;
                    return "issuer key ID changed";
                }
            }
            if (version == 3 && body + 15 <= bodyEnd) {
                b[body + 14] ^= 0x01;
                return "version 3 key ID changed";
            }
            break;
        }
        case 8: {  // the quick-check bytes
            if (quick == 0) break;
            b[quick + rng.Below(2)] ^= static_cast<uint8_t>(1u << rng.Below(8));
            return "quick-check bytes changed";
        }
        case 9: {  // the first MPI's bit count or its bytes
            if (mpi == 0 || mpi + 2 > bodyEnd) break;
            const uint32_t bits = Get16(b, mpi);
            switch (rng.Below(3)) {
                case 0: {
                    const uint32_t to = rng.Percent(30) ? (rng.Percent(50) ? 0 : 0xFFFF) : Nearby(bits, rng) & 0xFFFF;
                    Put16(b, mpi, to);
                    return "MPI bit count " + Num(bits) + " -> " + Num(to);
                }
                case 1:
                    if (mpi + 2 >= bodyEnd) break;
                    b[mpi + 2] ^= static_cast<uint8_t>(1u << rng.Below(8));
                    return "leading MPI byte changed";
                default: {
                    const size_t at = rng.Between(mpi + 2 < bodyEnd ? mpi + 2 : mpi, bodyEnd - 1);
                    b[at] ^= static_cast<uint8_t>(1u << rng.Below(8));
                    return "MPI byte " + Num(at - mpi) + " changed";
                }
            }
            break;
        }
        case 10: {  // the packet length in its header
            if (!framed || p.headerLength < 2) break;
            const size_t at = p.start + p.headerLength - 1;
            b[at] = static_cast<uint8_t>(b[at] + (rng.Percent(50) ? 1 : -1));
            return "signature packet length byte changed";
        }
        default: break;
    }
    const size_t at = rng.Between(begin, end - 1);
    const unsigned bit = static_cast<unsigned>(rng.Below(8));
    b[at] ^= static_cast<uint8_t>(1u << bit);
    return "flip bit " + Num(bit) + " of signature byte " + Num(at - begin);
}

// ---------------------------------------------------------------------------------------------
// Package mutations

std::string FlipBit(Bytes& b, const Layout& layout, Random& rng) {
    const size_t at = Position(b, layout, rng);
    const unsigned bit = static_cast<unsigned>(rng.Below(8));
    b[at] ^= static_cast<uint8_t>(1u << bit);
    return "flip bit " + Num(bit) + " at " + Num(at);
}

std::string SetByte(Bytes& b, const Layout& layout, Random& rng) {
    static const std::vector<uint8_t> kValues = {0x00, 0xFF, 0x7F, 0x80};
    const size_t at = Position(b, layout, rng);
    const uint8_t value = rng.Percent(80) ? rng.Pick(kValues) : rng.Byte();
    b[at] = value;
    return "byte " + Num(at) + " = " + Hex(value);
}

std::string Truncate(Bytes& b, const Layout& layout, Random& rng) {
    size_t at;
    if (rng.Percent(60)) {
        const std::vector<size_t> boundaries = Boundaries(b, layout);
        at = rng.Pick(boundaries);
        if (rng.Percent(30)) at = at + 1 <= b.size() && rng.Percent(50) ? at + 1 : (at > 0 ? at - 1 : at);
    } else {
        at = rng.Below(b.size());
    }
    b.resize(at);
    return "truncated to " + Num(at);
}

std::string InsertOrDelete(Bytes& b, const Layout& layout, Random& rng) {
    size_t at = rng.Percent(50) ? rng.Pick(Boundaries(b, layout)) : Position(b, layout, rng);
    const size_t length = rng.Percent(40)
                              ? rng.Between(1, 3)
                              : (rng.Percent(50) ? rng.Pick(std::vector<size_t>{4, 8, 16}) : rng.Between(1, 40));
    if (rng.Percent(50)) {
        Bytes bytes(length, 0);
        if (rng.Percent(50)) {
            for (uint8_t& byte : bytes) byte = rng.Byte();
        }
        b.insert(b.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin(), bytes.end());
        return "inserted " + Num(length) + " bytes at " + Num(at);
    }
    at = std::min(at, b.size());
    const size_t n = std::min(length, b.size() - at);
    b.erase(b.begin() + static_cast<std::ptrdiff_t>(at), b.begin() + static_cast<std::ptrdiff_t>(at + n));
    return "deleted " + Num(n) + " bytes at " + Num(at);
}

// One field of one index entry: its tag, type, offset or count.
std::string EntryField(Bytes& b, const Layout& layout, Random& rng) {
    const Header* h = ChooseHeader(b, layout, rng);
    if (h == nullptr) return "";
    const size_t i = rng.Below(h->EntriesIn(b.size()));
    const size_t at = h->Entry(i);
    const uint32_t tag = Get32(b, at);
    std::string what = std::string(HeaderName(layout, h)) + " entry " + Num(i) + " (tag " + Num(tag) + ") ";
    switch (rng.Weighted({40, 15, 25, 20})) {
        case 0: {
            const std::vector<uint32_t>& known = h == &layout.signature ? kSignatureHeaderTags : kMainHeaderTags;
            const uint32_t to = rng.Percent(70) ? rng.Pick(known) : Nearby(tag, rng);
            Put32(b, at, to);
            return what + "tag -> " + Num(to);
        }
        case 1: {
            const uint32_t from = Get32(b, at + 4);
            const uint32_t to = static_cast<uint32_t>(rng.Percent(90) ? rng.Below(10) : rng.Pick(kHugeValues));
            Put32(b, at + 4, to);
            return what + "type " + Num(from) + " -> " + Num(to);
        }
        case 2: {
            const uint32_t from = Get32(b, at + 8);
            uint32_t to;
            switch (rng.Below(5)) {
                case 0: to = from + (rng.Percent(50) ? 1 : -1); break;
                case 1: to = from + (rng.Percent(50) ? 16 : -16); break;
                case 2: to = rng.Pick(kHugeValues); break;
                case 3: to = static_cast<uint32_t>(h->size - rng.Below(3)); break;
                default: to = Nearby(from, rng);
            }
            Put32(b, at + 8, to);
            return what + "offset " + Num(from) + " -> " + Num(to);
        }
        default: {
            const uint32_t from = Get32(b, at + 12);
            uint32_t to;
            switch (rng.Below(5)) {
                case 0: to = 0; break;
                case 1: to = 1; break;
                case 2: to = rng.Pick(kHugeValues); break;
                default: to = from + (rng.Percent(50) ? 1 : -1);
            }
            Put32(b, at + 12, to);
            return what + "count " + Num(from) + " -> " + Num(to);
        }
    }
}

// Duplicates, drops or swaps index entries, keeping the index count true to the index.
std::string Entries(Bytes& b, const Layout& layout, Random& rng) {
    const Header* h = ChooseHeader(b, layout, rng);
    if (h == nullptr) return "";
    const size_t n = h->EntriesIn(b.size());
    const size_t i = rng.Below(n);
    const std::string name = HeaderName(layout, h);
    switch (rng.Below(3)) {
        case 0: {
            const Bytes entry(b.begin() + static_cast<std::ptrdiff_t>(h->Entry(i)),
                              b.begin() + static_cast<std::ptrdiff_t>(h->Entry(i) + 16));
            const size_t to = rng.Below(n + 1);
            b.insert(b.begin() + static_cast<std::ptrdiff_t>(h->Entry(to)), entry.begin(), entry.end());
            Put32(b, h->start + 8, static_cast<uint32_t>(h->count + 1));
            return name + " entry " + Num(i) + " (tag " + Num(Get32(entry, 0)) + ") duplicated at " + Num(to);
        }
        case 1: {
            const uint32_t tag = Get32(b, h->Entry(i));
            b.erase(b.begin() + static_cast<std::ptrdiff_t>(h->Entry(i)),
                    b.begin() + static_cast<std::ptrdiff_t>(h->Entry(i) + 16));
            Put32(b, h->start + 8, static_cast<uint32_t>(h->count - 1));
            return name + " entry " + Num(i) + " (tag " + Num(tag) + ") dropped";
        }
        default: {
            const size_t j = rng.Below(n);
            for (size_t k = 0; k < 16; ++k) std::swap(b[h->Entry(i) + k], b[h->Entry(j) + k]);
            return name + " entries " + Num(i) + " and " + Num(j) + " swapped";
        }
    }
}

// The index count or the store size of a header.
std::string Counts(Bytes& b, const Layout& layout, Random& rng) {
    const Header* h = layout.signature.present && (!layout.main.present || rng.Percent(60)) ? &layout.signature
                      : layout.main.present                                                 ? &layout.main
                                                                                            : nullptr;
    if (h == nullptr) return "";
    const bool count = rng.Percent(50);
    const size_t at = h->start + (count ? 8 : 12);
    const uint32_t from = Get32(b, at);
    uint32_t to;
    switch (rng.Below(4)) {
        case 0: to = rng.Pick(kHugeValues); break;
        case 1: to = rng.Percent(50) ? 0 : static_cast<uint32_t>(b.size()); break;
        default: to = Nearby(from, rng);
    }
    Put32(b, at, to);
    return std::string(HeaderName(layout, h)) + (count ? " index count " : " store size ") + Num(from) + " -> " +
           Num(to);
}

// The OpenPGP signature packets in the signature header.
std::string SignaturePackets(Bytes& b, const Layout& layout, Random& rng) {
    if (!layout.signature.present) return "";
    std::vector<size_t> entries = EntriesWith(b, layout.signature, kSignatureTags);
    std::vector<size_t> openPgp = EntriesWith(b, layout.signature, {278});
    if (!openPgp.empty() && (entries.empty() || rng.Percent(50))) {
        // Base64 text: a character changed, dropped or the text cut
        size_t begin, end;
        const size_t i = rng.Pick(openPgp);
        if (!ValueSpan(b, layout.signature, i, begin, end) || end - begin < 2) return "";
        const size_t at = rng.Between(begin, end - 2);
        if (b[at] == 0) return "";
        switch (rng.Below(3)) {
            case 0: b[at] = static_cast<uint8_t>(kBase64[rng.Below(64)]); break;
            case 1: b[at] = static_cast<uint8_t>(rng.Pick(std::vector<char>{'=', '*', ' ', '\n', '-'})); break;
            default: {
                // The packet inside: decoded, damaged, encoded again in the same room when it fits
                std::string text(b.begin() + static_cast<std::ptrdiff_t>(begin),
                                 b.begin() + static_cast<std::ptrdiff_t>(end));
                text = text.substr(0, text.find('\0'));
                Bytes packet = Base64Decode(text);
                if (packet.empty()) return "";
                const std::string what = MutateSignaturePacket(packet, 0, packet.size(), rng);
                const std::string again = Base64Encode(packet.data(), packet.size());
                if (again.size() != text.size()) return "";
                std::copy(again.begin(), again.end(), b.begin() + static_cast<std::ptrdiff_t>(begin));
                return "tag 278 entry " + Num(i) + ": " + what;
            }
        }
        return "tag 278 entry " + Num(i) + " Base64 character " + Num(at - begin) + " changed";
    }
    if (entries.empty()) return "";
    const size_t i = rng.Pick(entries);
    size_t begin, end;
    if (!ValueSpan(b, layout.signature, i, begin, end)) return "";
    return "tag " + Num(Get32(b, layout.signature.Entry(i))) + " entry " + Num(i) + ": " +
           MutateSignaturePacket(b, begin, end, rng);
}

// A signature moved into tag 278 as rpm 6 writes it (Base64 text in a string array), beside the
// tag it came from or in its place; sometimes two of them.
std::string OpenPgpTag(Bytes& b, const Layout& layout, Random& rng) {
    const Header& h = layout.signature;
    if (!h.present || h.End() > b.size()) return "";
    const std::vector<size_t> entries = EntriesWith(b, h, kSignatureTags);
    if (entries.empty()) return "";
    Bytes text;
    const unsigned strings = rng.Percent(75) ? 1 : 2;
    std::string from;
    for (unsigned s = 0; s < strings; ++s) {
        const size_t i = rng.Pick(entries);
        size_t begin, end;
        if (!ValueSpan(b, h, i, begin, end)) return "";
        const std::string encoded = Base64Encode(&b[begin], end - begin);
        text.insert(text.end(), encoded.begin(), encoded.end());
        text.push_back(0);
        from += (s ? "," : "") + Num(Get32(b, h.Entry(i)));
    }
    const bool replace = rng.Percent(40);
    const size_t replaced = rng.Pick(entries);
    const uint32_t offset = AppendToStore(b, layout, h, text);
    Bytes entry(16);
    Put32(entry, 0, 278);
    Put32(entry, 4, rng.Percent(85) ? 8 : 6);  // STRING_ARRAY, or STRING
    Put32(entry, 8, offset);
    Put32(entry, 12, strings);
    if (replace) {
        std::copy(entry.begin(), entry.end(), b.begin() + static_cast<std::ptrdiff_t>(h.Entry(replaced)));
        return "tag 278 from tags " + from + " in place of entry " + Num(replaced);
    }
    // Kept in tag order, as rpm writes the index.
    size_t at = 0;
    while (at < h.EntriesIn(b.size()) && Get32(b, h.Entry(at)) < 278) ++at;
    b.insert(b.begin() + static_cast<std::ptrdiff_t>(h.Entry(at)), entry.begin(), entry.end());
    Put32(b, h.start + 8, static_cast<uint32_t>(h.count + 1));
    return "tag 278 from tags " + from + " added";
}

// The lead: its version (bytes 4..5), signature type (78..79), magic or package type.
std::string Lead(Bytes& b, Random& rng) {
    if (b.size() < kLead) return "";
    switch (rng.Weighted({40, 40, 10, 10})) {
        case 0: {
            static const std::vector<uint32_t> kVersions = {0x0300, 0x0400, 0x0200, 0x0301, 0xFFFF, 0x0000, 0x0003};
            const uint32_t to = rng.Pick(kVersions);
            Put16(b, 4, to);
            return "lead version -> " + Hex(to);
        }
        case 1: {
            static const std::vector<uint32_t> kTypes = {0x0000, 0x0001, 0x0004, 0x0006, 0x0105, 0xFFFF, 0x0500};
            const uint32_t to = rng.Pick(kTypes);
            Put16(b, 78, to);
            return "lead signature type -> " + Hex(to);
        }
        case 2: {
            const size_t at = rng.Below(4);
            b[at] ^= static_cast<uint8_t>(1u << rng.Below(8));
            return "lead magic byte " + Num(at) + " changed";
        }
        default: {
            const size_t at = 6 + rng.Below(72);
            b[at] = rng.Byte();
            return "lead byte " + Num(at) + " changed";
        }
    }
}

// The magic, version or reserved bytes that open a header.
std::string Intro(Bytes& b, const Layout& layout, Random& rng) {
    const Header* h = layout.main.present && rng.Percent(40) ? &layout.main : &layout.signature;
    if (!h->present) return "";
    const size_t at = h->start + rng.Below(8);
    b[at] ^= static_cast<uint8_t>(1u << rng.Below(8));
    return std::string(HeaderName(layout, h)) + " intro byte " + Num(at - h->start) + " changed";
}

// The value of an entry: a digest's hex text, the MD5 bytes, a size, a string.
std::string Value(Bytes& b, const Layout& layout, Random& rng) {
    const Header* h = ChooseHeader(b, layout, rng);
    if (h == nullptr) return "";
    std::vector<size_t> entries = EntriesWith(b, *h, {269, 273, 1004, 1000, 1007, 5092, 5093, 5097, 62, 63});
    if (entries.empty() || rng.Percent(20)) {
        entries.clear();
        for (size_t i = 0; i < h->EntriesIn(b.size()); ++i) entries.push_back(i);
    }
    const size_t i = rng.Pick(entries);
    size_t begin, end;
    if (!ValueSpan(b, *h, i, begin, end)) return "";
    const uint32_t type = Get32(b, h->Entry(i) + 4);
    const size_t at = rng.Between(begin, end - 1);
    std::string what = std::string(HeaderName(layout, h)) + " tag " + Num(Get32(b, h->Entry(i))) + " value ";
    if ((type == 6 || type == 8 || type == 9) && std::isxdigit(b[at])) {
        if (rng.Percent(30) && std::isalpha(b[at])) {
            b[at] = static_cast<uint8_t>(std::toupper(b[at]));  // the same digest in upper case
            return what + "upper case at " + Num(at - begin);
        }
        const char* digits = "0123456789abcdef";
        uint8_t to = b[at];
        while (to == b[at]) to = static_cast<uint8_t>(digits[rng.Below(16)]);
        b[at] = to;
        return what + "hex digit " + Num(at - begin) + " changed";
    }
    if (rng.Percent(50) && b[at] != 0) {
        b[at] = 0;
        return what + "byte " + Num(at - begin) + " zeroed";
    }
    b[at] ^= static_cast<uint8_t>(1u << rng.Below(8));
    return what + "byte " + Num(at - begin) + " flipped";
}

// The payload: damaged, cut, or followed by bytes of its own.
std::string Payload(Bytes& b, const Layout& layout, Random& rng) {
    if (!layout.main.present || layout.main.End() >= b.size()) return "";
    const size_t start = static_cast<size_t>(layout.main.End());
    switch (rng.Below(3)) {
        case 0: {
            const size_t at = rng.Between(start, b.size() - 1);
            b[at] ^= static_cast<uint8_t>(1u << rng.Below(8));
            return "payload byte " + Num(at - start) + " flipped";
        }
        case 1: {
            const size_t at = rng.Between(start, b.size() - 1);
            b.resize(at);
            return "payload cut at " + Num(at - start);
        }
        default: {
            const size_t n = rng.Between(1, 64);
            for (size_t k = 0; k < n; ++k) b.push_back(rng.Byte());
            return Num(n) + " bytes after the payload";
        }
    }
}

// The padding between the signature header and the main header: made dirty, removed or doubled.
std::string Padding(Bytes& b, const Layout& layout, Random& rng) {
    if (!layout.mainPlaced) return "";
    const size_t end = static_cast<size_t>(layout.signature.End());
    const size_t padding = layout.mainStart - end;
    switch (rng.Below(3)) {
        case 0:
            if (padding == 0) return "";
            b[end + rng.Below(padding)] = static_cast<uint8_t>(rng.Byte() | 1);
            return "padding byte set";
        case 1:
            if (padding == 0) return "";
            b.erase(b.begin() + static_cast<std::ptrdiff_t>(end),
                    b.begin() + static_cast<std::ptrdiff_t>(layout.mainStart));
            return "padding removed";
        default: b.insert(b.begin() + static_cast<std::ptrdiff_t>(end), 8, 0); return "8 bytes of padding added";
    }
}

// The main header marked as that of an rpm 6 package (tag 5114, the package format, with the value
// 6, or 5 or 7), sometimes with the signature header's tags above 999 dropped as rpm 6 drops them.
std::string Format(Bytes& b, const Layout& layout, Random& rng) {
    const Header& h = layout.main;
    if (!h.present || h.End() > b.size()) return "";
    Bytes value(4, 0);
    const uint32_t format = rng.Percent(80) ? 6 : (rng.Percent(50) ? 5 : 7);
    Put32(value, 0, format);
    // An INT32 value on its 4-byte boundary, as rpm stores it.
    value.insert(value.begin(), (4 - h.size % 4) % 4, 0);
    const uint32_t offset = AppendToStore(b, layout, h, value) + static_cast<uint32_t>(value.size() - 4);
    Bytes entry(16);
    Put32(entry, 0, 5114);
    Put32(entry, 4, 4);
    Put32(entry, 8, offset);
    Put32(entry, 12, 1);
    size_t at = 0;
    while (at < h.count && Get32(b, h.Entry(at)) < 5114) ++at;
    b.insert(b.begin() + static_cast<std::ptrdiff_t>(h.Entry(at)), entry.begin(), entry.end());
    Put32(b, h.start + 8, static_cast<uint32_t>(h.count + 1));
    std::string what = "package format " + Num(format) + " in the main header";
    if (rng.Percent(50) && layout.signature.present) {
        // The main header lies after the signature header: what is taken out here moves it by
        // whole entries, which keeps its 8-byte boundary.
        const Header& s = layout.signature;
        size_t kept = 0;
        for (size_t i = 0; i < s.count; ++i) {
            const size_t from = s.Entry(i) - 16 * (i - kept);
            if (Get32(b, from) > 999) {
                b.erase(b.begin() + static_cast<std::ptrdiff_t>(from),
                        b.begin() + static_cast<std::ptrdiff_t>(from + 16));
            } else {
                ++kept;
            }
        }
        Put32(b, s.start + 8, static_cast<uint32_t>(kept));
        what += ", signature tags above 999 dropped";
    }
    return what;
}

std::string MutatePackage(Bytes& b, Random& rng) {
    const unsigned operations = rng.Percent(75) ? 1 : (rng.Percent(80) ? 2 : 3);
    std::string description;
    for (unsigned n = 0; n < operations && !b.empty(); ++n) {
        const Layout layout = Parse(b);
        const Bytes before = b;
        std::string what;
        for (int attempt = 0; attempt < 4 && what.empty(); ++attempt) {
            switch (rng.Weighted({7, 5, 6, 6, 20, 8, 6, 18, 5, 5, 2, 8, 3, 2, 3})) {
                case 0: what = FlipBit(b, layout, rng); break;
                case 1: what = SetByte(b, layout, rng); break;
                case 2: what = Truncate(b, layout, rng); break;
                case 3: what = InsertOrDelete(b, layout, rng); break;
                case 4: what = EntryField(b, layout, rng); break;
                case 5: what = Entries(b, layout, rng); break;
                case 6: what = Counts(b, layout, rng); break;
                case 7: what = SignaturePackets(b, layout, rng); break;
                case 8: what = OpenPgpTag(b, layout, rng); break;
                case 9: what = Lead(b, rng); break;
                case 10: what = Intro(b, layout, rng); break;
                case 11: what = Value(b, layout, rng); break;
                case 12: what = Payload(b, layout, rng); break;
                case 13: what = Padding(b, layout, rng); break;
                default: what = Format(b, layout, rng);
            }
            if (b == before) what.clear();  // a value set to what it was: another change
        }
        if (what.empty()) what = FlipBit(b, layout, rng);
        description += (n ? "; " : "") + what;
    }
    return description;
}

// ---------------------------------------------------------------------------------------------
// Key mutations

struct ArmorBlock {
    size_t begin, end;  // the text from "-----BEGIN" to the end of the "-----END ...-----" line
};

std::vector<ArmorBlock> ArmorBlocks(const std::string& text) {
    std::vector<ArmorBlock> blocks;
    size_t at = 0;
    while ((at = text.find("-----BEGIN PGP", at)) != std::string::npos) {
        size_t end = text.find("-----END PGP", at);
        if (end == std::string::npos) break;
        end = text.find("-----", end + 12);
        if (end == std::string::npos) break;
        end += 5;
        blocks.push_back({at, end});
        at = end;
    }
    return blocks;
}

// The lines of text, each with its line end.
std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    return lines;
}

std::string Join(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line;
    return text;
}

bool Blank(const std::string& line) {
    return line.find_first_not_of(" \t\r\n") == std::string::npos;
}

// The Base64 body of an armor block: its lines after the blank line, up to the checksum or END line.
Bytes ArmorBody(const std::string& block) {
    std::string body;
    bool inBody = false;
    for (const std::string& line : Lines(block)) {
        if (!inBody) {
            inBody = Blank(line);
            continue;
        }
        if (line[0] == '=' || line.compare(0, 5, "-----") == 0) break;
        body += line;
    }
    return Base64Decode(body);
}

std::string Armor(const Bytes& packets, bool checksum, size_t width) {
    std::string text = "-----BEGIN PGP PUBLIC KEY BLOCK-----\n\n";
    const std::string body = Base64Encode(packets.data(), packets.size());
    for (size_t at = 0; at < body.size(); at += width) text += body.substr(at, width) + "\n";
    if (checksum) {
        const uint32_t crc = Crc24(packets);
        const uint8_t bytes[3] = {static_cast<uint8_t>(crc >> 16), static_cast<uint8_t>(crc >> 8),
                                  static_cast<uint8_t>(crc)};
        text += "=" + Base64Encode(bytes, 3) + "\n";
    }
    return text + "-----END PGP PUBLIC KEY BLOCK-----";
}

// The armor's text: lines dropped, doubled or damaged, the checksum or the blank line gone, the
// block twice, the text cut.
std::string MutateArmorText(std::string& text, const ArmorBlock& block, Random& rng) {
    std::string armor = text.substr(block.begin, block.end - block.begin);
    std::vector<std::string> lines = Lines(armor);
    if (lines.empty()) return "";
    size_t blank = 0;
    while (blank < lines.size() && !Blank(lines[blank])) ++blank;
    size_t checksum = lines.size();
    for (size_t i = blank; i < lines.size(); ++i) {
        if (lines[i][0] == '=') checksum = i;
    }
    std::vector<size_t> body;
    for (size_t i = blank + 1; i < lines.size() && i < checksum && lines[i].compare(0, 5, "-----") != 0; ++i) {
        body.push_back(i);
    }
    std::string what;
    switch (rng.Weighted({10, 10, 25, 10, 10, 8, 8, 6, 6, 7})) {
        case 0: {
            const size_t i = rng.Below(lines.size());
            lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(i));
            what = "armor line " + Num(i) + " dropped";
            break;
        }
        case 1: {
            const size_t i = rng.Below(lines.size());
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(i), lines[i]);
            what = "armor line " + Num(i) + " doubled";
            break;
        }
        case 2: {
            if (body.empty()) return "";
            const size_t i = rng.Pick(body);
            std::string& line = lines[i];
            const size_t length = line.find_first_of("\r\n");
            if (length == 0 || length == std::string::npos) return "";
            const size_t at = rng.Below(length);
            const char to = rng.Percent(85) ? kBase64[rng.Below(64)] : rng.Pick(std::vector<char>{'=', '*', ' ', '-'});
            line[at] = to;
            what = "armor line " + Num(i) + " character " + Num(at) + " -> '" + std::string(1, to) + "'";
            break;
        }
        case 3: {
            if (checksum == lines.size()) return "";
            lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(checksum));
            what = "armor checksum line dropped";
            break;
        }
        case 4: {
            if (checksum == lines.size() || lines[checksum].size() < 3) return "";
            const size_t at = rng.Between(1, std::min<size_t>(4, lines[checksum].find_first_of("\r\n")) - 1);
            lines[checksum][at] = kBase64[rng.Below(64)];
            what = "armor checksum character changed";
            break;
        }
        case 5: {
            if (blank >= lines.size()) return "";
            lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(blank));
            what = "blank line after the armor headers dropped";
            break;
        }
        case 6: {
            const std::string again = rng.Percent(70) ? "\n" : "";
            text.insert(block.end, again + armor);
            return "armor block doubled";
        }
        case 7: {
            const size_t at = rng.Below(text.size());
            text.resize(at);
            return "key text cut at " + Num(at);
        }
        case 8: {
            static const std::vector<std::string> kHeaders = {"Version: 1.0\n", "Comment: a comment\n",
                                                              "Hash: SHA256\n", "Charset: UTF-8\n", "no colon\n"};
            lines.insert(lines.begin() + 1, rng.Pick(kHeaders));
            what = "armor header line added";
            break;
        }
        default: {
            // The same packets in lines of another width, with or without their checksum.
            const size_t width = rng.Pick(std::vector<size_t>{16, 64, 76, 200});
            const bool crc = rng.Percent(70);
            text.replace(block.begin, block.end - block.begin, Armor(ArmorBody(armor), crc, width));
            return "armor rewritten in lines of " + Num(width) + (crc ? "" : " without checksum");
        }
    }
    text.replace(block.begin, block.end - block.begin, Join(lines));
    return what;
}

const std::vector<unsigned> kPacketTags = {1, 2, 3, 5, 6, 7, 12, 13, 14, 17, 60, 61};

// The packets of a key: bits in one of them, its tag or length, one dropped, doubled or moved, a
// key's version, algorithm, creation time or MPI length, a self-signature's fields.
std::string MutatePackets(Bytes& b, Random& rng) {
    const std::vector<Packet> packets = ReadPackets(b, 0, b.size());
    if (packets.empty()) {
        if (b.empty()) return "";
        b[rng.Below(b.size())] ^= 0x01;
        return "a byte of the unparsed key changed";
    }
    // Signatures and subkeys are picked more often: they decide which key a signature finds.
    std::vector<size_t> preferred;
    for (size_t i = 0; i < packets.size(); ++i) {
        if (packets[i].tag == 2 || packets[i].tag == 14) preferred.push_back(i);
    }
    const size_t i = !preferred.empty() && rng.Percent(50) ? rng.Pick(preferred) : rng.Below(packets.size());
    const Packet& p = packets[i];
    const std::string name = "packet " + Num(i) + " (tag " + Num(p.tag) + ")";
    switch (rng.Weighted({16, 8, 8, 12, 10, 6, 6, 12, 16})) {
        case 0: {
            if (p.bodyLength == 0) return "";
            const size_t at = rng.Percent(50) ? p.Body() + rng.Below(std::min<size_t>(p.bodyLength, 12))
                                              : rng.Between(p.Body(), p.End() - 1);
            b[at] ^= static_cast<uint8_t>(1u << rng.Below(8));
            return name + " body byte " + Num(at - p.Body()) + " flipped";
        }
        case 1: {
            unsigned tag = rng.Pick(kPacketTags);
            if (!p.newFormat) tag &= 0xF;
            b[p.start] =
                p.newFormat ? static_cast<uint8_t>(0xC0 | tag) : static_cast<uint8_t>((b[p.start] & 0x83) | (tag << 2));
            return name + " tag -> " + Num(tag);
        }
        case 2: {
            uint64_t length;
            switch (rng.Below(4)) {
                case 0: length = p.bodyLength + 1; break;
                case 1: length = p.bodyLength > 0 ? p.bodyLength - 1 : 0; break;
                case 2: length = 0; break;
                default: length = rng.Percent(50) ? 0xFFFF : 0xFFFFFFF0;
            }
            const bool format = rng.Percent(80) ? p.newFormat : !p.newFormat;
            ReplaceRange(b, p.start, p.Body(), PacketHeader(p.tag, format, length));
            return name + " length " + Num(p.bodyLength) + " -> " + Num(length) + (format ? " (new format)" : "");
        }
        case 3: {
            b.erase(b.begin() + static_cast<std::ptrdiff_t>(p.start), b.begin() + static_cast<std::ptrdiff_t>(p.End()));
            return name + " dropped";
        }
        case 4: {
            const Bytes copy(b.begin() + static_cast<std::ptrdiff_t>(p.start),
                             b.begin() + static_cast<std::ptrdiff_t>(p.End()));
            const size_t to = rng.Percent(50) ? p.End() : packets[rng.Below(packets.size())].start;
            b.insert(b.begin() + static_cast<std::ptrdiff_t>(to), copy.begin(), copy.end());
            return name + " doubled";
        }
        case 5: {
            const size_t j = rng.Below(packets.size());
            if (j == i) return "";
            const size_t first = std::min(i, j), second = std::max(i, j);
            Bytes a(b.begin() + static_cast<std::ptrdiff_t>(packets[first].start),
                    b.begin() + static_cast<std::ptrdiff_t>(packets[first].End()));
            Bytes c(b.begin() + static_cast<std::ptrdiff_t>(packets[second].start),
                    b.begin() + static_cast<std::ptrdiff_t>(packets[second].End()));
            ReplaceRange(b, packets[second].start, packets[second].End(), a);
            ReplaceRange(b, packets[first].start, packets[first].End(), c);
            return "packets " + Num(first) + " and " + Num(second) + " swapped";
        }
        case 6: {  // the body cut short, the header telling the new length
            if (p.bodyLength < 2) return "";
            const size_t length = rng.Below(p.bodyLength);
            b.erase(b.begin() + static_cast<std::ptrdiff_t>(p.Body() + length),
                    b.begin() + static_cast<std::ptrdiff_t>(p.End()));
            ReplaceRange(b, p.start, p.Body(), PacketHeader(p.tag, p.newFormat, length));
            return name + " body cut to " + Num(length);
        }
        case 7: {  // a key packet's version, creation time, algorithm or first MPI length
            std::vector<size_t> keys;
            for (size_t k = 0; k < packets.size(); ++k) {
                if ((packets[k].tag == 6 || packets[k].tag == 14) && packets[k].bodyLength >= 8) keys.push_back(k);
            }
            if (keys.empty()) return "";
            const Packet& key = packets[rng.Pick(keys)];
            const size_t body = key.Body();
            switch (rng.Below(4)) {
                case 0:
                    b[body] = rng.Pick(std::vector<uint8_t>{2, 3, 5, 6, 0});
                    return "key version -> " + Num(b[body]);
                case 1:
                    b[body + 1 + rng.Below(4)] ^= static_cast<uint8_t>(1u << rng.Below(8));
                    return "key creation time changed";
                case 2:
                    b[body + 5] = rng.Pick(std::vector<uint8_t>{1, 2, 3, 16, 17, 18, 19, 22, 27, 0});
                    return "key algorithm -> " + Num(b[body + 5]);
                default: {
                    const uint32_t bits = Get16(b, body + 6);
                    const uint32_t to = rng.Percent(30) ? (rng.Percent(50) ? 0 : 0xFFFF) : Nearby(bits, rng) & 0xFFFF;
                    Put16(b, body + 6, to);
                    return "key's first MPI length " + Num(bits) + " -> " + Num(to);
                }
            }
        }
        default: {  // a self-signature or binding signature
            std::vector<size_t> signatures;
            for (size_t k = 0; k < packets.size(); ++k) {
                if (packets[k].tag == 2 && packets[k].bodyLength > 0) signatures.push_back(k);
            }
            if (signatures.empty()) return "";
            const size_t k = rng.Pick(signatures);
            return "signature packet " + Num(k) + ": " +
                   MutateSignaturePacket(b, packets[k].start, packets[k].End(), rng);
        }
    }
}

std::string MutateKey(Bytes& file, bool& armoredOut, Random& rng) {
    std::string text(file.begin(), file.end());
    std::string description;
    const unsigned operations = rng.Percent(80) ? 1 : 2;
    for (unsigned n = 0; n < operations; ++n) {
        const std::string before = text;
        std::string what;
        const std::vector<ArmorBlock> now = ArmorBlocks(text);
        if (!now.empty()) {
            const ArmorBlock block = rng.Pick(now);
            const unsigned how = static_cast<unsigned>(rng.Weighted({45, 50, 5}));
            if (how == 0) {
                what = MutateArmorText(text, block, rng);
            } else if (how == 1) {
                Bytes packets = ArmorBody(text.substr(block.begin, block.end - block.begin));
                what = MutatePackets(packets, rng);
                if (!what.empty()) text.replace(block.begin, block.end - block.begin, Armor(packets, true, 64));
            } else {
                // Armor taken off: the packets as a binary key file
                Bytes packets = ArmorBody(text.substr(block.begin, block.end - block.begin));
                text.assign(packets.begin(), packets.end());
                armoredOut = false;
                what = "armor taken off";
            }
            if (what.empty()) what = MutateArmorText(text, block, rng);
        } else {
            Bytes packets(text.begin(), text.end());
            if (rng.Percent(5)) {
                text = Armor(packets, true, 64) + "\n";
                armoredOut = true;
                what = "armored";
            } else {
                what = MutatePackets(packets, rng);
                text.assign(packets.begin(), packets.end());
            }
        }
        if (text == before) what.clear();
        if (what.empty()) {
            if (text.empty()) break;
            text[rng.Below(text.size())] ^= 0x01;
            what = "a byte of the key file changed";
        }
        description += (n ? "; " : "") + what;
    }
    file.assign(text.begin(), text.end());
    return description;
}

// ---------------------------------------------------------------------------------------------
// The sources and the cases

struct Source {
    std::string path, name;  // name: relative to the data folder, for the descriptions
    Bytes bytes;
};

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool ReadFile(const std::string& path, Bytes& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool WriteFile(const std::string& path, const Bytes& bytes) {
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) return false;
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
    return std::fclose(out) == 0 && written;
}

// The files of folder whose names end in one of endings (and not in ".secret.asc"), sorted.
void Collect(const std::string& data, const std::string& folder, const std::vector<std::string>& endings,
             std::vector<Source>& out) {
    DIR* dir = opendir((data + "/" + folder).c_str());
    if (dir == nullptr) {
        std::fprintf(stderr, "differential-mutate: cannot read %s/%s: %s\n", data.c_str(), folder.c_str(),
                     std::strerror(errno));
        std::exit(2);
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (EndsWith(name, ".secret.asc")) continue;
        for (const std::string& ending : endings) {
            if (EndsWith(name, ending)) names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        Source source{data + "/" + folder + "/" + name, folder + "/" + name, {}};
        if (!ReadFile(source.path, source.bytes)) {
            std::fprintf(stderr, "differential-mutate: cannot read %s\n", source.path.c_str());
            std::exit(2);
        }
        out.push_back(std::move(source));
    }
}

// The pairs of package and key that the fixture lists name (rpm/packages.txt, current/packages.txt:
// "PACKAGE KEY ..." a line), as indexes into packages and keys. A mutated package is checked with
// one of its listed keys half of the time, a mutated key with one of its listed packages: a
// signature that verified before its package was damaged then tells "bad" from "no key", and a
// damage that changes nothing can still be seen to pass.
void Pairs(const std::string& data, const std::vector<Source>& packages, const std::vector<Source>& keys,
           std::vector<std::vector<size_t>>& keysOf, std::vector<std::vector<size_t>>& packagesOf) {
    keysOf.assign(packages.size(), {});
    packagesOf.assign(keys.size(), {});
    auto find = [](const std::vector<Source>& sources, const std::string& name) {
        for (size_t i = 0; i < sources.size(); ++i) {
            if (sources[i].name == name) return i;
        }
        return sources.size();
    };
    for (const std::string folder : {"rpm", "current"}) {
        std::ifstream in(data + "/" + folder + "/packages.txt");
        std::string line;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] == '#') continue;
            const size_t space = line.find(' ');
            if (space == std::string::npos) continue;
            const size_t keyEnd = line.find(' ', space + 1);
            const std::string package = line.substr(0, space);
            const std::string key =
                line.substr(space + 1, keyEnd == std::string::npos ? std::string::npos : keyEnd - space - 1);
            const size_t p = find(packages, folder + "/" + package);
            if (p == packages.size()) continue;
            // The keys of rpm/ are named without their ending, and come armored and binary.
            const std::vector<std::string> names =
                folder == "rpm" ? std::vector<std::string>{"keys/" + key + ".asc", "keys/" + key + ".gpg"}
                                : std::vector<std::string>{"current/" + key};
            for (const std::string& name : names) {
                const size_t k = find(keys, name);
                if (k == keys.size()) continue;
                keysOf[p].push_back(k);
                packagesOf[k].push_back(p);
            }
        }
    }
}

// The pairs of a single fixture folder: a package with each key whose name without ".asc" is a
// part of the package's name, bounded by '-' or the name's start before it and '-' after it.
void PairsByName(const std::vector<Source>& packages, const std::vector<Source>& keys,
                 std::vector<std::vector<size_t>>& keysOf, std::vector<std::vector<size_t>>& packagesOf) {
    keysOf.assign(packages.size(), {});
    packagesOf.assign(keys.size(), {});
    auto base = [](const std::string& name) { return name.substr(name.rfind('/') + 1); };
    for (size_t k = 0; k < keys.size(); ++k) {
        std::string stem = base(keys[k].name);
        stem = stem.substr(0, stem.size() - 4) + "-";
        for (size_t p = 0; p < packages.size(); ++p) {
            const std::string package = base(packages[p].name);
            for (size_t at = package.find(stem); at != std::string::npos; at = package.find(stem, at + 1)) {
                if (at == 0 || package[at - 1] == '-') {
                    keysOf[p].push_back(k);
                    packagesOf[k].push_back(p);
                    break;
                }
            }
        }
    }
}

// The packages and keys that the cases start from, and their pairs: those of tests/data, or those of
// the one fixture folder.
struct Sources {
    std::vector<Source> packages, keys;
    std::vector<std::vector<size_t>> keysOf, packagesOf;  // the pairs, as indexes into the other list
};

bool ReadSources(const std::string& data, const std::string& fixtures, Sources& sources) {
    std::vector<Source>& packages = sources.packages;
    std::vector<Source>& keys = sources.keys;
    if (fixtures.empty()) {
        Collect(data, "rpm", {".rpm"}, packages);
        Collect(data, "current", {".rpm"}, packages);
        Collect(data, "keys", {".asc", ".gpg"}, keys);
        Collect(data, "current", {".asc"}, keys);
    } else {
        Collect(data, fixtures, {".rpm"}, packages);
        Collect(data, fixtures, {".asc"}, keys);
    }
    if (packages.empty() || keys.empty()) {
        std::fprintf(stderr, "differential-mutate: no packages or no keys under %s\n", data.c_str());
        return false;
    }
    if (fixtures.empty()) {
        Pairs(data, packages, keys, sources.keysOf, sources.packagesOf);
    } else {
        PairsByName(packages, keys, sources.keysOf, sources.packagesOf);
    }
    return true;
}

// Makes one mutated case from rng: its file at stem plus the ending of its kind, its line in cases and
// in mutations.
bool MakeCase(const Sources& sources, Random& rng, const std::string& stem, std::FILE* cases, std::FILE* mutations) {
    const bool package = rng.Percent(85);
    size_t p = rng.Below(sources.packages.size()), k = rng.Below(sources.keys.size());
    if (rng.Percent(50)) {
        if (package && !sources.keysOf[p].empty()) k = rng.Pick(sources.keysOf[p]);
        if (!package && !sources.packagesOf[k].empty()) p = rng.Pick(sources.packagesOf[k]);
    }
    const Source& packageSource = sources.packages[p];
    const Source& keySource = sources.keys[k];
    const Source& source = package ? packageSource : keySource;
    Bytes bytes = source.bytes;
    std::string what;
    std::string ending;
    if (package) {
        what = MutatePackage(bytes, rng);
        ending = ".rpm";
    } else {
        bool armored = EndsWith(source.path, ".asc");
        what = MutateKey(bytes, armored, rng);
        ending = armored ? ".asc" : ".gpg";
    }
    const std::string path = stem + ending;
    if (!WriteFile(path, bytes)) {
        std::fprintf(stderr, "differential-mutate: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    std::fprintf(cases, "%s\t%s\n", package ? path.c_str() : packageSource.path.c_str(),
                 package ? keySource.path.c_str() : path.c_str());
    for (char& c : what) {
        if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    }
    std::fprintf(mutations, "%s %s: %s\n", package ? "package" : "key", source.name.c_str(), what.c_str());
    return true;
}

bool MakeFolder(const std::string& path) {
    return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

int Usage() {
    std::fprintf(stderr, "usage: differential-mutate [--data=DIR] [--fixtures=FOLDER] OUTDIR SEED COUNT\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string data = DIFFERENTIAL_TEST_DATA;
    std::string fixtures;
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.compare(0, 7, "--data=") == 0) {
            data = argument.substr(7);
        } else if (argument == "--data" && i + 1 < argc) {
            data = argv[++i];
        } else if (argument.compare(0, 11, "--fixtures=") == 0) {
            fixtures = argument.substr(11);
        } else if (argument == "--fixtures" && i + 1 < argc) {
            fixtures = argv[++i];
        } else {
            arguments.push_back(argument);
        }
    }
    if (arguments.size() != 3) return Usage();
    char* end = nullptr;
    const unsigned long long seed = std::strtoull(arguments[1].c_str(), &end, 10);
    if (*end != '\0' || arguments[1].empty()) return Usage();
    const unsigned long long count = std::strtoull(arguments[2].c_str(), &end, 10);
    if (*end != '\0' || arguments[2].empty()) return Usage();
    const std::string out = arguments[0];

    Sources sources;
    if (!ReadSources(data, fixtures, sources)) return 2;

    if (!MakeFolder(out) || !MakeFolder(out + "/files")) {
        std::fprintf(stderr, "differential-mutate: cannot make %s: %s\n", out.c_str(), std::strerror(errno));
        return 2;
    }
    std::FILE* cases = std::fopen((out + "/cases.txt").c_str(), "w");
    std::FILE* mutations = std::fopen((out + "/mutations.txt").c_str(), "w");
    if (cases == nullptr || mutations == nullptr) {
        std::fprintf(stderr, "differential-mutate: cannot write in %s: %s\n", out.c_str(), std::strerror(errno));
        return 2;
    }
    for (const Source& package : sources.packages) {
        for (const Source& key : sources.keys) {
            std::fprintf(cases, "%s\t%s\n", package.path.c_str(), key.path.c_str());
            std::fprintf(mutations, "fixture\n");
        }
    }
    for (unsigned long long n = 0; n < count; ++n) {
        Random rng(CaseSeed(seed, n));
        const std::string folder = out + "/files/" + Num(n / 1000);
        if (n % 1000 == 0 && !MakeFolder(folder)) {
            std::fprintf(stderr, "differential-mutate: cannot make %s: %s\n", folder.c_str(), std::strerror(errno));
            return 2;
        }
        if (!MakeCase(sources, rng, folder + "/" + Num(n), cases, mutations)) return 2;
    }
    if (std::fclose(cases) != 0 || std::fclose(mutations) != 0) {
        std::fprintf(stderr, "differential-mutate: cannot write the lists in %s\n", out.c_str());
        return 2;
    }
    return 0;
}
