#include <gtest/gtest.h>

#include <string>

#include "Digest.h"
#include "Exceptions.h"
#include "Signature.h"
#include "TestSupport.h"

namespace {

// Counts its own destructions, so that ownership can be checked.
class CountedDigest : public Digest {
public:
    explicit CountedDigest(int& deleted) : Digest(soapWrap::Sha1), deleted_(deleted) {}
    ~CountedDigest() override { ++deleted_; }

private:
    int& deleted_;
};

class TestSignature : public Signature {
public:
    explicit TestSignature(int publicKeyAlgorithm = 1) : publicKeyAlgorithm_(publicKeyAlgorithm) {}
    int Verify(std::string&) const override { return ResultSigned; }
    int Sign(soapWrap::Binary*, const soapWrap::Binary*, std::string&) override { return 0; }
    soapWrap::HashAlgorithm GetHashAlgorithm() override { return soapWrap::Sha256; }
    int GetPublicKeyAlgorithm() const override { return publicKeyAlgorithm_; }

private:
    int publicKeyAlgorithm_;
};

}  // namespace

TEST(Signature, ABorrowedSingleDigestOutlivesItsSignatures) {
    int deleted = 0;
    CountedDigest shared(deleted);
    {
        TestSignature first, second;
        EXPECT_EQ(first.GetDigest(3), nullptr);
        first.SetDigest(3, &shared);
        second.SetDigest(5, nullptr);  // a null single digest leaves the store empty...
        second.SetDigest(0, &shared);  // ...so this one is borrowed too: one digest, two signatures
        EXPECT_EQ(first.GetDigest(3), &shared);
        EXPECT_EQ(first.GetDigest(4), nullptr);
        EXPECT_EQ(second.GetDigest(0), &shared);
        EXPECT_EQ(second.GetDigest(5), nullptr);
    }
    EXPECT_EQ(deleted, 0);
    shared.Update("still alive", 11);
}

TEST(Signature, MappedDigestsAreOwnedButReplacedOnesAreNot) {
    int deleted = 0;
    CountedDigest* a = new CountedDigest(deleted);
    CountedDigest* b = new CountedDigest(deleted);
    CountedDigest* c = new CountedDigest(deleted);
    {
        TestSignature signature;
        signature.SetDigest(0, a);
        signature.SetDigest(1, b);
        signature.SetDigest(1, c);  // b is left to its owner
        signature.SetDigest(2, a);  // one object under two indices is still deleted once
        signature.SetDigest(3, nullptr);
        EXPECT_EQ(signature.GetDigest(0), a);
        EXPECT_EQ(signature.GetDigest(1), c);
        EXPECT_EQ(signature.GetDigest(3), nullptr);
        EXPECT_EQ(signature.GetDigest(9), nullptr);
    }
    EXPECT_EQ(deleted, 2);
    delete b;
}

TEST(Signature, AdditionalInfoAndSignedHashSize) {
    TestSignature rsa, other(17);
    unsigned char bytes[] = {1, 2};
    soapWrap::Binary first{bytes, 1}, second{bytes, 2};
    EXPECT_EQ(rsa.GetAdditionalInfo(0), nullptr);
    rsa.SetAdditionalInfo(0, &first);
    rsa.SetAdditionalInfo(0, &second);
    EXPECT_EQ(rsa.GetAdditionalInfo(0), &second);
    EXPECT_EQ(rsa.GetSignedHashSize(), 256u);
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { other.GetSignedHashSize(); }), "Not implemented: ");
    rsa.UpdateDigests();
    EXPECT_EQ(rsa.Signature::GetPublicKeyAlgorithm(), 1);
}
