#pragma once
// Owners of the OpenSSL objects the module makes: std::unique_ptr with a deleter that hands each
// object back to the OpenSSL function that frees it. An empty owner frees nothing.

#include <openssl/types.h>

#include <memory>

struct EvpMdCtxFree {
    void operator()(EVP_MD_CTX* context) const;
};
struct RsaFree {
    void operator()(RSA* rsa) const;
};
struct BioFree {
    void operator()(BIO* bio) const;
};
struct BignumFree {
    void operator()(BIGNUM* number) const;
};
struct EvpPkeyFree {
    void operator()(EVP_PKEY* key) const;
};
struct EvpPkeyCtxFree {
    void operator()(EVP_PKEY_CTX* context) const;
};
struct ParamBldFree {
    void operator()(OSSL_PARAM_BLD* builder) const;
};
struct ParamFree {
    void operator()(OSSL_PARAM* parameters) const;
};

using EvpMdCtxHandle = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;
using RsaHandle = std::unique_ptr<RSA, RsaFree>;
using BioHandle = std::unique_ptr<BIO, BioFree>;
using BignumHandle = std::unique_ptr<BIGNUM, BignumFree>;
using EvpPkeyCtxHandle = std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxFree>;
using ParamBldHandle = std::unique_ptr<OSSL_PARAM_BLD, ParamBldFree>;
using ParamHandle = std::unique_ptr<OSSL_PARAM, ParamFree>;
