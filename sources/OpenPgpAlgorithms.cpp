#include "OpenPgpAlgorithms.h"

#include <openssl/evp.h>

#include <string>

namespace {

// Each row: name, OpenSSL digest, cost on 64-bit and 32-bit builds, id, the module's algorithm,
// taken for signatures by the current verification, known to the classic one. SHA-1 and SHA-256
// run on the SHA extensions of today's x86; SHA-512 takes 64-bit arithmetic,
// which a 32-bit build does in pairs of registers (bench/floor.c on 256 MiB: MD5 0.41-0.50 s,
// SHA-512 0.34 s on x86-64 and 0.73 s on i386, SHA-256 and SHA-1 0.17-0.18 s on both).
const OpenPgpHashRow kHashes[] = {
    {"MD5", EVP_md5, 1.0, 1.0, 1, soapWrap::Md5, false, true},
    {"SHA1", EVP_sha1, 0.4, 0.4, 2, soapWrap::Sha1, true, true},
    {"RIPEMD160", nullptr, 1.0, 1.0, 3, -1, false, true},
    {"SHA256", EVP_sha256, 0.4, 0.4, 8, soapWrap::Sha256, true, true},
    {"SHA384", EVP_sha384, 0.75, 1.75, 9, soapWrap::Sha384, true, true},
    {"SHA512", EVP_sha512, 0.75, 1.75, 10, soapWrap::Sha512, true, true},
    {"SHA224", EVP_sha224, 0.4, 0.4, 11, soapWrap::Sha224, true, true},
    {"SHA3-256", EVP_sha3_256, 1.5, 1.5, 12, -1, true, false},
    {"SHA3-512", EVP_sha3_512, 1.5, 1.5, 14, -1, true, false},
};

const OpenPgpKeyAlgorithmRow kKeyAlgorithms[] = {
    {"RSA", 1, true, true},         // encrypt or sign
    {"RSA", 2, true, true},         // encrypt only
    {"RSA", 3, true, true},         // sign only
    {"Elgamal", 16, false, false},  // encryption only
    {"DSA", 17, true, true},        //
    {"ECDH", 18, false, false},     // encryption only
    {"ECDSA", 19, false, true},     // NIST P-256, P-384, P-521
    {"EdDSA", 22, false, true},     // RFC 4880bis: Ed25519 (or Ed448) in a version 4 key
    {"X25519", 25, false, false},   // RFC 9580, encryption only
    {"X448", 26, false, false},     // RFC 9580, encryption only
    {"Ed25519", 27, false, true},   // RFC 9580
    {"Ed448", 28, false, true},     // RFC 9580
    // Post-quantum composites (the OpenPGP PQC drafts): named, never verified here, so not trusted.
    {"ML-DSA-65+Ed25519", 30, false, true},
    {"ML-DSA-87+Ed448", 31, false, true},
};

}  // namespace

const OpenPgpHashRow* FindOpenPgpHash(unsigned int id) {
    for (const OpenPgpHashRow& row : kHashes) {
        if (row.id == id) return &row;
    }
    return nullptr;
}

const OpenPgpKeyAlgorithmRow* FindOpenPgpKeyAlgorithm(unsigned int id) {
    for (const OpenPgpKeyAlgorithmRow& row : kKeyAlgorithms) {
        if (row.id == id) return &row;
    }
    return nullptr;
}

unsigned int OpenPgpHashIdOf(soapWrap::HashAlgorithm algorithm) {
    for (const OpenPgpHashRow& row : kHashes) {
        if (row.algorithm == algorithm) return row.id;
    }
    return 0;
}

std::string OpenPgpHashName(unsigned int id, bool classic) {
    const OpenPgpHashRow* row = FindOpenPgpHash(id);
    return row != nullptr && (row->classic || !classic) ? row->name : "hash " + std::to_string(id);
}

std::string OpenPgpAlgorithmName(unsigned int id, bool classic) {
    const OpenPgpKeyAlgorithmRow* row = FindOpenPgpKeyAlgorithm(id);
    return row != nullptr && (classic ? row->classic : row->current) ? row->name : "algorithm " + std::to_string(id);
}
