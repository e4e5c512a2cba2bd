#include "PgpPacket.h"

#include <cstring>
#include <ctime>
#include <string>

#include "ByteCursor.h"
#include "Exceptions.h"

namespace {

// The parts of a packet, named in "... is truncated".
const char kHeader[] = "OpenPGP packet header";
const char kPublicKey[] = "Public key packet";
const char kSignature[] = "Signature packet";
const char kUnhashedArea[] = "Unhashed subpacket area";
const char kIssuer[] = "Issuer subpacket";

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

// The body length after the tag octet: one, two or four octets for the header lengths 2, 3 and 6
// (the four-octet form is counted as a header of 6 octets).
uint64_t BodyLength(ByteCursor& header, unsigned int headerLength) {
    header.Skip(1);  // the tag
    switch (headerLength) {
        case 2: return header.ReadUInt8();
        case 3: return header.ReadUInt16();
        default: return header.ReadUInt32();
    }
}

}  // namespace

PgpPacket::PgpPacket() : length_(0) {}

PgpPacket::~PgpPacket() {}

uint32_t PgpPacket::ParseLengthTag(const char* packet, unsigned int& headerLength) {
    headerLength = HeaderLength(static_cast<unsigned char>(packet[0]));
    ByteCursor header(packet, headerLength, kHeader);  // trusted to be there
    return static_cast<uint32_t>(BodyLength(header, headerLength) + headerLength);
}

uint32_t PgpPacket::ParseLengthTag(const char* packet, unsigned int remaining, unsigned int& headerLength) {
    ByteCursor message(packet, remaining, kHeader);
    const unsigned int header = HeaderLength(*message.Peek(1));
    message.Need(header);
    const uint64_t length = BodyLength(message, header) + header;
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
    body_.assign(packet + headerLength, packet + length_);
    ByteCursor body(packet, remaining, kPublicKey);
    body.Skip(headerLength);
    body.Need(6);  // version, creation time, algorithm
    if ((body.ReadUInt8() & 4) == 0) {
        throw DataFormatException("This version of OpenPGP public key is not supported");
    }
    body.Skip(4);  // creation time
    algorithm_ = body.ReadUInt8();
    CheckPublicKeyAlgorithm(static_cast<char>(algorithm_));
    // The format's bound on each integer counts from the packet's first octet, less 5 octets and
    // the value octets of the integer before it, as the format's readers always did: up to a header
    // and a few octets more than the packet holds. The cursor bounds the integers by the bytes there.
    uint64_t bound = uint64_t{remaining} - 5;
    modulus_ = std::make_unique<MPI>(body, bound);
    bound -= modulus_->GetLengthInBytes();
    exponent_ = std::make_unique<MPI>(body, bound);
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
    ByteCursor body(packet, remaining, kSignature);
    body.Skip(headerLength);
    const uint8_t version = *body.Peek(1);
    switch (version) {
        case 3: ParseVersion3(body, remaining); break;
        case 4: ParseVersion4(body, remaining); break;
        default:
            throw DataFormatException("Version " + std::to_string(version) + " of signature packets is not supported");
    }
}

// Version 3: version, L (5), L hashed bytes (type, creation time), issuer (8), public-key
// algorithm, hash algorithm, left 16 bits, MPI signature value.
void PgpSignatureData::ParseVersion3(ByteCursor& body, unsigned int remaining) {
    version_ = 3;
    body.Need(2);  // version, L
    body.Skip(1);
    // The hashed material is the type and the creation time, and nothing else (RFC 4880, 5.2.2:
    // the length MUST be 5). A longer one could carry the end of the signed data, so that a
    // shortened payload would still hash to the signed value.
    const unsigned char octet = body.ReadUInt8();
    const int hashed = octet < 0x80 ? octet : octet - 0x100;  // read as a signed octet
    if (hashed != 5) {
        throw DataFormatException("Version 3 signature packet has a hashed material length of " +
                                  std::to_string(hashed) + "; it must be 5");
    }
    const uint64_t l = static_cast<uint64_t>(hashed);
    // Everything up to the value is there before the algorithm is judged: the hashed material, the
    // issuer, the two algorithms and the left 16 bits.
    body.Need(l + sizeof issuer_ + 2 + sizeof left16_);
    hashedLength_ = static_cast<uint16_t>(l);
    hashed_ = std::make_unique<unsigned char[]>(static_cast<size_t>(l ? l : 1));
    body.Read(hashed_.get(), l);
    body.Read(issuer_, sizeof issuer_);
    const uint8_t algorithm = body.ReadUInt8();
    CheckPublicKeyAlgorithm(static_cast<char>(algorithm));
    publicKeyAlgorithm_ = algorithm;
    hashAlgorithm_ = body.ReadUInt8();
    // The format's bound on the value: the remaining bytes less 24 (exact under a 3-octet header),
    // in 16 bits.
    ReadValue(body, static_cast<uint16_t>(remaining - 24));
}

// Version 4: version, type, public-key algorithm, hash algorithm, H (2), H hashed bytes, U (2),
// U unhashed bytes, left 16 bits, MPI signature value.
void PgpSignatureData::ParseVersion4(ByteCursor& body, unsigned int remaining) {
    version_ = 4;
    ReadHashedFields(body);
    const uint16_t u = body.ReadUInt16();
    unhashedLength_ = u;
    ReadIssuer(body, u);
    // The format's bound on the value: the remaining bytes less U, H and 15, in 16 bits.
    ReadValue(body, static_cast<uint16_t>(remaining - u - hashedLength_ - 15));
}

// The fields a version 4 signature hashes: version, type, algorithms and the hashed area.
void PgpSignatureData::ReadHashedFields(ByteCursor& body) {
    body.Need(6);  // version to H, all there before the algorithm is judged
    body.Skip(1);
    type_ = body.ReadUInt8();
    const uint8_t algorithm = body.ReadUInt8();
    CheckPublicKeyAlgorithm(static_cast<char>(algorithm));
    publicKeyAlgorithm_ = algorithm;
    hashAlgorithm_ = body.ReadUInt8();
    const uint16_t h = body.ReadUInt16();
    hashedLength_ = h;
    hashed_ = std::make_unique<unsigned char[]>(h ? h : 1);
    body.Read(hashed_.get(), h);
}

// The issuer search walks one-octet subpacket lengths only, and moves past a subpacket of another
// type by its length alone, one octet short: exact when the issuer comes first, as the module
// writes it. The walk runs at least once, even over an empty area; it is bounded by the bytes of
// the message, not by the area's end.
void PgpSignatureData::ReadIssuer(ByteCursor& body, uint16_t unhashedLength) {
    const int last = static_cast<int>(unhashedLength) - 1;  // the walk goes on while the lengths add up to less
    int total = 0;
    bool more = true;
    do {
        const unsigned char* subpacket = body.Peek(2, kUnhashedArea);  // length, type
        const unsigned char length = subpacket[0];
        const bool issuer = subpacket[1] == 16;
        if (issuer) {
            if (length != 9) {
                throw DataFormatException("Wrong size of IssuerID");
            }
            body.Skip(2, kIssuer);
            body.Read(issuer_, sizeof issuer_, kIssuer);
        } else if (length == 0 && total < last) {
            // A zero length does not move the walk: refused only where the walk would go on.
            throw DataFormatException("Unhashed subpacket of length 0 cannot be walked");
        }
        total += length;
        more = total < last;
        if (!issuer) {
            // A length past the data is reported by the read that would follow: the next
            // subpacket's while the walk goes on, the left 16 bits' where it ends.
            body.Skip(length, more ? kUnhashedArea : kSignature);
        }
    } while (more);
}

// Both versions end with the left 16 bits of the hash and the value; bound is the format's bound
// on the value's octets.
void PgpSignatureData::ReadValue(ByteCursor& body, uint16_t bound) {
    body.Read(left16_, sizeof left16_);
    signatureSize_ = bound;
    signature_ = std::make_unique<MPI>(body, signatureSize_);
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
