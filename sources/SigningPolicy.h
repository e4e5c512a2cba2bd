#pragma once
// How packages are judged, as data: each policy is a value that says how the package is read, which
// signature-header tags are read and what each holds, and which algorithms are known. The two
// verifications (RpmPackage.h for the classic one, CurrentVerification.h for the current one) read
// their rules from here.
#include <cstdint>
#include <string>
#include <vector>

#include "PackageFile.h"

// Classic: the verdicts rpm_verify has always given (the exports keep it). Current: today's rpm
// (rpm 6.1) read safely: every digest and signature rpm reads must pass, at least one signature must
// verify, and every digest the package carries must match (CurrentVerification.h).
enum class SigningPolicy { Classic, Current };
// The policy a name gives ("classic" or "current"); false for any other name.
bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy);

// What a signature-header tag holds.
enum class TagMeaning {
    HeaderSignature,   // an OpenPGP signature packet over the main header
    PackageSignature,  // an OpenPGP signature packet over main header and payload
    Base64Signatures,  // Base64 texts of OpenPGP signature packets over the main header
    HeaderDigest,      // the hexadecimal text of a digest of the main header
    PackageMd5,        // the 16 bytes of the MD5 digest of main header and payload
};

// One signature-header tag: its number, the type its writers give it, what it holds, the OpenPGP
// hash id of a digest, and which policies read it. A tag no row names is read by neither. The
// current reader holds an entry to its type and, where they are not 0, to its count and to the size
// of its value (a string's with its NUL), as rpm does; the classic reader checks neither.
struct SignatureTagRow {
    uint32_t tag;
    RpmDataType type;
    uint32_t count;
    uint32_t size;
    TagMeaning meaning;
    unsigned int hashId;  // HeaderDigest: the digest's algorithm
    bool classic;
    bool current;
    // The tag whose readable signatures leave this tag's unread (rpm reads 267, 268, 1002 and 1005
    // only when 278 holds none it can read); 0 for none.
    uint32_t supersededBy;
};
extern const SignatureTagRow kSignatureTags[];
extern const size_t kSignatureTagCount;

// A payload digest that the main header holds: its tag, its type, and its algorithm (fixed by the
// tag: the algorithm tag 5093 is not read, as rpm does not read it). An alternative (the ALT tags,
// written over the uncompressed payload) is checked against the payload as stored like its main
// tag, and a failure of either is excused when the other one of the pair passes.
struct PayloadDigestRow {
    uint32_t tag;
    RpmDataType type;
    unsigned int hashId;
    bool alternative;
};
extern const PayloadDigestRow kPayloadDigests[];
extern const size_t kPayloadDigestCount;

// The steps of a package's evaluation (Evaluation.h), in the order a policy lists them.
enum class EvaluationStep {
    Structure,          // the package's structure as the policy holds it
    HeaderDigests,      // the digests of the main header
    PayloadDigests,     // the payload digests that the main header holds
    Md5,                // the MD5 digest of main header and payload
    HeaderSignatures,   // the signatures over the main header
    PackageSignatures,  // the signatures over main header and payload
    Coverage,           // what the signatures that verified cover
};

// How a group of signatures (over the header, or over header and payload) is judged.
struct SignatureRule {
    // The verdict when the group holds none (ResultSigned: none, the coverage step judges), and its
    // message (null: the message so far stays).
    int missing;
    const char* missingMessage;
    // Whether one good signature is enough; else every signature must verify (or be one that is
    // not trusted, which counts for nothing).
    bool anyOne;
    // Whether a failure waits for the coverage step; else it decides at once, with this prefix
    // before the checks' own text.
    bool deferred;
    const char* failurePrefix;
};

class PackageFile;
class KeyFileBytes;
struct RpmCheck;

struct VerificationPolicy {
    const char* name;
    // The verification under this policy: the package read under its rules into findings, its keys
    // read under its key rule, the findings evaluated (Evaluation.h); a ProcessingResult, with the
    // reason in message and, with checks, every check recorded.
    int (*verify)(const PackageFile& file, KeyFileBytes& keys, std::string& message, std::vector<RpmCheck>* checks);
    // The column of the tag table this policy reads.
    bool SignatureTagRow::*reads;
    // The steps of the evaluation, in order.
    const EvaluationStep* steps;
    size_t stepCount;
    // The messages of a SHA-1 and an MD5 digest that do not match (null: "Invalid value of " and the
    // check's label).
    const char* sha1Failure;
    const char* md5Failure;
    ReaderStyle reader;
    SignatureRule headerSignatures;
    SignatureRule packageSignatures;
    SigningPolicy id;
    // Whether the algorithms it names are the classic ones only (others are named by their number).
    bool classicAlgorithms;
    // Whether the first failure ends the evaluation when no record of the checks is kept (classic),
    // or every check is made all the same (current: a key file that cannot be read is then told
    // whatever failed before).
    bool firstFailureStops;
    // Whether a missing SHA-1 or MD5 digest fails the package (classic).
    bool digestsRequired;
    // Whether the package without payload is told with the MD5 check (classic), or by coverage.
    bool payloadWithMd5;
    // Whether the main header and the payload must each be covered by a digest the policy's rpm
    // reads (a SHA-256 or SHA3-256 digest of the header, a payload digest of the main header), as
    // rpm 6 requires them (current).
    bool digestCoverage;
    // Whether a signature check that throws is recorded and ends the evaluation only while the
    // verdict is open (classic), or ends it whatever was decided.
    bool checkErrorsRecorded;
};
const VerificationPolicy& PolicyOf(SigningPolicy policy);
