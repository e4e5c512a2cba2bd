#pragma once
// A test-side OpenPGP writer (RFC 4880): old-format packets, public keys, user IDs, version 3 and 4
// signatures made with OpenSSL keys, and ASCII armor. It reaches what no tool makes: version 3
// signatures, every hash id, wrong quick-check bits, foreign issuers, broken values.
#include "Base64.h"
#include "TestKeys.h"

namespace pgp {

inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}
inline Bytes Be(uint64_t value, int width) {
    Bytes bytes;
    while (width-- > 0) bytes.push_back(static_cast<unsigned char>(value >> (8 * width)));
    return bytes;
}
// An old-format packet; lengthType 0, 1 or 2 picks a 1, 2 or 4-octet length.
inline Bytes Packet(int tag, const Bytes& body, int lengthType = 1) {
    const int width = lengthType == 0 ? 1 : lengthType == 1 ? 2 : 4;
    return Concat({{static_cast<unsigned char>(0x80 | (tag << 2) | lengthType)}, Be(body.size(), width), body});
}

inline Bytes Mpi(Bytes value) {
    while (!value.empty() && value[0] == 0) value.erase(value.begin());
    int bits = static_cast<int>(value.size()) * 8;
    for (unsigned char top = value.empty() ? 0 : value[0]; bits > 0 && !(top & 0x80); top <<= 1) --bits;
    return Concat({Be(static_cast<uint64_t>(bits), 2), value});
}

inline Bytes PublicKey(EVP_PKEY* key, unsigned char version = 4, unsigned char algorithm = 1) {
    const Bytes n = Mpi(KeyComponent(key, "n")), e = Mpi(KeyComponent(key, "e"));
    return Packet(6, Concat({{version}, Be(0x5F000000, 4), {algorithm}, n, e}));
}

inline Bytes UserId(const std::string& text) {
    return Packet(13, Bytes(text.begin(), text.end()), 0);
}

// The digest of an OpenPGP hash id (RFC 4880, 9.4); SHA-256 for ids the module refuses.
inline const EVP_MD* MdOf(int hashId) {
    const std::map<int, const char*> names = {{1, "MD5"}, {2, "SHA1"}, {9, "SHA384"}, {10, "SHA512"}, {11, "SHA224"}};
    return EVP_get_digestbyname(names.count(hashId) ? names.at(hashId) : "SHA256");
}

struct SignatureOptions {
    int version = 4;
    int hashId = 8;
    unsigned char type = 0x00;
    Bytes issuer = Bytes(8, 0x11);
    uint32_t created = 0x60000000;  // creation time (version 4: the one hashed subpacket)
    int breakLeft16 = 0;            // wrong quick-check bits: 1 the first octet, 2 the second
    bool breakValue = false;        // an RSA value that does not verify
    bool leadingZero = false;       // a value whose first octet is zero (an MPI shorter than the key)
    Bytes hashedExtra;              // version 4: subpackets after the creation time in the hashed area
};
// The hash an OpenPGP signature of data covers, finished with the signature's own fields (version 4:
// the hashed area and the trailer 04 FF with the length of the hashed part).
inline Bytes SignatureHash(const std::string& data, const SignatureOptions& o) {
    const Bytes area = Concat({{5, 2}, Be(o.created, 4), o.hashedExtra});
    const Bytes fields = o.version == 3 ? Concat({{o.type}, Be(o.created, 4)})
                                        : Concat({{4, o.type, 1, static_cast<unsigned char>(o.hashId)},
                                                  Be(area.size(), 2),
                                                  area,
                                                  {4, 0xFF},
                                                  Be(area.size() + 6, 4)});
    return HashOf(MdOf(o.hashId), data + std::string(fields.begin(), fields.end()));
}
// With leadingZero the creation time moves on one second at a time until the value starts with a
// zero octet (about one signature in 256 does).
inline Bytes SignaturePacket(EVP_PKEY* key, const std::string& data, SignatureOptions o = {}) {
    Bytes digest = SignatureHash(data, o), value = SignDigest(key, MdOf(o.hashId), digest);
    while (o.leadingZero && !value.empty() && value[0] != 0) {
        ++o.created;
        digest = SignatureHash(data, o);
        value = SignDigest(key, MdOf(o.hashId), digest);
    }
    if (o.breakValue) value[value.size() / 2] ^= 0x01;
    Bytes left16(digest.begin(), digest.begin() + 2);
    if (o.breakLeft16 & 1) left16[0] ^= 0xFF;
    if (o.breakLeft16 & 2) left16[1] ^= 0xFF;
    const unsigned char hashId = static_cast<unsigned char>(o.hashId);
    if (o.version == 3) {
        return Packet(2, Concat({{3, 5, o.type}, Be(o.created, 4), o.issuer, {1, hashId}, left16, Mpi(value)}));
    }
    return Packet(2, Concat({{4, o.type, 1, hashId},
                             Be(6 + o.hashedExtra.size(), 2),
                             {5, 2},
                             Be(o.created, 4),
                             o.hashedExtra,
                             Be(o.issuer.size() + 2, 2),
                             {9, 16},
                             o.issuer,
                             left16,
                             Mpi(value)}));
}
// A key certified by itself as gpg writes one: public key, user ID, and a positive certification
// (0x13) of both by the key (RFC 4880, 5.2.4), granting certification and signing (key flags 03).
inline Bytes CertifiedKey(EVP_PKEY* key, const Bytes& issuer, const std::string& uid = "Test <test@example.com>") {
    const Bytes packet = PublicKey(key), body(packet.begin() + 3, packet.end());
    const Bytes data =
        Concat({{0x99}, Be(body.size(), 2), body, {0xB4}, Be(uid.size(), 4), Bytes(uid.begin(), uid.end())});
    SignatureOptions self;
    self.type = 0x13, self.issuer = issuer, self.hashedExtra = {2, 27, 0x03};
    return Concat({packet, UserId(uid), SignaturePacket(key, std::string(data.begin(), data.end()), self)});
}

// A key block: public key, user ID and a self-signature naming issuer.
inline Bytes KeyBlock(EVP_PKEY* key, const Bytes& issuer) {
    return CertifiedKey(key, issuer);
}

inline std::string Armor(const Bytes& binary, const std::string& eol = "\n", const std::string& headers = "") {
    unsigned int length = 0;
    std::unique_ptr<char[]> text(
        Radix64::Encode(reinterpret_cast<const char*>(binary.data()), static_cast<unsigned>(binary.size()), length));
    const std::string encoded(text.get(), length - 5), checksum(text.get() + length - 5, 5);
    std::string armored = "-----BEGIN PGP PUBLIC KEY BLOCK-----" + eol + headers + eol;
    for (size_t i = 0; i < encoded.size(); i += 64) armored += encoded.substr(i, 64) + eol;
    return armored + checksum + eol + "-----END PGP PUBLIC KEY BLOCK-----" + eol;
}

}  // namespace pgp
