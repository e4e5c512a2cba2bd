#include "OpenPgpAlgorithms.h"

#include <openssl/evp.h>

#include <string>

namespace {

// SHA-1 and SHA-256 run on the SHA extensions of today's x86; SHA-512 takes 64-bit arithmetic,
// which a 32-bit build does in pairs of registers (bench/floor.c on 256 MiB: MD5 0.41-0.50 s,
// SHA-512 0.34 s on x86-64 and 0.73 s on i386, SHA-256 and SHA-1 0.17-0.18 s on both).
const OpenPgpHashRow kHashes[] = {
    {1, "MD5", EVP_md5, soapWrap::Md5, false, 1.0, 1.0, true},
    {2, "SHA1", EVP_sha1, soapWrap::Sha1, true, 0.4, 0.4, true},
    {3, "RIPEMD160", nullptr, -1, false, 1.0, 1.0, true},
    {8, "SHA256", EVP_sha256, soapWrap::Sha256, true, 0.4, 0.4, true},
    {9, "SHA384", EVP_sha384, soapWrap::Sha384, true, 0.75, 1.75, true},
    {10, "SHA512", EVP_sha512, soapWrap::Sha512, true, 0.75, 1.75, true},
    {11, "SHA224", EVP_sha224, soapWrap::Sha224, true, 0.4, 0.4, true},
    {12, "SHA3-256", EVP_sha3_256, -1, true, 1.5, 1.5, false},
    {14, "SHA3-512", EVP_sha3_512, -1, true, 1.5, 1.5, false},
};

const OpenPgpKeyAlgorithmRow kKeyAlgorithms[] = {
    {1, "RSA", true, true},  // encrypt or sign
    {2, "RSA", true, true},  // encrypt only
    {3, "RSA", true, true},  // sign only
    {16, "Elgamal", false, false},
    {17, "DSA", true, true},
    {18, "ECDH", false, false},
    {19, "ECDSA", false, false},
    {22, "EdDSA", false, true},
    {27, "Ed25519", false, false},
    {28, "Ed448", false, false},
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
