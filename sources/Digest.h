#pragma once
// Digests over OpenSSL's EVP interface, and the catalogue that maps the module's hash algorithms to
// OpenSSL digests, OpenSSL object numbers (NIDs), object identifiers and names.

#include <openssl/evp.h>

#include <string>

#include "DigestBase.h"
#include "OpenSslHandles.h"
#include "soapWrap.h"

// DER content octets of the digest algorithms' object identifiers (no tag, no length byte).
extern const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA1[5];
extern const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_MD5[8];
extern const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA224[9];
extern const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA256[9];
extern const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA384[9];
extern const unsigned char ASN_OBJECT_IDENTIFIER_BYTES_SHA512[9];

class Digest : public DigestBase {
public:
    // Throws DigestException when the type has no digest or OpenSSL cannot set one up.
    explicit Digest(soapWrap::HashAlgorithm type);
    ~Digest() override;

    DigestBase* Copy() const override;
    int Update(const void* data, unsigned int length) override;
    unsigned int GetLength() const override;
    unsigned int GetValue(unsigned char* out) override;
    unsigned char* GetValue() override;
    // Restarts the hash; a value cached by GetValue() stays cached.
    void Reinitialize();

    using DigestBase::GetAlgorithmIdentifier;
    using DigestBase::GetTypeName;

    // The catalogue. GetMd and GetLength accept Sha1..Sha512 (DigestException otherwise); GetNID
    // throws NotSupportedFileFormatException; GetTypeName also names PeHeaderHash.
    static const EVP_MD* GetMd(soapWrap::HashAlgorithm type);
    static unsigned int GetLength(soapWrap::HashAlgorithm type);
    static int GetNID(soapWrap::HashAlgorithm type);
    static std::string GetTypeName(soapWrap::HashAlgorithm type);
    static const char* GetAlgorithmIdentifier(soapWrap::HashAlgorithm type);
    // Accepts the plain digest NIDs and OpenSSL's RSA-with-digest NIDs.
    static soapWrap::HashAlgorithm GetTypeByNid(unsigned int nid);
    // oid holds the content octets of an object identifier.
    static soapWrap::HashAlgorithm GetTypeByOid(const soapWrap::Binary* oid);

private:
    const EVP_MD* md_;
    EvpMdCtxHandle ctx_;
};
