#pragma once
// The module's public-key engine: an RSA public key with the PKCS#1 v1.5 signature check by digest
// NID and the RSASSA-PSS check.

#include <openssl/bn.h>
#include <openssl/types.h>

#include <memory>

#include "OpenSslHandles.h"
#include "soapWrap.h"

// A crypto service provider: something that checks a signature over a digest.
class Csp {
public:
    virtual ~Csp();
    virtual int Verify(int type, const unsigned char* digest, unsigned int digestLength, const unsigned char* signature,
                       unsigned int signatureLength) = 0;
};

class RsaCsp : public Csp {
public:
    // From big-endian unsigned modulus and public exponent bytes (leading zero bytes are ignored).
    RsaCsp(const unsigned char* modulus, int modulusLength, const unsigned char* exponent, int exponentLength);
    // From copies of the two numbers; the caller keeps its own.
    RsaCsp(const BIGNUM* modulus, const BIGNUM* exponent);
    // Adopts the key; it is freed with this object.
    explicit RsaCsp(RSA* rsa);
    ~RsaCsp() override;

    RsaCsp(const RsaCsp&) = delete;
    RsaCsp& operator=(const RsaCsp&) = delete;

    // OpenSSL's RSA_verify: 1 when signature is a valid PKCS#1 v1.5 signature of digest under the
    // digest algorithm with OpenSSL NID type, 0 otherwise. A value shorter than the modulus is
    // taken with zero octets in front (the form an OpenPGP MPI gives it); a longer one fails.
    int Verify(int type, const unsigned char* digest, unsigned int digestLength, const unsigned char* signature,
               unsigned int signatureLength) override;
    // RSASSA-PSS with the salt length taken from the signature. Nonzero when valid; 0 otherwise,
    // with the OpenSSL error queue kept as GetLastErrorMessage().
    int Verify_PSS(soapWrap::HashAlgorithm algorithm, const unsigned char* digest, unsigned int digestLength,
                   const unsigned char* signature, unsigned int signatureLength);

    // The text of the last failed Verify_PSS, or null; valid until the next failure replaces it.
    const char* GetLastErrorMessage() const { return errorMessage_.get(); }

    // OpenSSL's error queue of this thread as a new text, which the caller owns and releases with
    // delete[] (a std::unique_ptr<char[]>); reading it empties the queue.
    static char* GetErrorMessage();

private:
    RsaHandle rsa_;
    std::unique_ptr<char[]> errorMessage_;
};
