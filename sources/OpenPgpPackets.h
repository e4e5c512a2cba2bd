#pragma once
// The one walker over OpenPGP data for keys, signatures and key diagnosis (RFC 4880, 4.2 and
// 5.2.3.1; RFC 9580, 4.2 and 5.2.3.7): packet headers in both formats, signature subpackets,
// multi-precision integers, and the version 4 key ID. The classic framework's own readers
// (PgpMessage, PgpPacket) keep the narrower rules they were written with.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ByteCursor.h"

// OpenPGP packet tags the module reads.
enum OpenPgpPacketTag : unsigned int {
    kSignaturePacket = 2,
    kSecretKeyPacket = 5,
    kPublicKeyPacket = 6,
    kSecretSubkeyPacket = 7,
    kPublicSubkeyPacket = 14,
};

// A packet header: the tag, the format, and how long the body is.
struct OpenPgpPacketHeader {
    unsigned int tag;
    bool newFormat;
    bool partial;  // a new-format partial length (for data packets, never for keys and signatures)
    uint64_t length;
};
// Reads the header of the packet at cursor (an old-format packet of indeterminate length runs to the
// end of the data); a first octet without its top bit is a DataFormatException, a header cut short
// the cursor's. The body is not checked against what remains.
OpenPgpPacketHeader ReadPacketHeader(ByteCursor& cursor);

// One packet: its tag and its body.
struct OpenPgpPacket {
    unsigned int tag;
    ByteCursor body;
};
// The packet at cursor, moved past; a partial length or a body longer than the data is a
// DataFormatException.
OpenPgpPacket NextPacket(ByteCursor& cursor);

// A subpacket's length (one, two or five octets); what names the area in "... is truncated".
uint32_t ReadSubpacketLength(ByteCursor& area, const char* what = nullptr);

// Hands visit each subpacket of area in turn (its type octet, the critical bit included, and its
// body) while visit returns true. A subpacket of length 0 or longer than the area is a
// DataFormatException, raised once the subpackets before it were visited.
void ForEachSubpacket(ByteCursor area, const std::function<bool(uint8_t type, ByteCursor body)>& visit);

// The value of a multi-precision integer: a bit count, then its octets.
ByteCursor ReadMpi(ByteCursor& cursor);

// The key ID of a version 4 key packet's body: the last 8 octets of SHA-1 over 0x99, the body's
// two-octet length and the body, as 16 upper-case hexadecimal digits.
std::string V4KeyId(const ByteCursor& body);

// The fingerprint of a key packet's body: for version 6, SHA-256 over 9B, the body's four-octet
// length and the body (its key ID is the first 8 octets); otherwise the version 4 fingerprint, SHA-1
// over 99, a two-octet length and the body (its key ID is the last 8 octets).
std::vector<unsigned char> KeyFingerprint(const ByteCursor& body);

// The bytes of Base64 text (line breaks and white space are read past); DataFormatException with
// failure as its text when the text is damaged.
std::vector<unsigned char> DecodeBase64(const std::string& text, const char* failure);
