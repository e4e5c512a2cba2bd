#pragma once
// An OpenPGP message: an armored public key block or a binary sequence of old-format packets,
// split into the packets the module needs. It keeps the last public-key packet (tag 6) and the last
// signature packet (tag 2); user IDs (13) and public subkeys (14) are skipped; other tags refused.

#include <memory>

#include "Base.h"
#include "PgpPacket.h"

class PgpMessage : public Base {
public:
    // Binary when octet 0 has its top bit set, armored otherwise. Throws DataFormatException.
    PgpMessage(const char* data, unsigned int length);
    ~PgpMessage() override;

    PgpMessage(const PgpMessage&) = delete;
    PgpMessage& operator=(const PgpMessage&) = delete;

    // Reads the packet at packet; returns the bytes it occupies.
    unsigned int ParsePacket(const char* packet, unsigned int remaining);

    // Finds the Base64 body of an armored public key block: the BEGIN marker must be the very first
    // bytes, the body starts after the first empty line (armor headers skipped) and ends before the
    // line break that precedes the "=" checksum line above the END marker.
    static bool SkipHeader(const char* data, unsigned long long length, char** body, unsigned int& bodyLength);
    // A simpler trimmer: the text between the first line (and up to 3 line breaks after it) and the
    // last line (after up to 2 trailing line breaks). Nothing in the module uses it.
    static bool DeArmor(const char* data, unsigned long long length, char** body, unsigned int& bodyLength);

    PgpPublicKey* GetPublicKey() const { return publicKey_.get(); }
    PgpSignatureData* GetSignatureData() const { return signatureData_.get(); }

private:
    void ParsePackets(const char* data, unsigned int length);

    // The last packet of each kind. A later packet replaces an earlier one, which nothing refers
    // to while the message is being read, so it is freed at once: a message of many packets costs
    // no more than one of each.
    std::unique_ptr<PgpPublicKey> publicKey_;
    std::unique_ptr<PgpSignatureData> signatureData_;
};
