#include "Digest.h"

#include <openssl/obj_mac.h>

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "Exceptions.h"

const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA1[5] = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_MD5[8] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};
const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA224[9] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x04};
const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA256[9] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA384[9] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02};
const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA512[9] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03};

namespace {

struct Entry {
    const char* name;
    const EVP_MD* (*md)();
    int nid;
    unsigned int length;
    const char* identifier;
};

// Indexed by soapWrap::HashAlgorithm; PeHeaderHash (6) has a name only.
const Entry kCatalogue[] = {
    {"SHA1", EVP_sha1, NID_sha1, 20, "1.3.14.3.2.26"},
    {"MD5", EVP_md5, NID_md5, 16, "1.2.840.113549.2.5"},
    {"SHA224", EVP_sha224, NID_sha224, 28, "2.16.840.1.101.3.4.2.4"},
    {"SHA256", EVP_sha256, NID_sha256, 32, "2.16.840.1.101.3.4.2.1"},
    {"SHA384", EVP_sha384, NID_sha384, 48, "2.16.840.1.101.3.4.2.2"},
    {"SHA512", EVP_sha512, NID_sha512, 64, "2.16.840.1.101.3.4.2.3"},
};
static_assert(NID_sha1 == 64 && NID_md5 == 4 && NID_sha224 == 675 && NID_sha256 == 672 && NID_sha384 == 673 &&
                  NID_sha512 == 674,
              "OpenSSL's digest NIDs");

bool IsComputable(soapWrap::HashAlgorithm type) {
    return type >= soapWrap::Sha1 && type <= soapWrap::Sha512;
}

const Entry& Lookup(soapWrap::HashAlgorithm type) {
    if (!IsComputable(type)) {
        throw DigestException("Undefined type of digest");
    }
    return kCatalogue[type];
}

}  // namespace

// The base's catalogue look-ups: the catalogue lives here, with the digests it describes.
std::string DigestBase::GetTypeName() const {
    return Digest::GetTypeName(type_);
}

const char* DigestBase::GetAlgorithmIdentifier() const {
    return Digest::GetAlgorithmIdentifier(type_);
}

Digest::Digest(soapWrap::HashAlgorithm type) : DigestBase(type), md_(GetMd(type)) {
    const std::string name = GetTypeName();
    if (md_ == nullptr) {
        throw DigestException("Cannot create " + name + " digest type");
    }
    ctx_.reset(EVP_MD_CTX_new());
    if (ctx_ == nullptr) {
        throw DigestException("Cannot create " + name + " digest context");
    }
    if (EVP_DigestInit_ex(ctx_.get(), md_, nullptr) != 1) {
        throw DigestException("Cannot initialize " + name + " digest context");
    }
}

Digest::~Digest() = default;

DigestBase* Digest::Copy() const {
    std::unique_ptr<Digest> copy = std::make_unique<Digest>(type_);
    if (EVP_MD_CTX_copy_ex(copy->ctx_.get(), ctx_.get()) != 1) {
        throw DigestException("Cannot copy " + GetTypeName() + " digest state");
    }
    return copy.release();
}

int Digest::Update(const void* data, unsigned int length) {
    if (ctx_ == nullptr) {
        throw DigestException("Wrong digest context");
    }
    if (EVP_DigestUpdate(ctx_.get(), data, length) != 1) {
        throw DigestException("Error while " + GetTypeName() + " digest update");
    }
    return 1;
}

unsigned int Digest::GetLength() const {
    return GetLength(type_);
}

unsigned int Digest::GetValue(unsigned char* out) {
    if (ctx_ == nullptr) {
        throw DigestException("Using digest within not initialized context");
    }
    unsigned int written = 0;
    if (EVP_DigestFinal_ex(ctx_.get(), out, &written) != 1) {
        throw DigestException("Cannot get value of " + GetTypeName() + " digest");
    }
    if (written != GetLength()) {
        throw DigestException("Wrong length of the digest value. Expected: " + std::to_string(GetLength()) +
                              ", got: " + std::to_string(written));
    }
    return written;
}

unsigned char* Digest::GetValue() {
    if (value_.empty()) {
        std::vector<unsigned char> value(GetLength());
        GetValue(value.data());
        value_ = std::move(value);
    }
    return value_.data();
}

void Digest::Reinitialize() {
    if (EVP_DigestInit_ex(ctx_.get(), md_, nullptr) != 1) {
        throw DigestException("Cannot initialize " + GetTypeName() + " digest context");
    }
}

const EVP_MD* Digest::GetMd(soapWrap::HashAlgorithm type) {
    return Lookup(type).md();
}

unsigned int Digest::GetLength(soapWrap::HashAlgorithm type) {
    return Lookup(type).length;
}

int Digest::GetNID(soapWrap::HashAlgorithm type) {
    if (!IsComputable(type)) {
        throw NotSupportedFileFormatException(
            "The signature is built on a digest calculated with not supported hash algorithm");
    }
    return kCatalogue[type].nid;
}

std::string Digest::GetTypeName(soapWrap::HashAlgorithm type) {
    if (type == soapWrap::PeHeaderHash) {
        return "PE Header Hash";
    }
    return Lookup(type).name;
}

const char* Digest::GetAlgorithmIdentifier(soapWrap::HashAlgorithm type) {
    if (!IsComputable(type)) {
        throw Pkcs7InnerException("unknown hash algorithm");
    }
    return kCatalogue[type].identifier;
}

soapWrap::HashAlgorithm Digest::GetTypeByNid(unsigned int nid) {
    switch (nid) {
        case NID_sha1:
        case NID_sha1WithRSAEncryption: return soapWrap::Sha1;
        case NID_md5:
        case NID_md5WithRSAEncryption: return soapWrap::Md5;
        case NID_sha256WithRSAEncryption:
        case NID_sha256: return soapWrap::Sha256;
        case NID_sha384WithRSAEncryption:
        case NID_sha384: return soapWrap::Sha384;
        case NID_sha512WithRSAEncryption:
        case NID_sha512: return soapWrap::Sha512;
        case NID_sha224WithRSAEncryption:
        case NID_sha224: return soapWrap::Sha224;
        default: throw NotSupportedFileFormatException("Unknown object Numerical Identifier (NID) for hash algorithm");
    }
}

soapWrap::HashAlgorithm Digest::GetTypeByOid(const soapWrap::Binary* oid) {
    struct Candidate {
        const unsigned char* bytes;
        unsigned int length;
        soapWrap::HashAlgorithm type;
    };
    // Compared in this order; the length picks the candidates.
    static const Candidate kCandidates[] = {
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA1, 5, soapWrap::Sha1},
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA256, 9, soapWrap::Sha256},
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA512, 9, soapWrap::Sha512},
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA384, 9, soapWrap::Sha384},
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA224, 9, soapWrap::Sha224},
        {ASN_OBJECT_IDENTIFIER_BYTES_MD5, 8, soapWrap::Md5},
    };
    if (oid != nullptr && oid->data != nullptr) {
        for (const Candidate& candidate : kCandidates) {
            if (oid->length == candidate.length && std::memcmp(oid->data, candidate.bytes, candidate.length) == 0) {
                return candidate.type;
            }
        }
    }
    throw Pkcs7InnerException("Unknown object identifier for hash algorithm");
}
