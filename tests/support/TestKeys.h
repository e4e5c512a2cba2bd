#pragma once
// RSA keys and signatures made in the tests with OpenSSL's EVP interface, independent of the
// module's own RSA code.
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

typedef std::vector<unsigned char> Bytes;

// One key per size for the whole test program, read from tests/data/keys/openssl/rsa-BITS.pem (made
// by scripts/make-key-fixtures with openssl genpkey): generating them here took minutes where the
// tests run under an emulator.
inline EVP_PKEY* TestKey(unsigned int bits) {
    static std::map<unsigned int, std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>> keys;
    auto it = keys.find(bits);
    if (it == keys.end()) {
        const std::string path = SIGNING_TEST_DATA "/keys/openssl/rsa-" + std::to_string(bits) + ".pem";
        std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "r"), fclose);
        EVP_PKEY* key = file ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr;
        if (key == nullptr) {
            fprintf(stderr, "no test key %s\n", path.c_str());
            abort();
        }
        it = keys.emplace(bits, decltype(it->second)(key, EVP_PKEY_free)).first;
    }
    return it->second.get();
}
// A public component ("n" or "e") as big-endian bytes without leading zeros.
inline Bytes KeyComponent(EVP_PKEY* key, const char* name) {
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, name, &number);
    Bytes bytes(static_cast<size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_free(number);
    return bytes;
}
// Signs a digest made with md; padding is RSA_PKCS1_PADDING or RSA_PKCS1_PSS_PADDING.
inline Bytes SignDigest(EVP_PKEY* key, const EVP_MD* md, const Bytes& digest, int padding = RSA_PKCS1_PADDING,
                        int saltLength = 20) {
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY_sign_init(ctx.get());
    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding);
    EVP_PKEY_CTX_set_signature_md(ctx.get(), md);
    if (padding == RSA_PKCS1_PSS_PADDING) EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), saltLength);
    size_t length = 0;
    EVP_PKEY_sign(ctx.get(), nullptr, &length, digest.data(), digest.size());
    Bytes signature(length);
    if (EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()) != 1) return Bytes();
    signature.resize(length);
    return signature;
}

inline Bytes HashOf(const EVP_MD* md, const std::string& data) {
    Bytes digest(static_cast<size_t>(EVP_MD_get_size(md)));
    EVP_Digest(data.data(), data.size(), digest.data(), nullptr, md, nullptr);
    return digest;
}
