#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Base.h"
#include "Digest.h"
#include "Exceptions.h"
#include "TestKeys.h"
#include "TestSupport.h"

using soapWrap::HashAlgorithm;

namespace {

struct Vector {
    HashAlgorithm type;
    const char *empty, *abc, *million;  // of "", "abc" and 1,000,000 times "a"
};

const Vector kVectors[] = {
    {soapWrap::Sha1, "da39a3ee5e6b4b0d3255bfef95601890afd80709", "a9993e364706816aba3e25717850c26c9cd0d89d",
     "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {soapWrap::Md5, "d41d8cd98f00b204e9800998ecf8427e", "900150983cd24fb0d6963f7d28e17f72",
     "7707d6ae4e027c70eea2a935c2296f21"},
    {soapWrap::Sha224, "d14a028c2a3a2bc9476102bb288234c415a2b01f828ea62ac5b3e42f",
     "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7",
     "20794655980c91d8bbb4c1ea97618a4bf03f42581948b2ee4ee7ad67"},
    {soapWrap::Sha256, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
     "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    {soapWrap::Sha384,
     "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b95b",
     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7",
     "9d0e1809716474cb086e834e310a4a1ced149e9c00f248527972cec5704c2a5b07b8b3dc38ecc4ebae97ddd87f3d8985"},
    {soapWrap::Sha512,
     "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a"
     "5"
     "38327af927da3e",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2"
     "a"
     "9ac94fa54ca49f",
     "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973ebde0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4"
     "e"
     "adb217ad8cc09b"},
};

std::string ValueOf(DigestBase& digest) {
    return Base::DumpBufferToString(digest.GetValue(), digest.GetLength(), false);
}

}  // namespace

TEST(Digest, KnownAnswersForEveryAlgorithm) {
    const std::string block(1000, 'a');
    for (const Vector& v : kVectors) {
        Digest empty(v.type), abc(v.type), million(v.type);
        abc.Update("ab", 2);
        std::unique_ptr<DigestBase> fork(abc.Copy());  // taken mid-stream
        abc.Update("c", 1);
        fork->Update("c", 1);
        for (int i = 0; i < 1000; ++i) million.Update(block.data(), 1000);
        EXPECT_EQ(ValueOf(empty), v.empty);
        EXPECT_EQ(ValueOf(abc), v.abc);
        EXPECT_EQ(ValueOf(*fork), v.abc);
        EXPECT_EQ(ValueOf(million), v.million);
        EXPECT_EQ(abc.GetLength(), Digest::GetLength(v.type));
        EXPECT_EQ(abc.GetValue(), abc.GetValue());  // cached

        // Reinitialize restarts the hash but keeps the cached value.
        abc.Reinitialize();
        EXPECT_EQ(ValueOf(abc), v.abc);
        abc.Update("", 0);
        Bytes fresh(abc.GetLength());
        EXPECT_EQ(abc.GetValue(fresh.data()), abc.GetLength());
        EXPECT_EQ(Base::DumpBufferToString(fresh.data(), fresh.size(), false), v.empty);
    }
}

TEST(Digest, Catalogue) {
    const char* names[] = {"SHA1", "MD5", "SHA224", "SHA256", "SHA384", "SHA512", "PE Header Hash"};
    const int nids[] = {64, 4, 675, 672, 673, 674};
    const unsigned lengths[] = {20, 16, 28, 32, 48, 64};
    const char* oids[] = {"1.3.14.3.2.26",          "1.2.840.113549.2.5",     "2.16.840.1.101.3.4.2.4",
                          "2.16.840.1.101.3.4.2.1", "2.16.840.1.101.3.4.2.2", "2.16.840.1.101.3.4.2.3"};
    for (int t = 0; t <= 6; ++t) EXPECT_EQ(Digest::GetTypeName(HashAlgorithm(t)), names[t]);
    for (int t = 0; t <= 5; ++t) {
        const HashAlgorithm type = HashAlgorithm(t);
        EXPECT_EQ(Digest::GetNID(type), nids[t]);
        EXPECT_EQ(Digest::GetLength(type), lengths[t]);
        EXPECT_EQ(EVP_MD_get_type(Digest::GetMd(type)), nids[t]);
        EXPECT_STREQ(Digest(type).GetAlgorithmIdentifier(), oids[t]);
    }
    const std::pair<unsigned, HashAlgorithm> byNid[] = {
        {64, soapWrap::Sha1},    {65, soapWrap::Sha1},    {4, soapWrap::Md5},      {8, soapWrap::Md5},
        {668, soapWrap::Sha256}, {672, soapWrap::Sha256}, {669, soapWrap::Sha384}, {673, soapWrap::Sha384},
        {670, soapWrap::Sha512}, {674, soapWrap::Sha512}, {671, soapWrap::Sha224}, {675, soapWrap::Sha224}};
    for (const auto& entry : byNid) EXPECT_EQ(Digest::GetTypeByNid(entry.first), entry.second) << entry.first;

    const std::pair<const unsigned char*, unsigned> tables[] = {
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA1, 5},   {ASN_OBJECT_IDENTIFIER_BYTES_MD5, 8},
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA224, 9}, {ASN_OBJECT_IDENTIFIER_BYTES_SHA256, 9},
        {ASN_OBJECT_IDENTIFIER_BYTES_SHA384, 9}, {ASN_OBJECT_IDENTIFIER_BYTES_SHA512, 9}};
    for (int t = 0; t <= 5; ++t) {
        Bytes bytes(tables[t].first, tables[t].first + tables[t].second);
        soapWrap::Binary oid{bytes.data(), tables[t].second};
        EXPECT_EQ(Digest::GetTypeByOid(&oid), HashAlgorithm(t));
    }
    Bytes sha256Last05(ASN_OBJECT_IDENTIFIER_BYTES_SHA256, ASN_OBJECT_IDENTIFIER_BYTES_SHA256 + 9);
    sha256Last05[8] = 0x05;
    soapWrap::Binary unknown{sha256Last05.data(), 9}, shortOid{sha256Last05.data(), 7};
    for (const soapWrap::Binary* oid : {&unknown, &shortOid}) {
        EXPECT_EQ(MessageOf<Pkcs7InnerException>([&] { Digest::GetTypeByOid(oid); }),
                  "Error during processing PKCS7 structure: Unknown object identifier for hash algorithm");
    }
}

TEST(Digest, FailuresCarryTheirTexts) {
    const std::string undefined = "Digest calculation error: Undefined type of digest";
    EXPECT_EQ(MessageOf<DigestException>([] { Digest d(soapWrap::PeHeaderHash); }), undefined);
    EXPECT_EQ(MessageOf<DigestException>([] { Digest::GetLength(HashAlgorithm(7)); }), undefined);
    EXPECT_EQ(MessageOf<DigestException>([] { Digest::GetTypeName(HashAlgorithm(7)); }), undefined);
    EXPECT_EQ(MessageOf<DigestException>([] { Digest::GetMd(HashAlgorithm(-1)); }), undefined);
    EXPECT_EQ(MessageOf<NotSupportedFileFormatException>([] { Digest::GetNID(soapWrap::PeHeaderHash); }),
              "File operation error: File format is not supported: The signature is built on a digest calculated "
              "with not supported hash algorithm");
    EXPECT_EQ(MessageOf<NotSupportedFileFormatException>([] { Digest::GetTypeByNid(3); }),
              "File operation error: File format is not supported: Unknown object Numerical Identifier (NID) for "
              "hash algorithm");
    EXPECT_EQ(MessageOf<Pkcs7InnerException>([] { Digest::GetAlgorithmIdentifier(soapWrap::PeHeaderHash); }),
              "Error during processing PKCS7 structure: unknown hash algorithm");
}
