#pragma once
// Base64 (the standard alphabet, "=" padding) and Radix-64, OpenPGP's armor encoding: Base64 text
// followed by "=" and the four Base64 characters of a CRC-24 over the data.
//
// The raw operations return new[]-allocated arrays that the caller owns and releases with delete[]
// (a std::unique_ptr<char[]>); their length comes back in outLength and they are not NUL-terminated.
// The Binary operations return a new Binary with such an array as its data: DecodedBinaryRelease
// releases both.
//
// Decoding is lenient in one way and strict in others: "=" counts as padding and as a zero symbol
// wherever it stands; line feeds and carriage returns are skipped anywhere; any other character
// outside the alphabet (spaces and tabs included) is an error.

#include <cstdint>
#include <string>

#include "soapWrap.h"

class Base64 {
public:
    static char* Encode(const char* data, unsigned int length, unsigned int& outLength);
    static char* Decode(const char* text, unsigned int length, unsigned int& outLength);
    static std::string Encode(const soapWrap::Binary* data);
    // A new Binary (and data array) owned by the caller.
    static soapWrap::Binary* Decode(const std::string& text);
};

// Releases a Binary that Base64::Decode or Radix64::Decode handed over: its data array, then itself.
struct DecodedBinaryRelease {
    void operator()(soapWrap::Binary* binary) const;
};

class Radix64 {
public:
    // The OpenPGP armor checksum (RFC 4880, 6.1).
    static uint32_t Crc24(const char* data, unsigned int length);

    // Base64 text directly followed by "=" and the checksum: no line break before "=".
    static char* Encode(const char* data, unsigned int length, unsigned int& outLength);
    // Text that ends with "=" and the checksum. The character just before "=" is always dropped,
    // since armored text has a line break there: the decoder is not the encoder's inverse.
    static char* Decode(const char* text, unsigned int length, unsigned int& outLength);
    static std::string Encode(const soapWrap::Binary* data);
    static soapWrap::Binary* Decode(const std::string& text);
};
