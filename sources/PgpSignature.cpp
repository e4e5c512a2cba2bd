#include "PgpSignature.h"

#include <cstring>
#include <memory>
#include <stdexcept>

#include "CertificateManager.h"
#include "Digest.h"
#include "Exceptions.h"
#include "PgpCertificate.h"
#include "PgpVerification.h"

namespace {

void PutUInt16(unsigned char* p, unsigned int value) {
    p[0] = static_cast<unsigned char>(value >> 8);
    p[1] = static_cast<unsigned char>(value);
}

}  // namespace

PgpSignature::PgpSignature(PgpSignatureData* data) : data_(data) {}

PgpSignature::~PgpSignature() {}

soapWrap::HashAlgorithm PgpSignature::GetHashAlgorithm(int pgpHashId) {
    return HashAlgorithmOf(pgpHashId);
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
    return FinishSignatureHash(*data_, *signed_).release();
}

// The key comes from the certificate manager, which reads the key file again for each check.
int PgpSignature::Verify(std::string& message) const {
    ManagerKey key;
    return CheckPgpSignature(*data_, key, GetDigest(0), message);
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
