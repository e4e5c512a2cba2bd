#include <gtest/gtest.h>

#include "Digest.h"
#include "Exceptions.h"
#include "RpmTestSupport.h"

using namespace rpm;

namespace {

class RpmVerify : public ::testing::Test {
protected:
    void SetUp() override { keyPath_ = temp_.Write("key.asc", pgp::Armor(pgp::KeyBlock(TestKey(2048), TestIssuer()))); }
    Verdict Check(const PackageOptions& o) { return VerifyBytes(temp_, Package(o), keyPath_); }
    std::string Path() const { return temp_ / "package.rpm"; }

    TempFolder temp_;
    std::string keyPath_;
};

}  // namespace

TEST_F(RpmVerify, GoodSignaturesOfBothVersionsAndEveryHash) {
    for (int version : {3, 4}) {
        for (int hashId : {1, 2, 8, 9, 10, 11}) {
            PackageOptions o = SignedOptions();
            o.header.version = o.packages[0].version = version;
            o.header.hashId = o.packages[0].hashId = hashId;
            const Verdict verdict = Check(o);
            EXPECT_EQ(verdict.status, 0) << version << "/" << hashId << ": " << verdict.detail;
            EXPECT_EQ(verdict.message, Path() + " is signed.");
        }
    }
}

TEST_F(RpmVerify, DigestsAreCheckedFirstShaOneBeforeMdFive) {
    PackageOptions o = SignedOptions();
    o.breakSha1 = o.breakMd5 = true;
    Verdict verdict = Check(o);
    EXPECT_EQ(verdict.status, 3);
    EXPECT_EQ(verdict.message, Path() + " has invalid hash.");
    EXPECT_EQ(verdict.detail, "Invalid value of SHA1 header hash");
    o.breakSha1 = false;
    EXPECT_EQ(Check(o).detail, "Invalid value of MD5 hash");
    // A missing digest tag leaves nothing to compare with: the package is refused the same way.
    o.breakMd5 = false;
    o.sha1 = false;
    EXPECT_EQ(Check(o).status, 3);
    EXPECT_EQ(Check(o).detail, "Invalid value of SHA1 header hash");
    o.sha1 = true;
    o.md5 = false;
    EXPECT_EQ(Check(o).detail, "Invalid value of MD5 hash");
    // Neither signature is looked at while a digest fails: a broken value changes nothing.
    o.md5 = true;
    o.breakSha1 = true;
    o.packages[0].breakValue = true;
    EXPECT_EQ(Check(o).status, 3);
}

TEST_F(RpmVerify, SignatureOutcomes) {
    PackageOptions unsigned_;
    Verdict verdict = Check(unsigned_);
    EXPECT_EQ(verdict.status, 1);
    EXPECT_EQ(verdict.message, Path() + " is not signed.");
    EXPECT_EQ(verdict.detail, "");

    // A header signature alone is result 8, which rpm_verify only knows as "other".
    PackageOptions headerOnly = SignedOptions();
    headerOnly.packages.clear();
    verdict = Check(headerOnly);
    EXPECT_EQ(verdict.status, 5);
    EXPECT_EQ(verdict.message, "Unknown error");
    EXPECT_EQ(verdict.detail, "The package does not contain PGP signature over its header and payload.");

    // A bad header signature decides alone; the package signatures are not examined.
    PackageOptions badHeader = SignedOptions();
    badHeader.header.breakLeft16 = true;
    badHeader.packages[0].breakValue = true;  // would raise the RSA logic error if it were checked
    verdict = Check(badHeader);
    EXPECT_EQ(verdict.status, 2);
    EXPECT_EQ(verdict.message, Path() + " has invalid signature.");
    EXPECT_EQ(verdict.detail.rfind("RSA signature is not valid. ", 0), 0u) << verdict.detail;

    // Of several package signatures one valid one is enough, whatever its place.
    PackageOptions secondValid = SignedOptions();
    pgp::SignatureOptions foreign = secondValid.header;
    foreign.issuer = Bytes(8, 0x77);
    pgp::SignatureOptions wrongBits = secondValid.header;
    wrongBits.breakLeft16 = true;
    secondValid.packages = {foreign, wrongBits, secondValid.header};
    EXPECT_EQ(Check(secondValid).status, 0);
    secondValid.packages = {secondValid.header, foreign};
    EXPECT_EQ(Check(secondValid).status, 0);

    PackageOptions noneValid = SignedOptions();
    noneValid.packages = {foreign, wrongBits};
    verdict = Check(noneValid);
    EXPECT_EQ(verdict.status, 2);
    EXPECT_EQ(verdict.detail.rfind("PGP signature is not valid: RSA signature is not valid. ", 0), 0u) << verdict.detail;

    // A value that RSA refuses ends the check with the logic error, reported as an internal error.
    PackageOptions badValue = SignedOptions();
    badValue.packages[0].breakValue = true;
    verdict = Check(badValue);
    EXPECT_EQ(verdict.status, 5);
    EXPECT_EQ(verdict.message, "Internal error occured while verifying " + Path());
    EXPECT_EQ(verdict.detail, "basic_string::_S_construct NULL not valid");
}

// Packages altered so that their signed content still hashes to the signed value.
TEST_F(RpmVerify, AlteredContentThatHashesToTheSignedValueIsRefused) {
    // No payload: header and payload hash like the header alone, so a signature over the header
    // (here in both places) would pass for one over the whole package.
    PackageOptions empty = SignedOptions();
    empty.payload.clear();
    Verdict verdict = Check(empty);
    EXPECT_EQ(verdict.status, 3);
    EXPECT_EQ(verdict.message, Path() + " has invalid hash.");
    EXPECT_EQ(verdict.detail, "The package has no payload");

    // Version 3: the last bytes of the payload moved in front of the packet's hashed material.
    PackageOptions o = SignedOptions();
    o.packages[0].version = 3;
    const Bytes genuine = pgp::SignaturePacket(o.key, Text(MainHeader(o)) + o.payload, o.packages[0]);
    const size_t moved = 7;
    PackageOptions cut = o;
    cut.payload.resize(o.payload.size() - moved);
    std::vector<Entry> entries = SignatureEntries(cut);
    ASSERT_EQ(entries.back().tag, 1002u);
    // genuine: 89, length (2), version 3, 5, type, creation time, issuer, ...
    entries.back().value = pgp::Packet(2, Concat({{3, 5 + moved}, BytesOf(o.payload.substr(cut.payload.size())),
                                                  Bytes(genuine.begin() + 5, genuine.end())}));
    verdict = VerifyBytes(temp_, Package(cut, &entries), keyPath_);
    EXPECT_EQ(verdict.status, 5);
    EXPECT_EQ(verdict.detail,
              "Invalid format of data: Version 3 signature packet has a hashed material length of 12; it must be 5");

    // A genuine value with a leading zero octet, in either place, is a good signature.
    for (int place : {0, 1}) {
        PackageOptions zero = SignedOptions();
        (place == 0 ? zero.header : zero.packages[0]).leadingZero = true;
        verdict = Check(zero);
        EXPECT_EQ(verdict.status, 0) << place << ": " << verdict.detail;
    }
}

TEST_F(RpmVerify, DigestsFollowTheHeaderSignatureHash) {
    struct Case {
        bool headerSignature;
        int hashId;
        soapWrap::HashAlgorithm expected;
        bool extraSha1;
    };
    for (const Case& c : {Case{false, 8, soapWrap::Sha1, false}, Case{true, 2, soapWrap::Sha1, false},
                          Case{true, 8, soapWrap::Sha256, true}, Case{true, 10, soapWrap::Sha512, true}}) {
        PackageOptions o = SignedOptions();
        o.headerSignature = c.headerSignature;
        o.header.hashId = c.hashId;
        const std::string path = temp_.Write("digests.rpm", Package(o));
        std::unique_ptr<RpmSigner> signer = SignerFor(path);
        unsigned int offset = 0;
        std::unique_ptr<RpmSignature> signature(signer->ParseSignature(offset, false));
        signer->PassDigestsToSignature(signature.get(), offset, false);
        const soapWrap::HashAlgorithm types[] = {soapWrap::Sha1, c.expected, soapWrap::Sha1,
                                                 soapWrap::Md5,  c.expected, soapWrap::Sha1};
        for (int index = 0; index < 6; ++index) {
            DigestBase* digest = signature->GetDigest(index);
            if ((index == 2 || index == 5) && !c.extraSha1) {
                EXPECT_EQ(digest, nullptr);
            } else {
                ASSERT_NE(digest, nullptr) << index;
                EXPECT_EQ(digest->GetType(), types[index]) << index;
            }
        }
        // Index 0 covers the main header, index 3 the main header and the payload.
        const std::string header = Text(MainHeader(o));
        EXPECT_EQ(Bytes(signature->GetDigest(0)->GetValue(), signature->GetDigest(0)->GetValue() + 20),
                  HashOf(EVP_sha1(), header));
        EXPECT_EQ(Bytes(signature->GetDigest(3)->GetValue(), signature->GetDigest(3)->GetValue() + 16),
                  HashOf(EVP_md5(), header + o.payload));
    }
}

TEST_F(RpmVerify, PayloadBlockBoundariesAndTheCopyToOutput) {
    const size_t header = MainHeader(PackageOptions()).size();
    for (size_t total : {size_t(65536), size_t(2 * 65536), size_t(2 * 65536 + 1), size_t(65535)}) {
        PackageOptions o = SignedOptions();
        o.payload = std::string(total - header, 'q');
        EXPECT_EQ(Check(o).status, 0) << total;
    }

    // Copying: the lead, then everything from the main header on, unchanged.
    PackageOptions o = SignedOptions();
    o.signatureStorePadding = 3;
    const std::string package = Package(o);
    std::unique_ptr<RpmSigner> signer = SignerFor(temp_.Write("in.rpm", package));
    signer->SetOutputFile(new FileHelper(temp_.Path() + "/", "out.rpm", false));
    std::string errorText;
    EXPECT_EQ(signer->Process(false, true, false, errorText), 1);
    const size_t mainHeader = package.size() - o.payload.size() - header;
    std::ifstream copied(temp_ / "out.rpm", std::ios::binary);
    const std::string copy((std::istreambuf_iterator<char>(copied)), std::istreambuf_iterator<char>());
    EXPECT_EQ(copy, package.substr(0, 96) + package.substr(mainHeader));
    signer.reset();  // the signer removes its output file
    EXPECT_FALSE(FileHelper::IsExist(temp_ / "out.rpm"));

    // Asking for a copy without an output file is an internal error, not a crash.
    signer = SignerFor(temp_ / "in.rpm");
    EXPECT_EQ(signer->Process(false, true, false, errorText), 5);
    EXPECT_EQ(errorText, "Invalid argument: the signer has no output file to copy to");
}
