#include "SigningPolicy.h"

#include "PgpPacket.h"
#include "ProcessingResult.h"

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

const SignatureTagRow kSignatureTags[] = {
    // tag          type        meaning                          hash id          classic current superseded by
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
const EvaluationStep kCurrentSteps[] = {EvaluationStep::Structure,      EvaluationStep::HeaderSignatures,
                                        EvaluationStep::HeaderDigests,  EvaluationStep::PayloadDigests,
                                        EvaluationStep::Md5,            EvaluationStep::PackageSignatures,
                                        EvaluationStep::Coverage};

// The classic reader: a 32-bit size, as a 32-bit stat() refuses a file of 2 GiB or more; a refused
// header size names its bounds; a header structure cut short reads as zeros; the first tag is read
// from the buffer. The current one: sizes in 64 bits without a limit; a refused header size is given
// alone; a header structure cut short is refused as such; the first tag is the first entry's.
const VerificationPolicy kPolicies[] = {
    {SigningPolicy::Classic, "classic", ReaderStyle{0x7FFFFFFF, true, true, true}, &SignatureTagRow::classic, true,
     true, kClassicSteps, sizeof kClassicSteps / sizeof kClassicSteps[0], true, "Invalid value of SHA1 header hash",
     "Invalid value of MD5 hash", true,
     // The header signature decides at once; a missing one leaves the package "not signed".
     SignatureRule{ResultNotSigned, nullptr, false, false, false, ""},
     // Of the signatures over header and payload any one will do; without one the package is signed
     // over its header only.
     SignatureRule{ResultHeaderOnlySigned, "The package does not contain PGP signature over its header and payload.",
                   true, false, false, "PGP signature is not valid: "},
     true},
    {SigningPolicy::Current, "current", ReaderStyle{0, false, false, false}, &SignatureTagRow::current, false, false,
     kCurrentSteps, sizeof kCurrentSteps / sizeof kCurrentSteps[0], false, nullptr, nullptr, false,
     // Every signature must verify (of rpm 6's tag 278, any one); the coverage step judges.
     SignatureRule{ResultSigned, nullptr, false, true, true, "PGP signature is not valid: "},
     SignatureRule{ResultSigned, nullptr, false, true, true, "PGP signature is not valid: "}, false},
};

}  // namespace

const VerificationPolicy& PolicyOf(SigningPolicy policy) {
    return kPolicies[policy == SigningPolicy::Current ? 1 : 0];
}

bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy) {
    for (const VerificationPolicy& each : kPolicies) {
        if (name == each.name) {
            policy = each.id;
            return true;
        }
    }
    return false;
}
