#pragma once
// The verdict of a package from what a verification found in it: one fold for both policies. What a
// policy reads makes the findings (RpmPackage.h for the classic policy, CurrentVerification.h for
// the current one); the steps of the fold, their order and their rules are the policy's values
// (SigningPolicy.h).
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "RpmCheck.h"
#include "SigningPolicy.h"

// A digest that the package carries, and the one computed over the same bytes (lower-case
// hexadecimal, both).
struct DigestFinding {
    RpmCheck::Kind kind;
    std::string label;  // "Header SHA1 digest"
    bool present;       // the package carries it
    bool computed;      // the module computed it (an algorithm it knows)
    std::string expected;
    std::string value;
    // Why the value the package carries cannot be a digest (not hexadecimal, of a wrong type or
    // size): the check fails with this reason; empty when it can be one.
    std::string flaw = "";
};

// How one signature check went: Ok, Bad, NoKey or NotTrusted, its ProcessingResult (ResultSigned
// when good), and why it failed or is not trusted.
struct SignatureOutcome {
    RpmCheck::State state;
    int result;
    std::string reason;
};

// A signature that the package carries: its tag, its record (kind, label and key ID), and its check,
// which reads the key file at its first call and may throw. The check adds to text what the classic
// check adds to the verdict's message while the verdict is open.
struct SignatureFinding {
    uint32_t tag;
    RpmCheck record;
    std::function<SignatureOutcome(std::string& text)> check;
};

struct PackageFindings {
    std::string structureFault;  // why the package's structure is refused; empty when it is not
    std::vector<DigestFinding> headerDigests;
    std::vector<DigestFinding> payloadDigests;
    DigestFinding md5{RpmCheck::Md5, "MD5 digest", false, true, "", ""};
    std::vector<SignatureFinding> headerSignatures;
    std::vector<SignatureFinding> packageSignatures;
    uint64_t payloadLength = 0;  // bytes after the main header
};

// A signature's record in the manner of rpmkeys -Kv: "Header V4 RSA/SHA256 Signature, key ID
// 7629b8ab" (the algorithms named as policy names them, the key ID's low half in lower case), with
// the issuer (16 hexadecimal digits, or empty) as its key ID.
RpmCheck SignatureRecord(const VerificationPolicy& policy, RpmCheck::Kind kind, unsigned int version,
                         unsigned int keyAlgorithm, unsigned int hashAlgorithm, const std::string& issuer);

// The ProcessingResult of the findings under policy, with the reason in message; with checks, every
// check made is recorded. Throws what a signature check throws while the verdict is open (under a
// policy whose check errors are not recorded, whenever it throws).
int EvaluatePackage(const VerificationPolicy& policy, const PackageFindings& findings, std::string& message,
                    std::vector<RpmCheck>* checks);
