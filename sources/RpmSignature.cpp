#include "RpmSignature.h"

#include <arpa/inet.h>

#include <cstring>

#include "CertificateManager.h"
#include "Exceptions.h"

namespace {

// The digest in slot of signature, copied; null when the slot is empty.
std::unique_ptr<DigestBase> CopyOf(const DigestBase* digest) {
    return digest != nullptr ? std::unique_ptr<DigestBase>(digest->Copy()) : nullptr;
}

}  // namespace

RpmSignature::RpmSignature(const std::shared_ptr<char[]>& entries, const HeaderStructureHeader& header)
    : header_(entries, header), payloadLength_(0) {
    WrapParsedSignatures();
}

RpmSignature::RpmSignature(SignatureHeaderData data) : header_(std::move(data)), payloadLength_(0) {
    WrapParsedSignatures();
}

RpmSignature::RpmSignature(void* entries, const HeaderStructureHeader& header)
    : header_(entries, header), payloadLength_(0) {
    WrapParsedSignatures();
}

RpmSignature::~RpmSignature() {
    CleanUpPgpSignatures();
}

void RpmSignature::CleanUpPgpSignatures() {
    headerSignature_.reset();
    packageSignatures_.clear();
}

// The signing path makes fresh signatures here; this module makes none.
void RpmSignature::CreatePgpSignatures() {}

void RpmSignature::WrapParsedSignatures() {
    if (header_.HeaderSignature() != nullptr) {
        headerSignature_ = std::make_unique<PgpSignature>(const_cast<PgpSignatureData*>(header_.HeaderSignature()));
    }
    packageSignatures_.reserve(header_.PackageSignatures().size());
    for (const PgpSignatureData* data : header_.PackageSignatures()) {
        packageSignatures_.push_back(std::make_unique<PgpSignature>(const_cast<PgpSignatureData*>(data)));
    }
}

int RpmSignature::Sign(soapWrap::Binary*, const soapWrap::Binary*, std::string&) {
    return 1;
}

soapWrap::HashAlgorithm RpmSignature::GetHashAlgorithm() {
    if (headerSignature_ == nullptr) {
        throw NotDefinedException("There are no PGP signatures.");
    }
    return headerSignature_->GetHashAlgorithm();
}

// The signing path: fresh signatures get the hashes of the package. CreatePgpSignatures makes none,
// so this ends at the missing header signature.
void RpmSignature::UpdateDigests() {
    CleanUpPgpSignatures();
    CreatePgpSignatures();
    if (headerSignature_ == nullptr || packageSignatures_.empty()) {
        throw NotDefinedException("There are no PGP signatures.");
    }
    struct Slots {
        PgpSignature* signature;
        int hash, extra;
    };
    for (const Slots& slots : {Slots{headerSignature_.get(), 1, 2}, Slots{packageSignatures_.front().get(), 4, 5}}) {
        const int stale = GetDigest(slots.extra) != nullptr ? slots.extra : slots.hash;
        delete GetDigest(stale);
        SetDigest(stale, nullptr);
        DigestBase* hash = slots.signature->UpdateHash();
        slots.signature->SetDigest(0, hash->Copy());
        SetDigest(slots.hash, hash);
        SetDigest(slots.extra, nullptr);
    }
}

void RpmSignature::VerifyPgpSignature(PgpSignature* pgp, DigestBase* digest, int& result, std::string& message,
                                      std::string* reason) const {
    // Lent once: lending the same digest again would hand it to the signature's own store.
    if (pgp->GetDigest(0) != digest) {
        pgp->SetDigest(0, digest);
    }
    ManagerKey key;
    result = SignatureHeader::CheckSignature(*pgp->GetSignatureData(), key, digest, message, reason);
}

int RpmSignature::Verify(std::string& message) const {
    return Evaluate(message, nullptr);
}

// The parsed header's evaluation, over copies of the digests in the store and the key the
// certificate manager loads.
int RpmSignature::Evaluate(std::string& message, std::vector<RpmCheck>* checks) const {
    if (GetDigest(0) == nullptr || GetDigest(3) == nullptr) {
        throw NotDefinedException("The package digests have not been computed.");
    }
    PackageDigests digests;
    digests.headerSha1 = CopyOf(GetDigest(0));
    digests.headerSigned = CopyOf(GetDigest(1));
    digests.packageMd5 = CopyOf(GetDigest(3));
    digests.packageSigned = CopyOf(GetDigest(4));
    digests.payloadLength = payloadLength_;
    ManagerKey key;
    return header_.Evaluate(key, digests, message, checks);
}

unsigned int RpmSignature::BoundaryAlign(RpmDataType type, unsigned int& offset) {
    unsigned int alignment = 0;
    switch (type) {
        case RpmInt16: alignment = 2; break;
        case RpmInt32: alignment = 4; break;
        case RpmInt64: alignment = 8; break;
        default: return 0;
    }
    const unsigned int padding = (alignment - offset % alignment) % alignment;
    offset += padding;
    return padding;
}

unsigned int RpmSignature::GetEntryStorageSize(RpmDataType type, unsigned char* data, unsigned int count) {
    switch (type) {
        case RpmInt32: return 4;
        case RpmInt64: return 8;
        case RpmString: return static_cast<unsigned int>(std::strlen(reinterpret_cast<const char*>(data))) + 1;
        case RpmBinary: return count;
        default:
            throw NotImplementedException("GetEntryStorageSize() is not implemented for data type = " +
                                          std::to_string(static_cast<uint32_t>(type)));
    }
}

void RpmSignature::CreateHeaderEntry(SignatureEntry* entry, unsigned int tag, unsigned int type, unsigned int offset,
                                     unsigned int count) {
    entry->tag = tag;
    entry->type = type << 24;
    entry->offset = htonl(offset);
    entry->count = htonl(count);
}

void RpmSignature::CreateStorage(RpmDataType type, unsigned char* dest, unsigned char* src, unsigned int& size) {
    switch (type) {
        case RpmString:
            size = static_cast<unsigned int>(std::strlen(reinterpret_cast<const char*>(src)));
            std::memcpy(dest, src, size);
            dest[size] = '\0';
            ++size;
            return;
        case RpmInt32: size = 4; break;
        case RpmInt64: size = 8; break;
        default: break;
    }
    std::memcpy(dest, src, size);
}
