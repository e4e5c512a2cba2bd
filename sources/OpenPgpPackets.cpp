#include "OpenPgpPackets.h"

#include <openssl/evp.h>

#include <memory>

#include "Base.h"
#include "Exceptions.h"
#include "OpenPgpKey.h"
#include "OpenSslHandles.h"

OpenPgpPacketHeader ReadPacketHeader(ByteCursor& cursor) {
    const char* const what = "OpenPGP packet header";
    const uint8_t first = cursor.ReadUInt8(what);
    if ((first & 0x80) == 0) throw DataFormatException("OpenPGP packet header is not valid");
    OpenPgpPacketHeader header{0, (first & 0x40) != 0, false, 0};
    if (header.newFormat) {
        header.tag = first & 0x3Fu;
        const uint8_t octet = cursor.ReadUInt8(what);
        if (octet < 192) {
            header.length = octet;
        } else if (octet < 224) {
            header.length = ((octet - 192u) << 8) + cursor.ReadUInt8(what) + 192u;
        } else if (octet == 255) {
            header.length = cursor.ReadUInt32(what);
        } else {
            header.partial = true;
        }
        return header;
    }
    header.tag = (first >> 2) & 0x0Fu;
    switch (first & 3) {
        case 0: header.length = cursor.ReadUInt8(what); break;
        case 1: header.length = cursor.ReadUInt16(what); break;
        case 2: header.length = cursor.ReadUInt32(what); break;
        default: header.length = cursor.Remaining(); break;  // to the end of the data
    }
    return header;
}

OpenPgpPacket NextPacket(ByteCursor& cursor) {
    const OpenPgpPacketHeader header = ReadPacketHeader(cursor);
    if (header.partial) {
        throw DataFormatException("OpenPGP packet of tag " + std::to_string(header.tag) + " has a partial length");
    }
    if (!cursor.Has(header.length)) {
        throw DataFormatException("OpenPGP packet of " + std::to_string(header.length) + " bytes is longer than the " +
                                  std::to_string(cursor.Remaining()) + " bytes that remain");
    }
    return OpenPgpPacket{header.tag, cursor.Take(header.length, "OpenPGP packet")};
}

uint32_t ReadSubpacketLength(ByteCursor& area, const char* what) {
    const uint8_t first = area.ReadUInt8(what);
    if (first < 192) return first;
    if (first < 255) return ((first - 192u) << 8) + area.ReadUInt8(what) + 192u;
    return area.ReadUInt32(what);
}

void ForEachSubpacket(ByteCursor area, const std::function<bool(uint8_t type, ByteCursor body)>& visit) {
    while (area.Remaining() > 0) {
        const uint32_t length = ReadSubpacketLength(area, "Signature subpacket");
        if (length == 0) throw DataFormatException("Signature subpacket of length 0");
        ByteCursor subpacket = area.Take(length, "Signature subpacket");
        const uint8_t type = subpacket.ReadUInt8();
        if (!visit(type, subpacket)) return;
    }
}

ByteCursor ReadMpi(ByteCursor& cursor) {
    const uint16_t bits = cursor.ReadUInt16("Multi-precision integer");
    const ByteCursor value = cursor.Take((bits + 7u) / 8u, "Multi-precision integer");
    // The count is the value's exact length in bits (RFC 9580, 3.2): its top bit is set, and no bit
    // above it. Sequoia, and so rpm 6.1, refuses any other count.
    if (bits != 0 && (value.Here()[0] >> ((bits - 1) % 8)) != 1) {
        throw DataFormatException("Multi-precision integer: its bit count is not its length");
    }
    return value;
}

std::string V4KeyId(const ByteCursor& body) {
    unsigned char fingerprint[20];
    const unsigned char frame[3] = {0x99, static_cast<unsigned char>(body.Size() >> 8),
                                    static_cast<unsigned char>(body.Size() & 0xFF)};
    const EvpMdCtxHandle sha1(EVP_MD_CTX_new());
    unsigned int length = 0;
    if (!sha1 || EVP_DigestInit_ex(sha1.get(), EVP_sha1(), nullptr) != 1 ||
        EVP_DigestUpdate(sha1.get(), frame, sizeof frame) != 1 ||
        EVP_DigestUpdate(sha1.get(), body.Here(), static_cast<size_t>(body.Size())) != 1 ||
        EVP_DigestFinal_ex(sha1.get(), fingerprint, &length) != 1) {
        throw InternalErrorException("SHA-1 of a public key failed");
    }
    return Base::DumpBufferToString(fingerprint + 12, 8, true);
}

std::vector<unsigned char> KeyFingerprint(const ByteCursor& body) {
    const bool v6 = body.Size() > 0 && body.Here()[0] == 6;
    std::vector<unsigned char> fingerprint(EVP_MAX_MD_SIZE);
    const EvpMdCtxHandle context(EVP_MD_CTX_new());
    unsigned int length = 0;
    if (!context || EVP_DigestInit_ex(context.get(), v6 ? EVP_sha256() : EVP_sha1(), nullptr) != 1) {
        throw InternalErrorException("The fingerprint of a public key could not be computed");
    }
    HashKeyPacket(context.get(), body);
    if (EVP_DigestFinal_ex(context.get(), fingerprint.data(), &length) != 1) {
        throw InternalErrorException("The fingerprint of a public key could not be computed");
    }
    fingerprint.resize(length);
    return fingerprint;
}

std::vector<unsigned char> DecodeBase64(const std::string& text, const char* failure) {
    // OpenSSL's decoder stops at a '-' (the end of a PEM block); rpm's refuses any character outside
    // the alphabet, as does this one.
    if (text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \t\r\n") !=
        std::string::npos) {
        throw DataFormatException(failure);
    }
    std::vector<unsigned char> bytes(text.size() / 4 * 3 + 3);
    const std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> context(EVP_ENCODE_CTX_new(),
                                                                                  &EVP_ENCODE_CTX_free);
    int length = 0, last = 0;
    if (!context) throw InternalErrorException("No Base64 decoder could be made");
    EVP_DecodeInit(context.get());
    if (EVP_DecodeUpdate(context.get(), bytes.data(), &length, reinterpret_cast<const unsigned char*>(text.data()),
                         static_cast<int>(text.size())) < 0 ||
        EVP_DecodeFinal(context.get(), bytes.data() + length, &last) != 1) {
        throw DataFormatException(failure);
    }
    bytes.resize(static_cast<size_t>(length) + static_cast<size_t>(last));
    return bytes;
}
