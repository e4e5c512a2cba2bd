#pragma once
// The one model of a public key that signatures are checked with, whichever rule read it: the
// keyring's (every key of a key file, subkeys bound to their primary key, key IDs from the
// fingerprint) or the classic one (one RSA key per file, named by the issuer of the key block's
// last signature packet).
#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ByteCursor.h"

struct OpenPgpPublicKey {
    std::string keyId;              // 16 upper-case hexadecimal digits; empty when the key names none
    std::string primaryId;          // the key ID of its primary key (its own for a primary key)
    unsigned int algorithm = 0;     // OpenPGP public-key algorithm: 1, 2, 3 RSA; 17 DSA; 19 ECDSA; 22, 27, 28 EdDSA
    unsigned int bits = 0;          // RSA and DSA: bits of the modulus (p); ECDSA: of the curve; Ed25519: 256
    unsigned int exponentBits = 0;  // RSA: bits of the public exponent
    bool subkey = false;
    std::shared_ptr<EVP_PKEY> key;  // null when OpenSSL does not take the key, and under the classic rule

    // What the keyring learns from the key packet and its owner's signatures (left as they are under
    // the classic rule).
    unsigned int version = 4;
    std::string fingerprint;            // upper-case hex: 20 octets (version 4) or 32 (version 6)
    std::vector<unsigned char> packet;  // a primary key's packet body, for revocations apart from it
    uint32_t created = 0;               // the key packet's creation time
    uint64_t expires = 0;               // when the key expires (seconds since 1970), 0 for never
    bool revoked = false;               // revoked by its owner (a key revocation, a subkey revocation)
    // A revocation that says the key was superseded or retired (reasons 1 and 3) ends the key's
    // signatures from its own time on; any other ends them all (the key may have been compromised).
    bool softRevoked = false;
    uint32_t revokedAt = 0;
    bool signs = true;  // its key flags (the newest self-signature or binding) grant signing
};

// A public-key packet's body (version 4 or 6) as a key, subkey or not: key ID, fingerprint,
// creation time, algorithm, size and the OpenSSL key. False, with why in refusal, when it cannot
// verify (the key ID and fingerprint are still set when the packet could be framed); a key packet
// cut short is the cursor's DataFormatException.
bool ReadOpenPgpKey(const ByteCursor& body, bool subkey, OpenPgpPublicKey& key, std::string& refusal);

// What a signature over a key hashes for the key packet body: 99 and a two-octet length (version 4)
// or 9B and a four-octet length (version 6), then the body.
void HashKeyPacket(EVP_MD_CTX* context, const ByteCursor& body);

// An RSA public key from its modulus and public exponent (big-endian octets); null when OpenSSL
// does not take them.
std::shared_ptr<EVP_PKEY> RsaPublicKey(const ByteCursor& modulus, const ByteCursor& exponent);
