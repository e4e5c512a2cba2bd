#include "SigningPolicy.h"

#include "CurrentVerification.h"
#include "PgpPacket.h"
#include "ProcessingResult.h"
#include "RpmPackage.h"

namespace {

// The constants of rpm's signature header (rpmtag.h's RPMSIGTAG_* and RPMTAG_*).
enum : uint32_t {
    kDsaHeader = 267,
    kRsaHeader = 268,
    kSha1Header = 269,
    kSha256Header = 273,
    kOpenPgp = 278,
    kSha3256Header = 279,
    kPgp = 1002,
    kMd5 = 1004,
    kGpg = 1005,
    kPayloadDigest = 5092,
    kPayloadDigestAlgorithm = 5093,
    kPayloadSha512 = 5121,
    kPayloadSha3256 = 5123,
};

}  // namespace

// Each row: tag, type, meaning, digest algorithm, read by classic, read by current, superseded by.
const SignatureTagRow kSignatureTags[] = {
    {kDsaHeader, RpmBinary, TagMeaning::HeaderSignature, 0, false, true, kOpenPgp},
    {kRsaHeader, RpmBinary, TagMeaning::HeaderSignature, 0, true, true, kOpenPgp},
    {kSha1Header, RpmString, TagMeaning::HeaderDigest, PgpHashSha1, true, true, 0},
    {kSha256Header, RpmString, TagMeaning::HeaderDigest, PgpHashSha256, false, true, 0},
    {kOpenPgp, RpmStringArray, TagMeaning::Base64Signatures, 0, false, true, 0},
    {kSha3256Header, RpmString, TagMeaning::HeaderDigest, PgpHashSha3_256, false, true, 0},
    {kPgp, RpmBinary, TagMeaning::PackageSignature, 0, true, true, 0},
    {kMd5, RpmBinary, TagMeaning::PackageMd5, PgpHashMd5, true, true, 0},
    {kGpg, RpmBinary, TagMeaning::PackageSignature, 0, false, true, 0},
};
const size_t kSignatureTagCount = sizeof kSignatureTags / sizeof kSignatureTags[0];

const PayloadDigestRow kPayloadDigests[] = {
    {kPayloadDigest, PgpHashSha256, kPayloadDigestAlgorithm},
    {kPayloadSha512, PgpHashSha512, 0},
    {kPayloadSha3256, PgpHashSha3_256, 0},
};
const size_t kPayloadDigestCount = sizeof kPayloadDigests / sizeof kPayloadDigests[0];

namespace {

const EvaluationStep kClassicSteps[] = {EvaluationStep::HeaderDigests, EvaluationStep::Md5,
                                        EvaluationStep::HeaderSignatures, EvaluationStep::PackageSignatures};
const EvaluationStep kCurrentSteps[] = {EvaluationStep::Structure,     EvaluationStep::HeaderSignatures,
                                        EvaluationStep::HeaderDigests, EvaluationStep::PayloadDigests,
                                        EvaluationStep::Md5,           EvaluationStep::PackageSignatures,
                                        EvaluationStep::Coverage};

// The classic policy: the verdicts rpm_verify has always given.
VerificationPolicy Classic() {
    VerificationPolicy policy{};
    policy.id = SigningPolicy::Classic;
    policy.name = "classic";
    policy.verify = VerifyPackageClassic;
    // A 32-bit size, as a 32-bit stat() refuses a file of 2 GiB or more; a refused header size names
    // its bounds; a header structure cut short reads as zeros; the first tag is read from the buffer.
    policy.reader = ReaderStyle{0x7FFFFFFF, true, true, true};
    policy.reads = &SignatureTagRow::classic;
    policy.classicAlgorithms = true;
    policy.firstFailureStops = true;
    policy.steps = kClassicSteps;
    policy.stepCount = sizeof kClassicSteps / sizeof kClassicSteps[0];
    policy.digestsRequired = true;
    policy.sha1Failure = "Invalid value of SHA1 header hash";
    policy.md5Failure = "Invalid value of MD5 hash";
    policy.payloadWithMd5 = true;
    // The header signature decides at once; without one the package is not signed.
    policy.headerSignatures = SignatureRule{ResultNotSigned, nullptr, false, false, false, ""};
    // Of the signatures over header and payload any one will do; without one the package is signed
    // over its header only.
    policy.packageSignatures = SignatureRule{ResultHeaderOnlySigned,
                                             "The package does not contain PGP signature over its header and payload.",
                                             true,
                                             false,
                                             false,
                                             "PGP signature is not valid: "};
    policy.checkErrorsRecorded = true;
    return policy;
}

// The current policy: what rpmkeys --checksig accepts.
VerificationPolicy Current() {
    VerificationPolicy policy{};
    policy.id = SigningPolicy::Current;
    policy.name = "current";
    policy.verify = VerifyPackageCurrent;
    // Sizes in 64 bits without a limit; a refused header size is given alone; a header structure cut
    // short is refused as such; the first tag is the first entry's.
    policy.reader = ReaderStyle{0, false, false, false};
    policy.reads = &SignatureTagRow::current;
    policy.steps = kCurrentSteps;
    policy.stepCount = sizeof kCurrentSteps / sizeof kCurrentSteps[0];
    // Every signature must verify (of rpm 6's tag 278, any one); the coverage step judges.
    policy.headerSignatures = SignatureRule{ResultSigned, nullptr, false, true, true, "PGP signature is not valid: "};
    policy.packageSignatures = policy.headerSignatures;
    return policy;
}

// The policies, made at their first use.
const VerificationPolicy* Policies() {
    static const VerificationPolicy kPolicies[] = {Classic(), Current()};
    return kPolicies;
}

}  // namespace

const VerificationPolicy& PolicyOf(SigningPolicy policy) {
    return Policies()[policy == SigningPolicy::Current ? 1 : 0];
}

bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy) {
    for (const SigningPolicy each : {SigningPolicy::Classic, SigningPolicy::Current}) {
        if (name == PolicyOf(each).name) {
            policy = each;
            return true;
        }
    }
    return false;
}
