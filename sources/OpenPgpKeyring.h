#pragma once
// OpenPGP keys and signatures as today's tools make them, for the "current" policy: every key of a
// key file (several key blocks, armored in one or more blocks or binary), primary keys and the
// subkeys their owner bound to them, RSA and Ed25519, with version 4 key IDs computed from the
// fingerprint (RFC 4880, 12.2); signature packets of versions 3 and 4 over RSA and EdDSA, checked
// through OpenSSL's EVP interface.
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

// An OpenPGP signature packet of version 3 or 4, as verification reads it.
struct OpenPgpSignature {
    unsigned int version = 0;
    unsigned int type = 0;
    unsigned int publicKeyAlgorithm = 0;
    unsigned int hashAlgorithm = 0;
    // What the signature hashes after the signed data: version 3 its type and creation time;
    // version 4 its fields up to the end of the hashed area, then 04 FF and that length.
    std::vector<unsigned char> trailer;
    unsigned char left16[2] = {0, 0};
    std::string issuer;                // the key ID it names (subpacket 16, or 33's fingerprint), "" when none
    std::vector<unsigned char> value;  // RSA: the value; EdDSA: R and S, 32 octets each
    // Why it cannot be a valid signature whatever the key (a critical subpacket not understood, a
    // value that does not fit its algorithm); empty when it may be.
    std::string flaw;

    // The first packet of data, which must be a signature packet; DataFormatException otherwise.
    static OpenPgpSignature Parse(const unsigned char* data, uint64_t size);
    // The same over the body of a signature packet.
    static OpenPgpSignature ParseBody(const unsigned char* body, uint64_t size);
};

class OpenPgpKeyring {
public:
    // The keys of a key file's bytes: armored blocks ("-----BEGIN PGP PUBLIC KEY BLOCK-----"), any
    // number of them, or binary key blocks. User IDs and certifications, by the owner or by others,
    // are read past. A subkey is kept only when its binding signature (type 0x18) by its primary key
    // verifies. Throws DataFormatException when the data holds no key that verification can use.
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
    // Keys that were read but cannot verify, each with why ("subkey 0123…: its binding signature
    // does not verify").
    const std::vector<std::string>& Refused() const { return refused_; }

private:
    void ParseBlock(const unsigned char* data, uint64_t size);
    std::vector<OpenPgpPublicKey> keys_;
    std::vector<std::string> refused_;
};

enum class SignatureVerdict { Ok, NoKey, Bad };

// Checks signature, where signedData is a digest context (not finished, not changed) fed with the
// signed data in the signature's hash. NoKey when keys hold no key with the signature's issuer;
// Bad, with the reason, when the key is there and the signature does not verify with it.
SignatureVerdict VerifyOpenPgpSignature(const OpenPgpSignature& signature, const EVP_MD_CTX* signedData,
                                        const OpenPgpKeyring& keys, std::string& reason);
