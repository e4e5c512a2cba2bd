#include "PgpPacket.h"

#include <cstring>
#include <ctime>
#include <string>

#include "Exceptions.h"

namespace {

// Throws unless count bytes at offset lie within the available bytes.
void Need(uint64_t offset, uint64_t count, uint64_t available, const char* what) {
    if (offset + count > available) {
        throw DataFormatException(std::string(what) + " is truncated");
    }
}

uint16_t ReadUInt16(const unsigned char* p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

void WriteUInt32(unsigned char* p, uint32_t value) {
    p[0] = static_cast<unsigned char>(value >> 24);
    p[1] = static_cast<unsigned char>(value >> 16);
    p[2] = static_cast<unsigned char>(value >> 8);
    p[3] = static_cast<unsigned char>(value);
}

// The header length of an old-format packet from its length type (the two low bits of octet 0).
unsigned int HeaderLength(unsigned char tag) {
    switch (tag & 3) {
        case 0: return 2;
        case 1: return 3;
        case 2: return 6;
        default: throw DataFormatException("OpenPGP packets with indeterminate length are not supported");
    }
}

uint64_t BodyLength(const unsigned char* p, unsigned int headerLength) {
    switch (headerLength) {
        case 2: return p[1];
        case 3: return ReadUInt16(p + 1);
        default: return (uint64_t{p[1]} << 24) | (uint64_t{p[2]} << 16) | (uint64_t{p[3]} << 8) | p[4];
    }
}

}  // namespace

PgpPacket::PgpPacket() : length_(0) {}

PgpPacket::~PgpPacket() {}

uint32_t PgpPacket::ParseLengthTag(const char* packet, unsigned int& headerLength) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(packet);
    headerLength = HeaderLength(p[0]);
    return static_cast<uint32_t>(BodyLength(p, headerLength) + headerLength);
}

uint32_t PgpPacket::ParseLengthTag(const char* packet, unsigned int remaining, unsigned int& headerLength) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(packet);
    Need(0, 1, remaining, "OpenPGP packet header");
    const unsigned int header = HeaderLength(p[0]);
    Need(0, header, remaining, "OpenPGP packet header");
    const uint64_t length = BodyLength(p, header) + header;
    if (length > remaining) {
        throw DataFormatException("OpenPGP packet of " + std::to_string(length) + " bytes is longer than the " +
                                  std::to_string(remaining) + " bytes that remain");
    }
    headerLength = header;
    return static_cast<uint32_t>(length);
}

void PgpPacket::CheckPublicKeyAlgorithm(char algorithm) {
    if ((algorithm & 3) == 0) {
        throw DataFormatException("Only RSA algorithm is supported");
    }
}

// ---------------------------------------------------------------------------------------------
// Public-key packet, version 4: version (1), creation time (4), algorithm (1), MPI n, MPI e.

PgpPublicKey::PgpPublicKey(const char* packet, unsigned int remaining) {
    unsigned int headerLength = 0;
    length_ = ParseLengthTag(packet, remaining, headerLength);
    const char* body = packet + headerLength;
    Need(headerLength, 6, remaining, "Public key packet");
    if ((body[0] & 4) == 0) {
        throw DataFormatException("This version of OpenPGP public key is not supported");
    }
    CheckPublicKeyAlgorithm(body[5]);
    // The bounds handed to the integers count from the packet's start, as the format's readers
    // always did; the bytes really present bound them as well.
    const uint64_t available = remaining - headerLength;
    modulus_.reset(new MPI(body + 6, remaining - 5, available - 6));
    const uint64_t modulusBytes = modulus_->GetLengthInBytes();
    exponent_.reset(new MPI(body + 8 + modulusBytes, remaining - modulusBytes - 5, available - 8 - modulusBytes));
}

PgpPublicKey::~PgpPublicKey() {
    modulus_.reset();
    exponent_.reset();
}

// ---------------------------------------------------------------------------------------------
// Signature packet

PgpSignatureData::PgpSignatureData(const char* packet, unsigned int remaining)
    : issuer_(),
      hashedLength_(0),
      unhashedLength_(0),
      signatureSize_(0),
      version_(0),
      type_(0),
      publicKeyAlgorithm_(0),
      hashAlgorithm_(PgpHashSha1),
      left16_() {
    unsigned int headerLength = 0;
    length_ = ParseLengthTag(packet, remaining, headerLength);
    const unsigned char* body = reinterpret_cast<const unsigned char*>(packet) + headerLength;
    Need(headerLength, 1, remaining, "Signature packet");
    switch (body[0]) {
        case 3: ParseVersion3(body, headerLength, remaining); break;
        case 4: ParseVersion4(body, headerLength, remaining); break;
        default:
            throw DataFormatException("Version " + std::to_string(body[0]) + " of signature packets is not supported");
    }
}

// Version 3: version, L (5), L hashed bytes (type, creation time), issuer (8), public-key
// algorithm, hash algorithm, left 16 bits, MPI signature value.
void PgpSignatureData::ParseVersion3(const unsigned char* body, unsigned int headerLength, unsigned int remaining) {
    version_ = 3;
    Need(headerLength, 2, remaining, "Signature packet");
    // The hashed material is the type and the creation time, and nothing else (RFC 4880, 5.2.2:
    // the length MUST be 5). A longer one could carry the end of the signed data, so that a
    // shortened payload would still hash to the signed value.
    const int hashed = static_cast<signed char>(body[1]);
    if (hashed != 5) {
        throw DataFormatException("Version 3 signature packet has a hashed material length of " +
                                  std::to_string(hashed) + "; it must be 5");
    }
    const uint64_t l = static_cast<uint64_t>(hashed);
    Need(headerLength, 14 + l, remaining, "Signature packet");
    hashedLength_ = static_cast<uint16_t>(l);
    hashed_.reset(new unsigned char[l ? l : 1]);
    std::memcpy(hashed_.get(), body + 2, l);
    std::memcpy(issuer_, body + 2 + l, 8);
    CheckPublicKeyAlgorithm(static_cast<char>(body[10 + l]));
    publicKeyAlgorithm_ = body[10 + l];
    hashAlgorithm_ = body[11 + l];
    std::memcpy(left16_, body + 12 + l, 2);
    signatureSize_ = static_cast<uint16_t>(remaining - 24);
    signature_.reset(
        new MPI(reinterpret_cast<const char*>(body + 14 + l), signatureSize_, remaining - headerLength - 14 - l));
}

// Version 4: version, type, public-key algorithm, hash algorithm, H (2), H hashed bytes, U (2),
// U unhashed bytes, left 16 bits, MPI signature value.
void PgpSignatureData::ParseVersion4(const unsigned char* body, unsigned int headerLength, unsigned int remaining) {
    version_ = 4;
    Need(headerLength, 6, remaining, "Signature packet");
    type_ = body[1];
    CheckPublicKeyAlgorithm(static_cast<char>(body[2]));
    publicKeyAlgorithm_ = body[2];
    hashAlgorithm_ = body[3];
    const uint64_t h = ReadUInt16(body + 4);
    Need(headerLength, 8 + h, remaining, "Signature packet");
    hashedLength_ = static_cast<uint16_t>(h);
    hashed_.reset(new unsigned char[h ? h : 1]);
    std::memcpy(hashed_.get(), body + 6, h);
    const uint16_t u = ReadUInt16(body + 6 + h);
    unhashedLength_ = u;

    // The issuer search walks one-octet subpacket lengths only, and moves past a subpacket of
    // another type by its length alone, one octet short: exact when the issuer comes first, as
    // the module writes it. The walk runs at least once, even over an empty area.
    uint64_t position = 8 + h;  // offset in the body
    int total = 0;
    do {
        Need(headerLength + position, 2, remaining, "Unhashed subpacket area");
        const unsigned char length = body[position];
        const unsigned char type = body[position + 1];
        if (type == 16) {
            if (length != 9) {
                throw DataFormatException("Wrong size of IssuerID");
            }
            Need(headerLength + position, 10, remaining, "Issuer subpacket");
            std::memcpy(issuer_, body + position + 2, 8);
            position += length + 1;
        } else {
            // A zero length does not move the walk: refused only where the walk would go on.
            if (length == 0 && total < static_cast<int>(u) - 1) {
                throw DataFormatException("Unhashed subpacket of length 0 cannot be walked");
            }
            position += length;
        }
        total += length;
    } while (total < static_cast<int>(u) - 1);

    Need(headerLength + position, 2, remaining, "Signature packet");
    std::memcpy(left16_, body + position, 2);
    signatureSize_ = static_cast<uint16_t>(remaining - u - h - 15);
    signature_.reset(new MPI(reinterpret_cast<const char*>(body + position + 2), signatureSize_,
                             remaining - headerLength - position - 2));
}

PgpSignatureData::PgpSignatureData(PgpSignatureVersion version, const char* issuerId, unsigned short keyBits,
                                   PgpSignatureType type, PgpHashAlgorithm hash)
    : issuer_(),
      hashedLength_(0),
      unhashedLength_(0),
      signatureSize_(keyBits),
      version_(static_cast<uint8_t>(version)),
      type_(static_cast<uint8_t>(type)),
      publicKeyAlgorithm_(1),
      hashAlgorithm_(static_cast<uint8_t>(hash)),
      left16_() {
    std::memcpy(issuer_, issuerId, 8);
    const uint32_t now = static_cast<uint32_t>(time(nullptr));
    if (version == PgpSignatureVersion3) {
        hashedLength_ = 5;
        hashed_ = std::make_unique<unsigned char[]>(5);
        hashed_[0] = 0x00;  // always a binary-document type, whatever type says
        WriteUInt32(hashed_.get() + 1, now);
    } else if (version == PgpSignatureVersion4) {
        hashedLength_ = 6;
        hashed_ = std::make_unique<unsigned char[]>(6);
        hashed_[0] = 0x05;  // a signature creation time subpacket
        hashed_[1] = 0x02;
        WriteUInt32(hashed_.get() + 2, now);
        unhashedLength_ = 10;  // room for one issuer subpacket
    } else {
        throw NotSupportedException("Not supported version of PGP certificate");
    }
}

PgpSignatureData::~PgpSignatureData() {}
