// RSA_free belongs to the RSA API that OpenSSL 3 marks deprecated; RsaCsp keeps that API on
// purpose (see RsaCsp.cpp), so the warning is silenced here as well.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "OpenSslHandles.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

void EvpMdCtxFree::operator()(EVP_MD_CTX* context) const {
    EVP_MD_CTX_free(context);
}

void RsaFree::operator()(RSA* rsa) const {
    RSA_free(rsa);
}

void BioFree::operator()(BIO* bio) const {
    BIO_free(bio);
}

void BignumFree::operator()(BIGNUM* number) const {
    BN_free(number);
}

void EvpPkeyFree::operator()(EVP_PKEY* key) const {
    EVP_PKEY_free(key);
}

void EvpPkeyCtxFree::operator()(EVP_PKEY_CTX* context) const {
    EVP_PKEY_CTX_free(context);
}

void ParamBldFree::operator()(OSSL_PARAM_BLD* builder) const {
    OSSL_PARAM_BLD_free(builder);
}

void ParamFree::operator()(OSSL_PARAM* parameters) const {
    OSSL_PARAM_free(parameters);
}
