#include "SigningPolicy.h"

#include "PgpPacket.h"

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

// The classic reader: a 32-bit size, as a 32-bit stat() refuses a file of 2 GiB or more; a refused
// header size names its bounds; a header structure cut short reads as zeros. The current one: sizes
// in 64 bits without a limit; a refused header size is given alone; a header structure cut short is
// refused as such.
const VerificationPolicy kPolicies[] = {
    {SigningPolicy::Classic, "classic", ReaderStyle{0x7FFFFFFF, true, true, true}, &SignatureTagRow::classic, true, true},
    {SigningPolicy::Current, "current", ReaderStyle{0, false, false, false}, &SignatureTagRow::current, false, false},
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
