#pragma once
// OpenPGP packets in the old packet format (RFC 4880, 4.2): the packet header rules, the version 4
// RSA public-key packet (tag 6) and the signature packet (tag 2) of versions 3 and 4.
//
// Constructors take the packet's first octet and `remaining`, the number of message bytes from
// there to the end of the message. Every field is checked against those bytes before it is read;
// a packet that runs past them is a DataFormatException.

#include <cstdint>
#include <memory>
#include <vector>

#include "Base.h"
#include "MPI.h"

class ByteCursor;

enum PgpSignatureVersion : int32_t {
    PgpSignatureVersion3 = 3,
    PgpSignatureVersion4 = 4,
};

// The signature type octet (RFC 4880, 5.2.1).
enum PgpSignatureType : int32_t {
    PgpSignatureBinaryDocument = 0x00,
    PgpSignatureTextDocument = 0x01,
    PgpSignatureStandalone = 0x02,
    PgpSignatureGenericCertification = 0x10,
    PgpSignaturePositiveCertification = 0x13,
    PgpSignatureSubkeyBinding = 0x18,
    PgpSignaturePrimaryKeyBinding = 0x19,
    PgpSignatureDirectKey = 0x1F,
};

// OpenPGP hash ids (RFC 4880, 9.4); 3 to 7 exist but are refused by the module.
enum PgpHashAlgorithm : int32_t {
    PgpHashMd5 = 1,
    PgpHashSha1 = 2,
    PgpHashRipemd160 = 3,
    PgpHashSha256 = 8,
    PgpHashSha384 = 9,
    PgpHashSha512 = 10,
    PgpHashSha224 = 11,
    PgpHashSha3_256 = 12,
    PgpHashSha3_512 = 14,
};

class PgpPacket : public Base {
public:
    PgpPacket();
    ~PgpPacket() override;

    // The whole packet's length (header included); stores the header length (2, 3 or 6).
    // Reads up to 6 octets without a bound: callers that have one use the overload below.
    static uint32_t ParseLengthTag(const char* packet, unsigned int& headerLength);
    // The same, refusing a header or a packet that runs past the remaining bytes.
    static uint32_t ParseLengthTag(const char* packet, unsigned int remaining, unsigned int& headerLength);
    // Passes when (algorithm & 3) != 0: the RSA ids 1, 2 and 3 (and, by the same bit test, 17).
    static void CheckPublicKeyAlgorithm(char algorithm);

    uint32_t GetLength() const { return length_; }

protected:
    uint32_t length_;
};

// A version 4 public-key packet: the RSA modulus and public exponent.
class PgpPublicKey : public PgpPacket {
public:
    PgpPublicKey(const char* packet, unsigned int remaining);
    ~PgpPublicKey() override;

    const MPI* GetModulus() const { return modulus_.get(); }
    const MPI* GetExponent() const { return exponent_.get(); }
    uint8_t GetAlgorithm() const { return algorithm_; }
    // The packet's body as it stands, which the key's fingerprint is taken over.
    const std::vector<unsigned char>& GetBody() const { return body_; }

private:
    uint8_t algorithm_ = 0;
    std::vector<unsigned char> body_;
    std::unique_ptr<MPI> exponent_;
    std::unique_ptr<MPI> modulus_;
};

// A signature packet, parsed from a message or built to be written.
class PgpSignatureData : public PgpPacket {
public:
    PgpSignatureData(const char* packet, unsigned int remaining);
    PgpSignatureData(PgpSignatureVersion version, const char* issuerId, unsigned short keyBits, PgpSignatureType type,
                     PgpHashAlgorithm hash);
    ~PgpSignatureData() override;

    const MPI* GetSignatureValue() const { return signature_.get(); }
    const unsigned char* GetIssuerId() const { return issuer_; }
    uint16_t GetHashedLength() const { return hashedLength_; }
    const unsigned char* GetHashedData() const { return hashed_.get(); }
    uint16_t GetUnhashedLength() const { return unhashedLength_; }
    uint16_t GetSignatureSize() const { return signatureSize_; }
    uint8_t GetVersion() const { return version_; }
    uint8_t GetSignatureType() const { return type_; }
    uint8_t GetPublicKeyAlgorithm() const { return publicKeyAlgorithm_; }
    uint8_t GetHashAlgorithm() const { return hashAlgorithm_; }
    const unsigned char* GetLeft16() const { return left16_; }

private:
    // body is at the version octet; remaining counts from the packet's first octet.
    void ParseVersion3(ByteCursor& body, unsigned int remaining);
    void ParseVersion4(ByteCursor& body, unsigned int remaining);
    // The steps of a version 4 packet before its value.
    void ReadHashedFields(ByteCursor& body);
    void ReadIssuer(ByteCursor& body, uint16_t unhashedLength);
    void ReadValue(ByteCursor& body, uint16_t bound);

    std::unique_ptr<MPI> signature_;
    unsigned char issuer_[8];
    uint16_t hashedLength_;
    std::unique_ptr<unsigned char[]> hashed_;
    uint16_t unhashedLength_;
    uint16_t signatureSize_;
    uint8_t version_;
    uint8_t type_;
    uint8_t publicKeyAlgorithm_;
    uint8_t hashAlgorithm_;
    unsigned char left16_[2];
};
