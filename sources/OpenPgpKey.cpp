#include "OpenPgpKey.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include "OpenSslHandles.h"

std::shared_ptr<EVP_PKEY> RsaPublicKey(const ByteCursor& modulus, const ByteCursor& exponent) {
    const BignumHandle n(BN_bin2bn(modulus.Here(), static_cast<int>(modulus.Size()), nullptr));
    const BignumHandle e(BN_bin2bn(exponent.Here(), static_cast<int>(exponent.Size()), nullptr));
    const ParamBldHandle builder(OSSL_PARAM_BLD_new());
    if (!n || !e || !builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
        return nullptr;
    }
    const ParamHandle parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    const EvpPkeyCtxHandle context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    if (!parameters || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
        return nullptr;
    }
    return std::shared_ptr<EVP_PKEY>(key, EvpPkeyFree());
}
