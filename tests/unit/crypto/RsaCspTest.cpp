// RsaCsp adopts an OpenSSL RSA object; getting one from an EVP key is deprecated API in OpenSSL 3.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <memory>
#include <string>

#include "Digest.h"
#include "RsaCsp.h"
#include "TestKeys.h"

namespace {

std::unique_ptr<RsaCsp> PublicKeyOf(EVP_PKEY* key, size_t leadingZeros = 0) {
    Bytes n = KeyComponent(key, OSSL_PKEY_PARAM_RSA_N), e = KeyComponent(key, OSSL_PKEY_PARAM_RSA_E);
    n.insert(n.begin(), leadingZeros, 0);
    return std::unique_ptr<RsaCsp>(
        new RsaCsp(n.data(), static_cast<int>(n.size()), e.data(), static_cast<int>(e.size())));
}

}  // namespace

TEST(RsaCsp, VerifiesPkcs1SignaturesForEveryHashAndKeySize) {
    for (unsigned bits : {1024u, 2048u, 3072u, 4096u}) {
        EVP_PKEY* key = TestKey(bits);
        std::unique_ptr<RsaCsp> csp = PublicKeyOf(key);
        for (int t = soapWrap::Sha1; t <= soapWrap::Sha512; ++t) {
            const soapWrap::HashAlgorithm type = soapWrap::HashAlgorithm(t);
            const EVP_MD* md = Digest::GetMd(type);
            if (bits == 1024 && type == soapWrap::Sha512) continue;  // fits, but keep the loop short
            Bytes digest = HashOf(md, "package header and payload");
            Bytes signature = SignDigest(key, md, digest);
            ASSERT_EQ(signature.size(), bits / 8);
            const int nid = Digest::GetNID(type);
            EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), signature.data(), signature.size()), 1)
                << bits << " " << t;
            // Another hash id, a changed digest, a changed or shortened signature: all refused.
            const int otherNid = Digest::GetNID(type == soapWrap::Sha1 ? soapWrap::Sha256 : soapWrap::Sha1);
            EXPECT_EQ(csp->Verify(otherNid, digest.data(), digest.size(), signature.data(), signature.size()), 0);
            digest[0] ^= 1;
            EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), signature.data(), signature.size()), 0);
            digest[0] ^= 1;
            signature[signature.size() / 2] ^= 0x40;
            EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), signature.data(), signature.size()), 0);
            EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), signature.data() + 1, signature.size() - 1), 0);
        }
        EXPECT_EQ(csp->GetLastErrorMessage(), nullptr);  // PKCS#1 checks never set it
        ERR_clear_error();
    }
}

// An OpenPGP MPI drops the leading zero octets of a value: such a genuine value, shorter than the
// modulus, verifies; the same value with an extra zero octet (longer than the modulus) does not.
TEST(RsaCsp, AValueShorterThanTheModulusIsTheSameNumber) {
    EVP_PKEY* key = TestKey(2048);
    std::unique_ptr<RsaCsp> csp = PublicKeyOf(key);
    const int nid = Digest::GetNID(soapWrap::Sha256);
    Bytes digest, signature;
    for (int i = 0; signature.empty() || signature[0] != 0; ++i) {
        digest = HashOf(EVP_sha256(), "leading zero " + std::to_string(i));
        signature = SignDigest(key, EVP_sha256(), digest);
    }
    EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), signature.data() + 1, signature.size() - 1), 1);
    EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), signature.data(), signature.size()), 1);
    Bytes longer = signature;
    longer.insert(longer.begin(), 0);
    EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), longer.data(), longer.size()), 0);
    EXPECT_EQ(csp->Verify(nid, digest.data(), digest.size(), nullptr, 0), 0);
    ERR_clear_error();
}

TEST(RsaCsp, KeysFromBytesNumbersAndRsaObjectsAgree) {
    EVP_PKEY* key = TestKey(2048);
    const EVP_MD* md = EVP_sha256();
    const Bytes digest = HashOf(md, "x"), signature = SignDigest(key, md, digest);
    BIGNUM *n = nullptr, *e = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n);
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &e);
    RsaCsp fromNumbers(n, e);  // copies: the numbers stay ours
    BN_free(n);
    BN_free(e);
    RsaCsp adopted(EVP_PKEY_get1_RSA(key));
    std::unique_ptr<RsaCsp> zeroPadded = PublicKeyOf(key, 3);  // leading zero bytes are ignored
    for (RsaCsp* csp : {zeroPadded.get(), &fromNumbers, &adopted}) {
        EXPECT_EQ(csp->Verify(NID_sha256, digest.data(), digest.size(), signature.data(), signature.size()), 1);
    }
    // A key that could not be built verifies nothing, without crashing.
    RsaCsp empty(nullptr, 0, nullptr, 0);
    EXPECT_EQ(empty.Verify(NID_sha256, digest.data(), digest.size(), signature.data(), signature.size()), 0);
    ERR_clear_error();
}

TEST(RsaCsp, VerifiesPssWithTheSaltTakenFromTheSignature) {
    EVP_PKEY* key = TestKey(2048);
    std::unique_ptr<RsaCsp> csp = PublicKeyOf(key);
    for (int saltLength : {0, 20, 32}) {
        const Bytes digest = HashOf(EVP_sha256(), "pss");
        const Bytes signature = SignDigest(key, EVP_sha256(), digest, RSA_PKCS1_PSS_PADDING, saltLength);
        EXPECT_NE(csp->Verify_PSS(soapWrap::Sha256, digest.data(), digest.size(), signature.data(), signature.size()),
                  0);
    }
    const Bytes digest = HashOf(EVP_sha256(), "pss");
    Bytes signature = SignDigest(key, EVP_sha256(), digest, RSA_PKCS1_PSS_PADDING);
    EXPECT_EQ(csp->Verify_PSS(soapWrap::Sha1, digest.data(), 20, signature.data(), signature.size()), 0);
    const char* first = csp->GetLastErrorMessage();
    ASSERT_NE(first, nullptr);
    const std::string firstText = first;
    signature[10] ^= 1;
    EXPECT_EQ(csp->Verify_PSS(soapWrap::Sha256, digest.data(), digest.size(), signature.data(), signature.size()), 0);
    EXPECT_NE(std::string(csp->GetLastErrorMessage()), firstText);  // the second failure's text replaces it
    EXPECT_EQ(csp->Verify_PSS(soapWrap::Sha256, digest.data(), digest.size(), signature.data(), 5), 0);  // short
    EXPECT_NE(std::string(csp->GetLastErrorMessage()).find("rsa"), std::string::npos);
    std::unique_ptr<char[]> drained(RsaCsp::GetErrorMessage());
    EXPECT_STREQ(drained.get(), "");  // the queue was emptied by the failures' texts
}
