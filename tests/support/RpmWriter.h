#pragma once
// A test-side RPM package writer: lead, signature header, main header and payload, byte by byte. It
// reaches what no tool makes: version 3 packets, several or duplicated entries, missing digest tags.

#include <optional>

#include "PgpWriter.h"

namespace rpm {

using pgp::Be, pgp::Concat;

inline std::string Text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}
inline Bytes BytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// An index entry and its value: type 6 is a string (the value without its NUL), 7 binary.
struct Entry {
    uint32_t tag, type;
    Bytes value;
    std::optional<uint32_t> count = std::nullopt;  // the index count, when not the value's own
};

// A header structure: 8E AD E8 01, reserved, index count, data size, the index, the store. A first
// entry of a region tag (62, 63) whose value is 16 zeros gets the region trailer rpm writes: an index
// entry of the same tag, binary, count 16, whose offset is minus 16 times the entries.
inline Bytes HeaderBytes(std::vector<Entry> entries) {
    if (!entries.empty() && (entries[0].tag == 62 || entries[0].tag == 63) && entries[0].value == Bytes(16, 0)) {
        entries[0].value =
            Concat({Be(entries[0].tag, 4), Be(7, 4), Be(uint32_t(-16 * int64_t(entries.size())), 4), Be(16, 4)});
    }
    Bytes index, store;
    for (const Entry& e : entries) {
        // Integers are aligned to their size in the store, as rpm writes and requires them.
        const size_t align = e.type == 3 ? 2 : e.type == 4 ? 4 : e.type == 5 ? 8 : 1;
        store.resize((store.size() + align - 1) / align * align, 0);
        const size_t count = e.count ? *e.count : e.type == 7 ? e.value.size() : 1;
        index = Concat({index, Be(e.tag, 4), Be(e.type, 4), Be(store.size(), 4), Be(count, 4)});
        store = Concat({store, e.value});
        if (e.type == 6) store.push_back(0);
    }
    return Concat({{0x8E, 0xAD, 0xE8, 0x01, 0, 0, 0, 0}, Be(entries.size(), 4), Be(store.size(), 4), index, store});
}

// The 96-byte lead of a binary package; the signature type sits at offset 78.
inline Bytes Lead() {
    const Bytes start = {0xED, 0xAB, 0xEE, 0xDB, 3, 0, 0, 0, 0, 1, 'h', 'e', 'l', 'l', 'o'};
    return Concat({start, Bytes(61, 0), {0, 1, 0, 5}, Bytes(16, 0)});
}

// By default signed with the 2048-bit test key over the header (268) and over header and payload (1002).
struct PackageOptions {
    EVP_PKEY* key = TestKey(2048);  // null: no OpenPGP signatures at all
    bool headerSignature = true;
    pgp::SignatureOptions header;                         // the tag-268 signature
    std::vector<pgp::SignatureOptions> packages{header};  // one tag-1002 signature each
    bool sha1 = true, md5 = true;                         // write tags 269 and 1004
    std::string payload = std::string(40000, 'p');
    // The digests rpm 6 requires of a package: the header's SHA-256 (273), the payload's (5092).
    bool digests = false;
};

inline std::string HexOf(const Bytes& bytes) {
    std::string hex, digits = "0123456789abcdef";
    for (unsigned char c : bytes) hex += digits[c >> 4], hex += digits[c & 15];
    return hex;
}

// The main header: a name (its contents do not matter to the signature check), and with digests the
// payload's SHA-256.
inline Bytes MainHeader(const PackageOptions& o = PackageOptions()) {
    if (!o.digests) return HeaderBytes({{1000, 6, BytesOf("hello")}});
    const Bytes payloadDigest = BytesOf(HexOf(HashOf(EVP_sha256(), o.payload)) + std::string(1, '\0'));
    return HeaderBytes({{1000, 6, BytesOf("hello")}, {5092, 8, payloadDigest, 1u}});
}

// The signature header's entries: region tag 62 first, then 269 (lower-case hex), 1004, 268, the 1002s.
inline std::vector<Entry> SignatureEntries(const PackageOptions& o) {
    const std::string header = Text(MainHeader(o)), signedData = header + o.payload;
    std::vector<Entry> entries = {{62, 7, Bytes(16, 0)}};
    if (o.sha1) entries.push_back({269, 6, BytesOf(HexOf(HashOf(EVP_sha1(), header)))});
    if (o.digests) entries.push_back({273, 6, BytesOf(HexOf(HashOf(EVP_sha256(), header)))});
    if (o.md5) entries.push_back({1004, 7, HashOf(EVP_md5(), signedData)});
    if (o.key == nullptr) return entries;
    if (o.headerSignature) entries.push_back({268, 7, pgp::SignaturePacket(o.key, header, o.header)});
    for (const auto& s : o.packages) entries.push_back({1002, 7, pgp::SignaturePacket(o.key, signedData, s)});
    return entries;
}

// A whole package: lead, signature header, padding to 8, main header, payload.
inline std::string Package(const PackageOptions& o, const std::vector<Entry>* signatureEntries = nullptr) {
    Bytes file = Concat({Lead(), HeaderBytes(signatureEntries ? *signatureEntries : SignatureEntries(o))});
    file.resize((file.size() + 7) & ~size_t(7), 0);
    return Text(file) + Text(MainHeader(o)) + o.payload;
}

}  // namespace rpm
