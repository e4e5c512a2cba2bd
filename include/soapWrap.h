#pragma once
// Types shared by the whole module: the plain byte buffer, the hash-algorithm catalogue and the
// kinds of key and certificate files.

#include <cstdint>

namespace soapWrap {

// A plain byte buffer. It has no behaviour: whoever hands one over says which side releases data.
struct Binary {
    unsigned char* data;
    uint32_t length;
};

// The hash algorithms known to the module. PeHeaderHash is a name only: nothing computes it.
enum HashAlgorithm : int32_t {
    Sha1 = 0,
    Md5 = 1,
    Sha224 = 2,
    Sha256 = 3,
    Sha384 = 4,
    Sha512 = 5,
    PeHeaderHash = 6,
};

// Kinds of key and certificate files. The module reads only PgpPublicKey (armored or binary
// OpenPGP public-key blocks); the others are rejected where a certificate is created.
enum CertificateFileFormat : int32_t {
    X509Der = 0,
    X509Pem = 1,
    PgpPublicKey = 2,
    Pkcs12 = 3,
};

}  // namespace soapWrap

static_assert(sizeof(soapWrap::HashAlgorithm) == 4, "HashAlgorithm is a 32-bit enumeration");
static_assert(sizeof(soapWrap::CertificateFileFormat) == 4, "CertificateFileFormat is a 32-bit enumeration");
