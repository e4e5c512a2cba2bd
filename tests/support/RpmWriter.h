#pragma once
// A test-side RPM package writer: lead, signature header, main header and payload, byte by byte.
// It reaches what no tool makes: version 3 signature packets, several header-and-payload
// signatures, missing digest tags, odd store sizes, broken structures.

#include <openssl/evp.h>

#include <string>
#include <vector>

#include "PgpWriter.h"

namespace rpm {

using pgp::Be;
using pgp::Concat;

inline std::string Text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

inline Bytes BytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

struct Entry {
    uint32_t tag;
    uint32_t type;   // 6 string (value without its NUL), 7 binary, 4 int32, ...
    Bytes value;
    uint32_t count;  // 0: the natural count (1 for strings and numbers, the size for binaries)
};

// A header structure: 8E AD E8 01, reserved, index count, data size, the index, the store. Values of
// type 4 are aligned to 4 bytes in the store; storePadding adds bytes at its end.
inline Bytes HeaderStructure(const std::vector<Entry>& entries, size_t storePadding = 0) {
    Bytes index, store;
    for (const Entry& entry : entries) {
        if (entry.type == 4) store.resize((store.size() + 3) & ~size_t(3));
        const uint32_t count = entry.count != 0 ? entry.count : entry.type == 7 ? entry.value.size() : 1;
        index = Concat({index, Be(entry.tag, 4), Be(entry.type, 4), Be(store.size(), 4), Be(count, 4)});
        store = Concat({store, entry.value});
        if (entry.type == 6) store.push_back(0);
    }
    store.resize(store.size() + storePadding, 0);
    return Concat({{0x8E, 0xAD, 0xE8, 0x01, 0, 0, 0, 0}, Be(entries.size(), 4), Be(store.size(), 4), index, store});
}

// The 96-byte lead of a binary package.
inline Bytes Lead(uint16_t signatureType = 5, unsigned char minor = 0) {
    Bytes lead(76, 0);
    const Bytes start = {0xED, 0xAB, 0xEE, 0xDB, 3, minor, 0, 0, 0, 1, 'h', 'e', 'l', 'l', 'o'};
    std::copy(start.begin(), start.end(), lead.begin());
    lead = Concat({lead, Be(1, 2), Be(signatureType, 2)});
    lead.resize(96, 0);
    return lead;
}

struct PackageOptions {
    EVP_PKEY* key = nullptr;  // null: no OpenPGP signatures at all
    bool headerSignature = true;
    pgp::SignatureOptions header;                 // the tag-268 signature
    std::vector<pgp::SignatureOptions> packages{{}};  // one tag-1002 signature each
    bool sha1 = true, md5 = true;                 // write tags 269 and 1004
    bool breakSha1 = false, breakMd5 = false;
    size_t signatureStorePadding = 0;  // shifts the end of the signature header (alignment cases)
    std::string payload = std::string(40000, 'p');
    std::vector<Entry> mainEntries = {{1000, 6, BytesOf("hello"), 0}, {1009, 4, Be(40000, 4), 0}};
};

inline Bytes MainHeader(const PackageOptions& o) {
    return HeaderStructure(o.mainEntries);
}

// The signature header's entries for a package: region tag 62 first, then the digests and
// signatures the options ask for.
inline std::vector<Entry> SignatureEntries(const PackageOptions& o) {
    const std::string header = Text(MainHeader(o));
    const std::string signedData = header + o.payload;
    std::vector<Entry> entries = {{62, 7, Bytes(16, 0), 0}};
    if (o.sha1) {
        std::string hex;
        for (unsigned char c : HashOf(EVP_sha1(), header)) hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
        if (o.breakSha1) hex[0] = hex[0] == '0' ? '1' : '0';
        entries.push_back({269, 6, BytesOf(hex), 0});
    }
    if (o.md5) {
        Bytes md5 = HashOf(EVP_md5(), signedData);
        if (o.breakMd5) md5[0] ^= 1;
        entries.push_back({1004, 7, md5, 0});
    }
    if (o.key != nullptr && o.headerSignature) {
        entries.push_back({268, 7, pgp::SignaturePacket(o.key, header, o.header), 0});
    }
    if (o.key != nullptr) {
        for (const pgp::SignatureOptions& options : o.packages) {
            entries.push_back({1002, 7, pgp::SignaturePacket(o.key, signedData, options), 0});
        }
    }
    return entries;
}

// A whole package: lead, signature header, padding to 8, main header, payload.
inline std::string Package(const PackageOptions& o, const std::vector<Entry>* signatureEntries = nullptr) {
    Bytes file = Concat({Lead(), HeaderStructure(signatureEntries ? *signatureEntries : SignatureEntries(o),
                                                 o.signatureStorePadding)});
    file.resize((file.size() + 7) & ~size_t(7), 0);
    return Text(file) + Text(MainHeader(o)) + o.payload;
}

}  // namespace rpm
