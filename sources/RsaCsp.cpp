// The RSA checks call OpenSSL's RSA_verify, RSA_public_decrypt and RSA_verify_PKCS1_PSS directly:
// their results, including which DigestInfo each NID expects and how the PSS salt is recovered,
// are the behaviour this class promises, and the RSA object is part of its interface. OpenSSL 3
// marks that API deprecated (it stays supported through the 3.x series), so the warnings are
// silenced for this file only.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "RsaCsp.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Digest.h"

Csp::~Csp() {}

namespace {

// Attaches n and e to rsa, which owns them from then on; numbers it could not take are freed here.
void AttachKey(RSA* rsa, BignumHandle n, BignumHandle e) {
    if (rsa != nullptr && n != nullptr && e != nullptr && RSA_set0_key(rsa, n.get(), e.get(), nullptr) == 1) {
        static_cast<void>(n.release());
        static_cast<void>(e.release());
    }
}

}  // namespace

RsaCsp::RsaCsp(const unsigned char* modulus, int modulusLength, const unsigned char* exponent, int exponentLength)
    : rsa_(RSA_new()) {
    AttachKey(rsa_.get(), BignumHandle(BN_bin2bn(modulus, modulusLength, nullptr)),
              BignumHandle(BN_bin2bn(exponent, exponentLength, nullptr)));
}

RsaCsp::RsaCsp(const BIGNUM* modulus, const BIGNUM* exponent) : rsa_(RSA_new()) {
    AttachKey(rsa_.get(), BignumHandle(BN_dup(modulus)), BignumHandle(BN_dup(exponent)));
}

RsaCsp::RsaCsp(RSA* rsa) : rsa_(rsa) {}

RsaCsp::~RsaCsp() = default;

int RsaCsp::Verify(int type, const unsigned char* digest, unsigned int digestLength, const unsigned char* signature,
                   unsigned int signatureLength) {
    RSA* rsa = rsa_.get();
    if (rsa == nullptr || RSA_get0_n(rsa) == nullptr || RSA_get0_e(rsa) == nullptr) {
        return 0;  // a key that could not be built verifies nothing
    }
    // An OpenPGP MPI drops leading zero octets, so about one signature value in 256 arrives one
    // octet (or more) shorter than the modulus; RSA_verify wants exactly the modulus length. The
    // value is the same number written with its zeros in front. A longer value stays refused.
    const size_t modulusLength = static_cast<size_t>(RSA_size(rsa));
    if (signatureLength < modulusLength) {
        std::vector<unsigned char> padded(modulusLength, 0);
        if (signatureLength > 0) {
            std::memcpy(padded.data() + (modulusLength - signatureLength), signature, signatureLength);
        }
        return RSA_verify(type, digest, digestLength, padded.data(), static_cast<unsigned int>(modulusLength), rsa);
    }
    return RSA_verify(type, digest, digestLength, signature, signatureLength, rsa);
}

int RsaCsp::Verify_PSS(soapWrap::HashAlgorithm algorithm, const unsigned char* digest, unsigned int /*digestLength*/,
                       const unsigned char* signature, unsigned int signatureLength) {
    int result = 0;
    const bool knownDigest = algorithm >= soapWrap::Sha1 && algorithm <= soapWrap::Sha512;
    RSA* rsa = rsa_.get();
    if (knownDigest && rsa != nullptr && RSA_get0_n(rsa) != nullptr && RSA_get0_e(rsa) != nullptr) {
        // The decrypted message is as long as the modulus, whatever the signature's length.
        std::vector<unsigned char> buffer(std::max<size_t>(signatureLength, static_cast<size_t>(RSA_size(rsa))));
        const int decrypted =
            RSA_public_decrypt(static_cast<int>(signatureLength), signature, buffer.data(), rsa, RSA_NO_PADDING);
        if (decrypted >= 0) {
            result = RSA_verify_PKCS1_PSS(rsa, digest, Digest::GetMd(algorithm), buffer.data(), -2);
        }
    }
    if (result == 0) {
        errorMessage_.reset(GetErrorMessage());
    }
    return result;
}

char* RsaCsp::GetErrorMessage() {
    // The memory BIO is freed on every way out, the failed allocation of the text included.
    const BioHandle bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr) {
        ERR_clear_error();
        return new char[1]();
    }
    ERR_print_errors(bio.get());
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    char* text = new char[static_cast<size_t>(length > 0 ? length : 0) + 1];
    if (length > 0) {
        std::memcpy(text, data, static_cast<size_t>(length));
    }
    text[length > 0 ? length : 0] = '\0';
    return text;
}
