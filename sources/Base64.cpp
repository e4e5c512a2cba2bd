#include "Base64.h"

#include <memory>

#include "Exceptions.h"

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Symbol values by character code 0..122; -1 is not a symbol. "=" reads as 0.
const signed char kDecodeTable[123] = {
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 62, -1, -1, -1, 63, 52, 53,
    54, 55, 56, 57, 58, 59, 60, 61, -1, -1, -1, 0,  -1, -1, -1, 0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
    10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, -1, -1, -1, -1, -1, -1, 26, 27, 28,
    29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51};

// Leaves room for Radix64::Encode to append its five characters in place.
unsigned int EncodedCapacity(unsigned int length) {
    return (length / 3) * 4 + 9;
}

unsigned int EncodeInto(const unsigned char* in, unsigned int length, char* out) {
    unsigned int written = 0;
    unsigned int i = 0;
    for (; i + 3 <= length; i += 3) {
        out[written++] = kAlphabet[in[i] >> 2];
        out[written++] = kAlphabet[((in[i] & 3) << 4) + (in[i + 1] >> 4)];
        out[written++] = kAlphabet[((in[i + 1] & 15) << 2) + (in[i + 2] >> 6)];
        out[written++] = kAlphabet[in[i + 2] & 63];
    }
    if (length - i == 1) {
        out[written++] = kAlphabet[in[i] >> 2];
        out[written++] = kAlphabet[(in[i] & 3) << 4];
        out[written++] = '=';
        out[written++] = '=';
    } else if (length - i == 2) {
        out[written++] = kAlphabet[in[i] >> 2];
        out[written++] = kAlphabet[((in[i] & 3) << 4) + (in[i + 1] >> 4)];
        out[written++] = kAlphabet[(in[i + 1] & 15) << 2];
        out[written++] = '=';
    }
    return written;
}

// The wrappers of both codecs: a Binary in, text out, and text in, a new Binary out.
using RawCodec = char* (*)(const char*, unsigned int, unsigned int&);

std::string EncodeBinary(RawCodec encode, const soapWrap::Binary* data) {
    unsigned int length = 0;
    std::unique_ptr<char[]> text(encode(reinterpret_cast<const char*>(data->data), data->length, length));
    return std::string(text.get(), length);
}

soapWrap::Binary* DecodeToBinary(RawCodec decode, const std::string& text) {
    unsigned int length = 0;
    std::unique_ptr<char[]> owned(decode(text.data(), static_cast<unsigned int>(text.size()), length));
    soapWrap::Binary* binary = new soapWrap::Binary{reinterpret_cast<unsigned char*>(owned.get()), length};
    owned.release();
    return binary;
}

}  // namespace

void DecodedBinaryRelease::operator()(soapWrap::Binary* binary) const {
    if (binary != nullptr) {
        delete[] reinterpret_cast<char*>(binary->data);  // made as the char array of a raw Decode
        delete binary;
    }
}

char* Base64::Encode(const char* data, unsigned int length, unsigned int& outLength) {
    char* text = new char[EncodedCapacity(length)];
    outLength = EncodeInto(reinterpret_cast<const unsigned char*>(data), length, text);
    return text;
}

char* Base64::Decode(const char* text, unsigned int length, unsigned int& outLength) {
    outLength = 0;
    // The output array doubles as the buffer of symbols: each group of four is turned into three
    // bytes in place, never ahead of the symbols still to be read.
    std::unique_ptr<char[]> out = std::make_unique<char[]>(length);
    unsigned char* symbols = reinterpret_cast<unsigned char*>(out.get());
    unsigned int count = 0;
    unsigned int padding = 0;
    for (unsigned int i = 0; i < length; ++i) {
        const char c = text[i];
        if (c == '\n' || c == '\r') {
            continue;
        }
        if (c == '=') {
            ++padding;
        }
        if (static_cast<unsigned char>(c) > 122 || kDecodeTable[static_cast<unsigned char>(c)] < 0) {
            throw Base64OperationException("Base64 data decoding error: bad character in input");
        }
        symbols[count++] = static_cast<unsigned char>(kDecodeTable[static_cast<unsigned char>(c)]);
    }
    // A group of four symbols carries three bytes; padding beyond them would leave a negative length.
    if (count % 4 != 0 || padding > (count / 4) * 3) {
        throw Base64OperationException("Base64 data decoding error: wrong data length");
    }
    for (size_t group = 0; group < count / 4; ++group) {
        const unsigned char* s = symbols + group * 4;
        const unsigned char s0 = s[0], s1 = s[1], s2 = s[2], s3 = s[3];
        symbols[group * 3] = static_cast<unsigned char>((s0 << 2) + (s1 >> 4));
        symbols[group * 3 + 1] = static_cast<unsigned char>((s1 << 4) + (s2 >> 2));
        symbols[group * 3 + 2] = static_cast<unsigned char>((s2 << 6) + s3);
    }
    outLength = (count / 4) * 3 - padding;
    return out.release();
}

std::string Base64::Encode(const soapWrap::Binary* data) {
    return EncodeBinary(&Base64::Encode, data);
}

soapWrap::Binary* Base64::Decode(const std::string& text) {
    return DecodeToBinary(&Base64::Decode, text);
}

uint32_t Radix64::Crc24(const char* data, unsigned int length) {
    uint32_t crc = 0xB704CE;
    for (unsigned int i = 0; i < length; ++i) {
        crc ^= static_cast<uint32_t>(static_cast<unsigned char>(data[i])) << 16;
        for (int bit = 0; bit < 8; ++bit) {
            crc <<= 1;
            if (crc & 0x1000000) {
                crc ^= 0x1864CFB;
            }
        }
    }
    return crc & 0xFFFFFF;
}

char* Radix64::Encode(const char* data, unsigned int length, unsigned int& outLength) {
    const uint32_t crc = Crc24(data, length);
    const unsigned char checksum[3] = {static_cast<unsigned char>(crc >> 16), static_cast<unsigned char>(crc >> 8),
                                       static_cast<unsigned char>(crc)};
    char* text = Base64::Encode(data, length, outLength);
    text[outLength] = '=';
    EncodeInto(checksum, 3, text + outLength + 1);
    outLength += 5;
    return text;
}

char* Radix64::Decode(const char* text, unsigned int length, unsigned int& outLength) {
    // At least one character (the line break) must stand before "=" and the four checksum characters.
    if (length < 6 || text[length - 5] != '=') {
        throw DataFormatException("Expected data in Radix-64 format");
    }
    unsigned int checksumLength = 0;
    std::unique_ptr<char[]> checksum(Base64::Decode(text + length - 4, 4, checksumLength));
    const unsigned char* stored = reinterpret_cast<const unsigned char*>(checksum.get());
    const uint32_t storedCrc = (uint32_t{stored[0]} << 16) | (uint32_t{stored[1]} << 8) | stored[2];

    std::unique_ptr<char[]> data(Base64::Decode(text, length - 6, outLength));
    if (Crc24(data.get(), outLength) != storedCrc) {
        throw DataFormatException("Calculated CRC does not equal to stored CRC of the Radix-64 message");
    }
    return data.release();
}

std::string Radix64::Encode(const soapWrap::Binary* data) {
    return EncodeBinary(&Radix64::Encode, data);
}

soapWrap::Binary* Radix64::Decode(const std::string& text) {
    return DecodeToBinary(&Radix64::Decode, text);
}
