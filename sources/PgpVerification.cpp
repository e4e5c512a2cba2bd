#include "PgpVerification.h"

#include <cstring>
#include <stdexcept>

#include "Base.h"
#include "ByteCursor.h"
#include "Digest.h"
#include "Exceptions.h"
#include "OpenPgpAlgorithms.h"
#include "OpenPgpPackets.h"
#include "OpenPgpTrailer.h"
#include "ProcessingResult.h"

namespace {

// Subpacket types whose meaning the check knows (RFC 4880, 5.2.3.1): the signature's creation time
// and its issuer. Any other type marked critical (bit 0x80 of the type octet) makes the signature
// invalid, as the format requires of a reader that does not understand it.
bool IsKnownSubpacket(unsigned int type) {
    return type == 2 || type == 16;
}

// The reason a version 4 signature's hashed subpackets make it invalid; empty when they do not.
std::string HashedAreaFault(const PgpSignatureData& signature) {
    const ByteCursor area(signature.GetHashedData(), signature.GetHashedLength(), "OpenPGP hashed subpackets");
    std::string fault;
    try {
        ForEachSubpacket(area, [&fault](uint8_t type, ByteCursor) {
            if ((type & 0x80) != 0 && !IsKnownSubpacket(type & 0x7Fu)) {
                fault =
                    "it holds a critical subpacket of type " + std::to_string(type & 0x7F) + " that is not understood";
            }
            return fault.empty();
        });
    } catch (const DataFormatException&) {
        return "its hashed subpackets are cut short";
    }
    return fault;
}

}  // namespace

soapWrap::HashAlgorithm HashAlgorithmOf(int pgpHashId) {
    const OpenPgpHashRow* row = pgpHashId < 0 ? nullptr : FindOpenPgpHash(static_cast<unsigned int>(pgpHashId));
    if (row == nullptr || !row->classic || row->algorithm < 0) {
        throw NotSupportedException("Not supported hash algorithm in PGP signature");
    }
    return static_cast<soapWrap::HashAlgorithm>(row->algorithm);
}

std::unique_ptr<DigestBase> FinishSignatureHash(const PgpSignatureData& signature, const DigestBase& signedData) {
    std::unique_ptr<DigestBase> digest(signedData.Copy());
    const uint16_t hashedLength = signature.GetHashedLength();
    if (signature.GetVersion() == 3) {
        digest->Update(signature.GetHashedData(), hashedLength);
    } else if (signature.GetVersion() == 4) {
        const unsigned char fields[6] = {signature.GetVersion(),
                                         signature.GetSignatureType(),
                                         signature.GetPublicKeyAlgorithm(),
                                         signature.GetHashAlgorithm(),
                                         static_cast<unsigned char>(hashedLength >> 8),
                                         static_cast<unsigned char>(hashedLength)};
        digest->Update(fields, sizeof fields);
        digest->Update(signature.GetHashedData(), hashedLength);
        const auto trailer = OpenPgpV4Trailer(hashedLength + 6u);
        digest->Update(trailer.data(), static_cast<unsigned int>(trailer.size()));
    }
    return digest;
}

int CheckPgpSignature(const PgpSignatureData& signature, KeySource& keys, const DigestBase* signedData,
                      std::string& message) {
    if (signedData == nullptr) {
        throw ArgumentException("PgpSignature has no digest of the signed data");
    }
    const std::unique_ptr<DigestBase> digest = FinishSignatureHash(signature, *signedData);
    const unsigned int length = digest->GetLength();
    const unsigned char* value = digest->GetValue();

    const PgpKey& key = keys.Key();
    if (signature.GetVersion() == 4) {
        const std::string fault = HashedAreaFault(signature);
        if (!fault.empty()) {
            message += " The signature is not valid: " + fault;
            return ResultInvalidSignature;
        }
    }
    if (std::memcmp(signature.GetLeft16(), value, 2) != 0) {
        message += " Digest does not correspond to the signature";
        return ResultInvalidSignature;
    }
    // The key's identity is the issuer of the key block's (last) signature packet.
    const std::string& keyId = key.Public().keyId;
    if (keyId.empty()) {
        message += " The PGP certificate holds no signature packet that names its key";
        return ResultInvalidSignature;
    }
    if (Base::DumpBufferToString(signature.GetIssuerId(), 8, true) != keyId) {
        message += " The file was signed with a different PGP certificate";
        return ResultInvalidSignature;
    }
    const MPI* signatureValue = signature.GetSignatureValue();
    if (key.Csp().Verify(Digest::GetNID(digest->GetType()), value, length, signatureValue->GetValue(),
                         static_cast<unsigned int>(signatureValue->GetLengthInBytes())) != 0) {
        return ResultSigned;
    }
    // The reason would be built from the RSA service's error text, which a PKCS#1 check never
    // sets: building a string from that null pointer is what ends this check. Kept as that very
    // logic error, raised explicitly.
    throw std::logic_error("basic_string::_S_construct NULL not valid");
}
