#include "PgpMessage.h"

#include <cstring>

#include "Base64.h"
#include "ByteCursor.h"
#include "Exceptions.h"

namespace {

const char kBeginMarker[] = "-----BEGIN PGP PUBLIC KEY BLOCK-----";  // 36 characters
const char kEndMarker[] = "-----END PGP PUBLIC KEY BLOCK-----";      // 34 characters
const unsigned long long kBeginLength = sizeof kBeginMarker - 1;
const unsigned long long kEndLength = sizeof kEndMarker - 1;

bool IsLineBreak(char c) {
    return c == '\n' || c == '\r';
}

}  // namespace

PgpMessage::PgpMessage(const char* data, unsigned int length) {
    if (length > 0 && (static_cast<unsigned char>(data[0]) & 0x80) != 0) {
        ParsePackets(data, length);
        return;
    }
    char* body = nullptr;
    unsigned int bodyLength = 0;
    if (!SkipHeader(data, length, &body, bodyLength)) {
        throw DataFormatException("PGP public key is not found");
    }
    // The armor checksum is not verified: a corrupted body fails in the packets instead.
    unsigned int decodedLength = 0;
    std::unique_ptr<char[]> decoded(Base64::Decode(body, bodyLength, decodedLength));
    if (!decoded) {
        throw DataFormatException("base64 encoding of PGP public key is corrupted");
    }
    ParsePackets(decoded.get(), decodedLength);
}

PgpMessage::~PgpMessage() {}

void PgpMessage::ParsePackets(const char* data, unsigned int length) {
    if (length == 0) {
        throw DataFormatException("OpenPGP message holds no packets");
    }
    // Each packet is handed the bytes from its first octet to the end of the message; the packet
    // that reaches the end ends the walk.
    ByteCursor message(data, length, "OpenPGP message");
    for (;;) {
        const unsigned int remaining = static_cast<unsigned int>(message.Remaining());
        const unsigned int size = ParsePacket(reinterpret_cast<const char*>(message.Here()), remaining);
        if (size >= remaining) {
            break;
        }
        message.Skip(size);
    }
}

unsigned int PgpMessage::ParsePacket(const char* packet, unsigned int remaining) {
    const unsigned char tag = static_cast<unsigned char>(packet[0]);
    if ((tag & 0x40) != 0) {
        throw DataFormatException("New OpenPGP packet format is not supported");
    }
    switch ((tag & 0x3C) >> 2) {
        case 2: {
            signatureData_ = std::make_unique<PgpSignatureData>(packet, remaining);
            return signatureData_->GetLength();
        }
        case 6: {
            publicKey_ = std::make_unique<PgpPublicKey>(packet, remaining);
            return publicKey_->GetLength();
        }
        case 13:
        case 14: {
            unsigned int headerLength = 0;
            return PgpPacket::ParseLengthTag(packet, remaining, headerLength);
        }
        default: throw DataFormatException("Unsupported packet tag");
    }
}

bool PgpMessage::SkipHeader(const char* data, unsigned long long length, char** body, unsigned int& bodyLength) {
    if (length < 3) {
        return false;
    }
    const bool found = length >= kBeginLength && std::memcmp(data, kBeginMarker, kBeginLength) == 0;

    // The first empty line ends the armor headers. A line end is a CR or LF followed by another;
    // it makes an empty line when both are the same character, or when the position before was a
    // two-character line end too (CR LF CR LF).
    const char* end = data + length - 2;
    const char* start = nullptr;
    bool previousWasLineEnd = false;
    for (const char* p = data; p < end; ++p) {
        const bool lineEnd = IsLineBreak(p[0]) && IsLineBreak(p[1]);
        if (lineEnd && (p[0] == p[1] || previousWasLineEnd)) {
            start = p + 2;
            break;
        }
        previousWasLineEnd = lineEnd;
    }
    *body = const_cast<char*>(start != nullptr ? start : end);
    if (!found || start == nullptr || length < kEndLength + 2) {
        return false;
    }

    // The END marker, searched backwards from where it would end one character before the data's
    // end; then the "=" that opens the checksum line before it.
    const char* marker = nullptr;
    for (const char* p = data + length - 2 - (kEndLength - 1); p >= start; --p) {
        if (std::memcmp(p, kEndMarker, kEndLength) == 0) {
            marker = p;
            break;
        }
    }
    if (marker == nullptr) {
        return false;
    }
    for (const char* p = marker; p > start; --p) {
        if (*p == '=') {
            bodyLength = static_cast<unsigned int>(p - start - 1);  // less the line break before "="
            return true;
        }
    }
    return false;
}

bool PgpMessage::DeArmor(const char* data, unsigned long long length, char** body, unsigned int& bodyLength) {
    unsigned long long first = 0;
    while (first < length && !IsLineBreak(data[first])) ++first;
    for (int skipped = 0; skipped < 3 && first < length && IsLineBreak(data[first]); ++skipped) ++first;
    unsigned long long last = length;
    for (int skipped = 0; skipped < 2 && last > first && IsLineBreak(data[last - 1]); ++skipped) --last;
    while (last > first && !IsLineBreak(data[last - 1])) --last;  // the last line
    if (first >= last) {
        return false;
    }
    *body = const_cast<char*>(data + first);
    bodyLength = static_cast<unsigned int>(last - first);
    return true;
}
