// OpenPgpSignature (declared in OpenPgpKeyring.h): signature packets of versions 3, 4 and 6 read
// into what verification needs.
#include <cstring>

#include "Base.h"
#include "ByteCursor.h"
#include "Exceptions.h"
#include "OpenPgpKeyring.h"
#include "OpenPgpPackets.h"
#include "OpenPgpTrailer.h"

namespace {

// Version 3: the hashed length (5), type, creation time, issuer, algorithms.
void ReadV3Fields(ByteCursor& body, OpenPgpSignature& signature) {
    if (body.ReadUInt8() != 5) throw DataFormatException("Version 3 signature packet: the hashed length must be 5");
    signature.trailer.assign(body.Here(), body.Here() + 5);
    signature.type = body.ReadUInt8();
    signature.creationTime = body.ReadUInt32();
    signature.hasCreationTime = true;
    signature.issuer = Base::DumpBufferToString(body.Peek(8), 8, true);
    body.Skip(8);
    signature.publicKeyAlgorithm = body.ReadUInt8();
    signature.hashAlgorithm = body.ReadUInt8();
}

// The key an area names: its issuer key ID (16) and issuer fingerprint (33).
struct Issuer {
    std::string keyId, fingerprint;
};

// The key ID of a fingerprint subpacket's body (its version, then 20 or 32 octets); "" otherwise.
void ReadFingerprint(const ByteCursor& subpacket, Issuer& issuer) {
    const uint64_t size = subpacket.Remaining();
    const unsigned char version = size > 0 ? subpacket.Here()[0] : 0;
    if ((version == 4 && size == 21) || (version == 6 && size == 33)) {
        issuer.fingerprint = Base::DumpBufferToString(subpacket.Here() + 1, static_cast<size_t>(size - 1), true);
        issuer.keyId = version == 4 ? issuer.fingerprint.substr(24) : issuer.fingerprint.substr(0, 16);
    }
}

// Whether a subpacket of a fixed size has another: times (2, 3, 9) take 4 octets, an issuer (16) 8;
// an issuer fingerprint (33) at least its version.
bool Malformed(unsigned int kind, const ByteCursor& subpacket) {
    const uint64_t size = subpacket.Remaining();
    if (kind == 2 || kind == 3 || kind == 9) return size != 4;
    if (kind == 16) return size != 8;
    // An issuer fingerprint of another version or length names no key rpm knows, and is taken so.
    return kind == 33 && size == 0;
}

bool Understood(unsigned int kind) {
    static const unsigned char kKinds[] = {2, 3, 4, 9, 11, 16, 21, 22, 23, 25, 27, 29, 30, 32, 33};
    return std::memchr(kKinds, static_cast<int>(kind), sizeof kKinds) != nullptr;
}

// What one subpacket of the hashed area tells: the times and key flags (read here only: unhashed
// copies are anyone's).
void ReadHashed(unsigned int kind, const ByteCursor& subpacket, OpenPgpSignature& signature) {
    if (kind == 27 && subpacket.Remaining() >= 1) {
        signature.keyFlags = subpacket.Here()[0];
        signature.hasKeyFlags = true;
    }
    if (kind == 29 && subpacket.Remaining() >= 1) signature.revocationReason = subpacket.Here()[0];
    if ((kind != 2 && kind != 3 && kind != 9) || subpacket.Remaining() != 4) return;
    const unsigned char* octets = subpacket.Here();
    const uint32_t value =
        (uint32_t(octets[0]) << 24) | (uint32_t(octets[1]) << 16) | (uint32_t(octets[2]) << 8) | octets[3];
    if (kind == 2) signature.creationTime = value, signature.hasCreationTime = true;
    if (kind == 3) signature.expiresAfter = value;
    if (kind == 9) signature.keyExpiresAfter = value;
}

// The subpackets of one area: the issuer, the hashed facts, an embedded signature, and critical
// subpackets the reader does not act on, which make the signature invalid when they are hashed (they
// are the signer's). A critical key expiration time on a signature over a document is one of them:
// a document has no key to expire.
Issuer ReadSubpackets(const ByteCursor& area, bool hashed, OpenPgpSignature& signature) {
    Issuer issuer;
    Issuer fromFingerprint;
    ForEachSubpacket(area, [&](uint8_t type, ByteCursor subpacket) {
        const unsigned int kind = type & 0x7Fu;
        if (Malformed(kind, subpacket)) {
            signature.flaw = "its subpacket of type " + std::to_string(kind) + " is malformed";
        }
        if (kind == 16 && subpacket.Remaining() == 8) {
            issuer.keyId = Base::DumpBufferToString(subpacket.Here(), 8, true);
        } else if (kind == 33) {
            ReadFingerprint(subpacket, fromFingerprint);
        } else if (kind == 32 && signature.embedded.empty()) {
            signature.embedded.assign(subpacket.Here(), subpacket.Here() + subpacket.Remaining());
        }
        // An embedded signature is read with the packet (Sequoia refuses the packet when it is not a
        // signature of version 4 or 6).
        if (kind == 32 && (subpacket.Remaining() < 4 || (subpacket.Here()[0] != 4 && subpacket.Here()[0] != 6))) {
            signature.flaw = "its embedded signature cannot be read";
        }
        if (hashed) ReadHashed(kind, subpacket, signature);
        const bool document = signature.type <= 1;
        if ((type & 0x80) != 0 && hashed && (!Understood(kind) || (kind == 9 && document))) {
            signature.flaw =
                "it holds a critical subpacket of type " + std::to_string(kind) + " that is not understood";
        }
        return true;
    });
    // A fingerprint names the key (a key ID of zeros beside it is a wildcard).
    return fromFingerprint.fingerprint.empty() ? issuer : fromFingerprint;
}

// Versions 4 and 6: type, algorithms, the hashed and unhashed areas (their lengths two octets, four
// for version 6); data is the body from its version.
void ReadV4Fields(const unsigned char* data, ByteCursor& body, OpenPgpSignature& signature) {
    const bool v6 = signature.version == 6;
    signature.type = body.ReadUInt8();
    signature.publicKeyAlgorithm = body.ReadUInt8();
    signature.hashAlgorithm = body.ReadUInt8();
    const uint32_t hashedLength = v6 ? body.ReadUInt32() : body.ReadUInt16();
    const ByteCursor hashed = body.Take(hashedLength, "Hashed subpacket area");
    const uint32_t unhashedLength =
        v6 ? body.ReadUInt32("Unhashed subpacket area") : body.ReadUInt16("Unhashed subpacket area");
    const ByteCursor unhashed = body.Take(unhashedLength, "Unhashed subpacket area");
    // The trailer: the fields up to the end of the hashed area, then the version, FF and their length.
    const uint32_t fieldsLength = static_cast<uint32_t>(hashed.Size() + (v6 ? 8 : 6));
    signature.trailer.assign(data, data + fieldsLength);
    auto tail = OpenPgpV4Trailer(fieldsLength);
    tail[0] = static_cast<unsigned char>(signature.version);
    signature.trailer.insert(signature.trailer.end(), tail.begin(), tail.end());
    const Issuer signer = ReadSubpackets(hashed, true, signature);
    const Issuer other = ReadSubpackets(unhashed, false, signature);
    // The hashed area's issuer counts when it names one: the unhashed area is anyone's to write.
    const Issuer& named = signer.keyId.empty() ? other : signer;
    signature.issuer = named.keyId;
    signature.issuerFingerprint = named.fingerprint;
}

// The salt size of a version 6 signature over each hash (RFC 9580, 9.5); 0 for a hash it names none.
size_t SaltSize(unsigned int hash) {
    switch (hash) {
        case 8:
        case 11:
        case 12: return 16;
        case 9: return 24;
        case 10:
        case 14: return 32;
        default: return 0;
    }
}

// A DSA or ECDSA value (two integers r and s) as the DER sequence OpenSSL verifies.
std::vector<unsigned char> DerOf(const ByteCursor& r, const ByteCursor& s) {
    std::vector<unsigned char> sequence;
    for (const ByteCursor* number : {&r, &s}) {
        size_t first = 0;
        while (first < number->Size() && number->Here()[first] == 0) ++first;
        std::vector<unsigned char> octets(number->Here() + first, number->Here() + number->Size());
        if (octets.empty() || (octets[0] & 0x80) != 0) octets.insert(octets.begin(), 0);
        sequence.push_back(0x02);
        if (octets.size() >= 0x80) sequence.push_back(0x81);
        sequence.push_back(static_cast<unsigned char>(octets.size()));
        sequence.insert(sequence.end(), octets.begin(), octets.end());
    }
    std::vector<unsigned char> der = {0x30};
    if (sequence.size() >= 0x80) der.push_back(0x81);
    der.push_back(static_cast<unsigned char>(sequence.size()));
    der.insert(der.end(), sequence.begin(), sequence.end());
    return der;
}

// value left-padded with zeros to length octets; false when it is longer.
bool PadTo(const ByteCursor& value, size_t length, std::vector<unsigned char>& out) {
    if (value.Size() > length) return false;
    out.assign(length - static_cast<size_t>(value.Size()), 0);
    out.insert(out.end(), value.Here(), value.Here() + value.Size());
    return true;
}

// The value: RSA's one integer; DSA's, ECDSA's and version 4 EdDSA's two; Ed25519's and Ed448's
// native octets. Another algorithm's value is not read (verification does not trust it).
void ReadSignatureValue(ByteCursor& body, OpenPgpSignature& signature) {
    const unsigned int algorithm = signature.publicKeyAlgorithm;
    if (algorithm >= 1 && algorithm <= 3) {
        const ByteCursor value = ReadMpi(body);
        signature.value.assign(value.Here(), value.Here() + value.Size());
    } else if (algorithm == 17 || algorithm == 19) {
        const ByteCursor r = ReadMpi(body), s = ReadMpi(body);
        if (r.Size() > 66 || s.Size() > 66) {
            signature.flaw = "its " + OpenPgpAlgorithmName(algorithm) + " values are too long";
        } else {
            signature.value = DerOf(r, s);
        }
    } else if (algorithm == 22) {
        const ByteCursor r = ReadMpi(body), s = ReadMpi(body);
        std::vector<unsigned char> half;
        if (!PadTo(r, 32, signature.value) || !PadTo(s, 32, half)) {
            signature.flaw = "its EdDSA values are longer than 32 octets";
        }
        signature.value.insert(signature.value.end(), half.begin(), half.end());
    } else if (algorithm == 27 || algorithm == 28) {
        const size_t size = algorithm == 27 ? 64 : 114;
        signature.value.assign(body.Peek(size, "Signature packet"), body.Here() + size);
    }
}

}  // namespace

OpenPgpSignature OpenPgpSignature::Parse(const unsigned char* data, uint64_t size) {
    ByteCursor cursor(data, size, "OpenPGP signature");
    const OpenPgpPacket packet = NextPacket(cursor);
    if (packet.tag != kSignaturePacket) {
        throw DataFormatException("OpenPGP packet of tag " + std::to_string(packet.tag) + " is no signature");
    }
    return ParseBody(packet.body.Here(), packet.body.Size());
}

OpenPgpSignature OpenPgpSignature::ParseBody(const unsigned char* data, uint64_t size) {
    OpenPgpSignature signature;
    ByteCursor body(data, size, "Signature packet");
    signature.version = body.ReadUInt8();
    if (signature.version == 3) {
        ReadV3Fields(body, signature);
    } else if (signature.version == 4 || signature.version == 6) {
        ReadV4Fields(data, body, signature);
    } else {
        throw DataFormatException("Version " + std::to_string(signature.version) +
                                  " signature packets are not supported");
    }
    body.Read(signature.left16, 2, "Signature packet");
    if (signature.version == 6) {
        const uint8_t saltSize = body.ReadUInt8("Signature packet");
        signature.salt.assign(body.Peek(saltSize, "Signature packet"), body.Here() + saltSize);
        body.Skip(saltSize);
        if (saltSize != SaltSize(signature.hashAlgorithm)) {
            signature.flaw = "its salt of " + std::to_string(saltSize) + " octets does not fit its hash";
        }
    }
    ReadSignatureValue(body, signature);
    return signature;
}
