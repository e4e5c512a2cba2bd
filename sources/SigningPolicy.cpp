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
    kPayloadDigestAlternative = 5097,
    kPayloadSha512 = 5121,
    kPayloadSha512Alternative = 5122,
    kPayloadSha3256 = 5123,
    kPayloadSha3256Alternative = 5124,
};

}  // namespace

// Each row: tag, type, count and value size that the current reader requires (0: any), meaning,
// digest algorithm, read by classic, read by current, superseded by. The current reader reads the
// rows in this order: 278 first, as its signatures decide whether the older tags are read.
const SignatureTagRow kSignatureTags[] = {
    {kOpenPgp, RpmStringArray, 0, 0, TagMeaning::Base64Signatures, 0, false, true, 0},
    {kPgp, RpmBinary, 0, 0, TagMeaning::PackageSignature, 0, true, true, kOpenPgp},
    {kMd5, RpmBinary, 0, 16, TagMeaning::PackageMd5, PgpHashMd5, true, true, 0},
    {kGpg, RpmBinary, 0, 0, TagMeaning::PackageSignature, 0, false, true, kOpenPgp},
    {kDsaHeader, RpmBinary, 0, 0, TagMeaning::HeaderSignature, 0, false, true, kOpenPgp},
    {kRsaHeader, RpmBinary, 0, 0, TagMeaning::HeaderSignature, 0, true, true, kOpenPgp},
    {kSha1Header, RpmString, 1, 41, TagMeaning::HeaderDigest, PgpHashSha1, true, true, 0},
    {kSha256Header, RpmString, 1, 65, TagMeaning::HeaderDigest, PgpHashSha256, false, true, 0},
    {kSha3256Header, RpmString, 1, 65, TagMeaning::HeaderDigest, PgpHashSha3_256, false, true, 0},
};
const size_t kSignatureTagCount = sizeof kSignatureTags / sizeof kSignatureTags[0];

// Each row: tag, type, algorithm, whether it is the alternative of the row before it.
const PayloadDigestRow kPayloadDigests[] = {
    {kPayloadDigest, RpmStringArray, PgpHashSha256, false},
    {kPayloadDigestAlternative, RpmStringArray, PgpHashSha256, true},
    {kPayloadSha512, RpmString, PgpHashSha512, false},
    {kPayloadSha512Alternative, RpmString, PgpHashSha512, true},
    {kPayloadSha3256, RpmString, PgpHashSha3_256, false},
    {kPayloadSha3256Alternative, RpmString, PgpHashSha3_256, true},
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
    policy.reader = ReaderStyle{0x7FFFFFFF, true, true, true, false};
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
    policy.headerSignatures = SignatureRule{ResultNotSigned, nullptr, false, false, ""};
    // Of the signatures over header and payload any one will do; without one the package is signed
    // over its header only.
    policy.packageSignatures =
        SignatureRule{ResultHeaderOnlySigned, "The package does not contain PGP signature over its header and payload.",
                      true, false, "PGP signature is not valid: "};
    policy.checkErrorsRecorded = true;
    return policy;
}

// The current policy: today's rpm (rpm 6.1), read safely.
VerificationPolicy Current() {
    VerificationPolicy policy{};
    policy.id = SigningPolicy::Current;
    policy.name = "current";
    policy.verify = VerifyPackageCurrent;
    // Sizes in 64 bits without a limit; a refused header size is given alone; a header structure cut
    // short is refused as such; the first tag is the first entry's; the package read as rpm reads it.
    policy.reader = ReaderStyle{0, false, false, false, true};
    policy.reads = &SignatureTagRow::current;
    policy.steps = kCurrentSteps;
    policy.stepCount = sizeof kCurrentSteps / sizeof kCurrentSteps[0];
    // Every signature must verify or be one that is not trusted; the coverage step judges.
    policy.headerSignatures = SignatureRule{ResultSigned, nullptr, false, true, "PGP signature is not valid: "};
    policy.packageSignatures = policy.headerSignatures;
    policy.digestCoverage = true;
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
