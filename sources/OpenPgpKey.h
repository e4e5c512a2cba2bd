#pragma once
// The one model of a public key that signatures are checked with, whichever rule read it: the
// keyring's (every key of a key file, subkeys bound to their primary key, key IDs from the
// fingerprint) or the classic one (one RSA key per file, named by the issuer of the key block's
// last signature packet).
#include <openssl/types.h>

#include <memory>
#include <string>

#include "ByteCursor.h"

struct OpenPgpPublicKey {
    std::string keyId;           // 16 upper-case hexadecimal digits; empty when the key names none
    std::string primaryId;       // the key ID of its primary key (its own for a primary key)
    unsigned int algorithm = 0;  // OpenPGP public-key algorithm: 1, 2, 3 RSA; 22 EdDSA
    unsigned int bits = 0;       // RSA: bits of the modulus; Ed25519: 256
    bool subkey = false;
    std::shared_ptr<EVP_PKEY> key;  // null when OpenSSL does not take the key, and under the classic rule
};

// An RSA public key from its modulus and public exponent (big-endian octets); null when OpenSSL
// does not take them.
std::shared_ptr<EVP_PKEY> RsaPublicKey(const ByteCursor& modulus, const ByteCursor& exponent);
