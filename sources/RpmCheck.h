#pragma once
// One check that the verification of a package makes, as the signature header reports it.
#include <string>

// One check of a package: the header's SHA-1 digest, the MD5 digest of header and payload, the
// OpenPGP signature over the header and each one over header and payload; under the "current"
// policy also the header's other digests and the payload digests of the main header.
struct RpmCheck {
    enum Kind { HeaderSha1, Md5, HeaderSignature, PackageSignature, HeaderDigest, PayloadDigest };
    // NoKey: a signature by a key that the key file does not hold (Bad: by a key it holds, and it
    // does not verify), as rpmkeys -Kv tells them apart. NotTrusted: a signature that counts for
    // nothing, neither failure nor verification (a key, hash or algorithm that today's rpm does not
    // trust, a revoked or expired key, an expired signature), as rpm 6 rates and ignores it.
    enum State { Ok, Bad, NotFound, NoKey, NotTrusted };

    Kind kind;
    State state;
    // A line in the manner of rpmkeys -Kv: "Header SHA1 digest", "V4 RSA/SHA256 Signature, key ID
    // 7629b8ab", "Header signature" (when there is none).
    std::string label;
    // Why the check failed: the verifier's own text, or the expected and computed digests.
    std::string reason;
    // Signatures: the issuer key ID of the packet, 16 upper-case hexadecimal digits.
    std::string keyId;
};
