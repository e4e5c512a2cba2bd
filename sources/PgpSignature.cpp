#include "PgpSignature.h"

#include <cstring>
#include <memory>
#include <stdexcept>

#include "CertificateManager.h"
#include "Digest.h"
#include "Exceptions.h"
#include "PgpCertificate.h"

namespace {

void PutUInt16(unsigned char* p, unsigned int value) {
    p[0] = static_cast<unsigned char>(value >> 8);
    p[1] = static_cast<unsigned char>(value);
}

}  // namespace

PgpSignature::PgpSignature(PgpSignatureData* data) : data_(data) {}

PgpSignature::~PgpSignature() {}

soapWrap::HashAlgorithm PgpSignature::GetHashAlgorithm(int pgpHashId) {
    switch (pgpHashId) {
        case PgpHashMd5: return soapWrap::Md5;
        case PgpHashSha1: return soapWrap::Sha1;
        case PgpHashSha256: return soapWrap::Sha256;
        case PgpHashSha384: return soapWrap::Sha384;
        case PgpHashSha512: return soapWrap::Sha512;
        case PgpHashSha224: return soapWrap::Sha224;
        default: throw NotSupportedException("Not supported hash algorithm in PGP signature");
    }
}

PgpHashAlgorithm PgpSignature::GetPgpHashAlgorithm(soapWrap::HashAlgorithm algorithm) {
    static const PgpHashAlgorithm kIds[] = {PgpHashSha1,   PgpHashMd5,    PgpHashSha224,
                                            PgpHashSha256, PgpHashSha384, PgpHashSha512};
    if (algorithm < soapWrap::Sha1 || algorithm > soapWrap::Sha512) {
        throw NotSupportedException("Not supported hash algorithm in PGP signature");
    }
    return kIds[algorithm];
}

soapWrap::HashAlgorithm PgpSignature::GetHashAlgorithm() {
    return GetHashAlgorithm(data_->GetHashAlgorithm());
}

DigestBase* PgpSignature::UpdateHash() const {
    const DigestBase* signed_ = GetDigest(0);
    if (signed_ == nullptr) {
        throw ArgumentException("PgpSignature has no digest of the signed data");
    }
    std::unique_ptr<DigestBase> digest(signed_->Copy());
    const uint16_t hashedLength = data_->GetHashedLength();
    if (data_->GetVersion() == 3) {
        digest->Update(data_->GetHashedData(), hashedLength);
    } else if (data_->GetVersion() == 4) {
        const unsigned char fields[6] = {data_->GetVersion(),
                                         data_->GetSignatureType(),
                                         data_->GetPublicKeyAlgorithm(),
                                         data_->GetHashAlgorithm(),
                                         static_cast<unsigned char>(hashedLength >> 8),
                                         static_cast<unsigned char>(hashedLength)};
        digest->Update(fields, sizeof fields);
        digest->Update(data_->GetHashedData(), hashedLength);
        // RFC 4880, 5.2.4: 0x04 0xFF and the length of the hashed part, as 32 bits.
        const uint32_t hashedPart = hashedLength + 6u;
        const unsigned char trailer[6] = {0x04,
                                          0xFF,
                                          static_cast<unsigned char>(hashedPart >> 24),
                                          static_cast<unsigned char>(hashedPart >> 16),
                                          static_cast<unsigned char>(hashedPart >> 8),
                                          static_cast<unsigned char>(hashedPart)};
        digest->Update(trailer, sizeof trailer);
    }
    return digest.release();
}

int PgpSignature::Verify(std::string& message) const {
    std::unique_ptr<DigestBase> digest(UpdateHash());
    const unsigned int length = digest->GetLength();
    const unsigned char* value = digest->GetValue();

    PgpCertificate* certificate = dynamic_cast<PgpCertificate*>(CertificateManager::Instance()->LoadPgpPublicKey());
    if (certificate == nullptr) {
        throw DataFormatException("PGP public key is not found");
    }
    if (std::memcmp(data_->GetLeft16(), value, 2) != 0) {
        message += " Digest does not correspond to the signature";
        return ResultInvalidSignature;
    }
    // The key's identity is the issuer of the key block's (last) signature packet.
    const PgpSignatureData* keySignature = certificate->GetMessage()->GetSignatureData();
    if (keySignature == nullptr) {
        message += " The PGP certificate holds no signature packet that names its key";
        return ResultInvalidSignature;
    }
    if (std::memcmp(data_->GetIssuerId(), keySignature->GetIssuerId(), 8) != 0) {
        message += " The file was signed with a different PGP certificate";
        return ResultInvalidSignature;
    }
    const MPI* signature = data_->GetSignatureValue();
    if (certificate->GetCsp()->Verify(Digest::GetNID(digest->GetType()), value, length, signature->GetValue(),
                                      static_cast<unsigned int>(signature->GetLengthInBytes())) != 0) {
        return ResultSigned;
    }
    // The reason would be built from the RSA service's error text, which a PKCS#1 check never
    // sets: building a string from that null pointer is what ends this check. Kept as that very
    // logic error, raised explicitly.
    throw std::logic_error("basic_string::_S_construct NULL not valid");
}

unsigned int PgpSignature::GetSize(PgpSignatureVersion version, unsigned int keyBits) {
    switch (version) {
        case PgpSignatureVersion3: return keyBits / 8 + 24;
        case PgpSignatureVersion4: return keyBits / 8 + 31;
        default: throw NotImplementedException("Cannot get size of PGP signature.");
    }
}

unsigned int PgpSignature::GetSize() const {
    switch (data_->GetVersion()) {
        case 3: return data_->GetSignatureSize() / 8u + 24;
        case 4: return data_->GetSignatureSize() / 8u + data_->GetHashedLength() + data_->GetUnhashedLength() + 15;
        default: return data_->GetVersion();
    }
}

// The body of a version 3 packet: version, hashed length 5, type and time, issuer, algorithms, the
// left 16 bits, the value's bit count and the value (octets 3 to 23 of the packet, then the value).
void PgpSignature::WriteVersion3Body(unsigned char* p, const unsigned char* left16, unsigned int keyBits,
                                     const unsigned char* value) const {
    p[0] = 3;
    p[1] = 5;
    std::memcpy(p + 2, data_->GetHashedData(), 5);
    std::memcpy(p + 7, data_->GetIssuerId(), 8);
    p[15] = data_->GetPublicKeyAlgorithm();
    p[16] = data_->GetHashAlgorithm();
    std::memcpy(p + 17, left16, 2);
    PutUInt16(p + 19, keyBits);
    std::memcpy(p + 21, value, keyBits / 8);
}

// The body of a version 4 packet: version, type, algorithms, the hashed area (at most 6 octets), an
// unhashed area holding the issuer subpacket, the left 16 bits, the bit count and the value.
void PgpSignature::WriteVersion4Body(unsigned char* p, const unsigned char* left16, unsigned int keyBits,
                                     const unsigned char* value) const {
    p[0] = 4;
    p[1] = data_->GetSignatureType();
    p[2] = data_->GetPublicKeyAlgorithm();
    p[3] = data_->GetHashAlgorithm();
    PutUInt16(p + 4, data_->GetHashedLength());
    std::memcpy(p + 6, data_->GetHashedData(), std::min<unsigned int>(data_->GetHashedLength(), 6));
    PutUInt16(p + 12, data_->GetUnhashedLength());
    p[14] = 9;
    p[15] = 16;
    std::memcpy(p + 16, data_->GetIssuerId(), 8);
    std::memcpy(p + 24, left16, 2);
    PutUInt16(p + 26, keyBits);
    std::memcpy(p + 28, value, keyBits / 8);
}

int PgpSignature::Sign(soapWrap::Binary* out, const soapWrap::Binary* in, std::string& /*message*/) {
    DigestBase* digest = GetDigest(0);
    if (digest == nullptr) {
        throw ArgumentException("PgpSignature has no digest of the signed data");
    }
    const unsigned char* left16 = digest->GetValue();
    const unsigned int size = GetSize();
    const unsigned int keyBits = data_->GetSignatureSize();
    const unsigned int valueLength = keyBits / 8;
    const unsigned int version = data_->GetVersion();
    if (version != 3 && version != 4) {
        return 1;
    }
    // The layouts below place the value at offset 24 (version 3) or 31 (version 4).
    const unsigned int end = (version == 3 ? 24 : 31) + valueLength;
    if (end > size || (out->data != nullptr && out->length < size) || in->length < valueLength) {
        throw ArgumentException("PgpSignature::Sign: the buffers do not fit a signature packet of " +
                                std::to_string(size) + " bytes");
    }
    if (out->data == nullptr) {
        out->data = new unsigned char[size]();
        out->length = size;
    }
    unsigned char* p = out->data;
    p[0] = 0x89;  // old format, tag 2, two-octet length
    PutUInt16(p + 1, size - 3);
    if (version == 3) {
        WriteVersion3Body(p + 3, left16, keyBits, in->data);
    } else {
        WriteVersion4Body(p + 3, left16, keyBits, in->data);
    }
    return 1;
}

unsigned int PgpSignature::GetSignedSize() {
    throw NotImplementedException("PgpSignature::GetSignedSize() is not implemented");
}
