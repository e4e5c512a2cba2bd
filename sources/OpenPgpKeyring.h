#pragma once
// OpenPGP keys and signatures as today's tools make them, for the "current" policy: every key of a
// key file (several key blocks, armored in one or more blocks or binary), version 4 and 6 primary
// keys with a valid self-signature and the subkeys their owner bound to them (RSA, DSA, ECDSA on the
// NIST curves, Ed25519, Ed448), with their revocations, expiry and key flags; signature packets of
// versions 3, 4 and 6, checked through OpenSSL's EVP interface.
#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "OpenPgpAlgorithms.h"
#include "OpenPgpKey.h"

// The OpenPGP hash algorithm id as OpenSSL's digest of a signature (null when not taken: MD5,
// RIPEMD-160 and unknown ids).
const EVP_MD* OpenPgpDigest(unsigned int hashId);

// An OpenPGP signature packet of version 3, 4 or 6, as verification reads it.
struct OpenPgpSignature {
    unsigned int version = 0;
    unsigned int type = 0;
    unsigned int publicKeyAlgorithm = 0;
    unsigned int hashAlgorithm = 0;
    // What the signature hashes after the signed data: version 3 its type and creation time;
    // version 4 (6) its fields up to the end of the hashed area, then 04 FF (06 FF) and that length.
    std::vector<unsigned char> trailer;
    // Version 6: what the signature hashes before the signed data (the caller feeds it to the digest
    // first); empty for versions 3 and 4.
    std::vector<unsigned char> salt;
    unsigned char left16[2] = {0, 0};
    // The key it names: the hashed area's issuer fingerprint (33) or key ID (16), else the unhashed
    // area's; a key ID of zeros beside a fingerprint yields to the fingerprint. issuer is the key ID
    // (16 upper-case hex digits, "" when none), issuerFingerprint the fingerprint (upper-case hex,
    // 20 or 32 octets, "" when none).
    std::string issuer;
    std::string issuerFingerprint;
    // RSA: the value; EdDSA: R and S, 32 octets each (Ed25519), or the native 64 or 114 octets;
    // DSA and ECDSA: r and s as DER, as OpenSSL takes them.
    std::vector<unsigned char> value;
    // Why it cannot be a valid signature whatever the key (a critical subpacket not understood, a
    // value that does not fit its algorithm); empty when it may be.
    std::string flaw;
    // From the hashed area (version 3: the creation time of its fields): the creation time (0 with
    // hasCreationTime false when there is none), the signature's and the key's validity periods in
    // seconds (0: no end), the key flags (the first octet; hasKeyFlags false when there are none),
    // and the body of an embedded signature (32) from either area, empty when none.
    uint32_t creationTime = 0;
    bool hasCreationTime = false;
    uint32_t expiresAfter = 0;
    uint32_t keyExpiresAfter = 0;
    unsigned int keyFlags = 0;
    bool hasKeyFlags = false;
    std::vector<unsigned char> embedded;
    // A revocation's reason code (subpacket 29, hashed): 0 when none is given.
    unsigned int revocationReason = 0;

    // The first packet of data, which must be a signature packet; DataFormatException otherwise.
    static OpenPgpSignature Parse(const unsigned char* data, uint64_t size);
    // The same over the body of a signature packet.
    static OpenPgpSignature ParseBody(const unsigned char* body, uint64_t size);
};

class OpenPgpKeyring {
public:
    // The keys of a key file's bytes: armored blocks ("-----BEGIN PGP PUBLIC KEY BLOCK-----"), any
    // number of them, or binary key blocks. A primary key is kept when a self-signature of its own
    // (a user ID certification or a direct-key signature) verifies; a subkey when a binding signature
    // (type 0x18) by its primary key verifies, the newest such binding giving its key flags and
    // expiry (a signing subkey also needs the back-signature it embeds); a subkey that cannot be read
    // or bound is left out, the rest of its key kept. Certifications by others are read past. Throws
    // DataFormatException when the data holds no key that verification can use.
    static OpenPgpKeyring Parse(const unsigned char* data, uint64_t size);
    // The key file at path (at most 1 MiB).
    static OpenPgpKeyring ReadFile(const std::string& path);

    // The key blocks of a key file's bytes, armored or binary, one binary block per primary key (its
    // packet and everything up to the next primary key), in their order. Throws DataFormatException
    // when the framing cannot be read.
    static std::vector<std::vector<unsigned char>> SplitKeys(const unsigned char* data, uint64_t size);

    const std::vector<OpenPgpPublicKey>& Keys() const { return keys_; }
    // The key whose key ID is keyId, or null.
    const OpenPgpPublicKey* Find(const std::string& keyId) const;
    // The key whose fingerprint (upper-case hex) is fingerprint, or null.
    const OpenPgpPublicKey* FindFingerprint(const std::string& fingerprint) const;
    // Keys that were read but cannot verify, each with why ("subkey 0123…: its binding signature
    // does not verify").
    const std::vector<std::string>& Refused() const { return refused_; }

private:
    void ParseBlock(const unsigned char* data, uint64_t size);
    // Applies the key revocations found apart from their key (a revocation certificate in a block of
    // its own) to the keys they name and verify for.
    void ApplyRevocations();
    std::vector<OpenPgpPublicKey> keys_;
    std::vector<std::string> refused_;
    std::vector<std::vector<unsigned char>> orphans_;  // signature bodies found before any key
    uint64_t checkCost_ = 0;  // what the self-signatures and bindings checked so far cost (microseconds)
};

// NotTrusted: what rpm 6.1 rates NOTTRUSTED and then counts neither for nor against a package: a
// signature made with a weak hash (MD5, SHA-1, RIPEMD-160) or an RSA or DSA key under 2048 bits, by a
// key revoked by its owner (retired or superseded: from its revocation on), one of a public-key
// algorithm the verification does not know. A signature that has expired, or that its key made after
// it had expired, is Bad, as rpm 6.1 holds it.
enum class SignatureVerdict { Ok, NoKey, Bad, NotTrusted };

// Checks signature, where signedData is a digest context (not finished, not changed) fed with the
// signature's salt (version 6) and then the signed data, in the signature's hash. NoKey when keys
// hold no key with the signature's issuer; Bad or NotTrusted, with the reason, when the key is there
// and the signature does not verify with it or is not trusted. The signature's expiry is judged at
// now (seconds since 1970; the current time when it is left out), the key's when it signed.
SignatureVerdict VerifyOpenPgpSignature(const OpenPgpSignature& signature, const EVP_MD_CTX* signedData,
                                        const OpenPgpKeyring& keys, std::string& reason);
SignatureVerdict VerifyOpenPgpSignature(const OpenPgpSignature& signature, const EVP_MD_CTX* signedData,
                                        const OpenPgpKeyring& keys, std::string& reason, int64_t now);
