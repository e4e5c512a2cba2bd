#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>

#include "CertificateManager.h"
#include "Exceptions.h"
#include "RpmSignerCreator.h"
#include "RpmTestSupport.h"

using namespace rpm;

namespace {

// The base creator's own answers.
class PlainCreator : public SignerCreator {
public:
    bool IsMe(FileHelper*) override { return false; }
    Signer* GetSigner(unsigned int) override { return nullptr; }
};

bool IsMe(const TempFolder& temp, const std::string& bytes) {
    FileHelper file(temp.Write("recognise", bytes));
    return RpmSignerCreator().IsMe(&file);
}

}  // namespace

TEST(RpmSignerFramework, RecognitionByLeadMagicAndVersion) {
    TempFolder temp;
    EXPECT_TRUE(IsMe(temp, std::string("\xED\xAB\xEE\xDB\x03\x00", 6)));
    EXPECT_FALSE(IsMe(temp, "\xED\xAB\xEE\xDB\x03\x01"));  // minor version 1 is not taken
    EXPECT_FALSE(IsMe(temp, "\xED\xAB\xEE\xDB\x04\x00"));
    EXPECT_FALSE(IsMe(temp, "\xDB\xEE\xAB\xED\x03\x00"));
    EXPECT_FALSE(IsMe(temp, "\xED\xAB"));  // too short: the missing bytes read as zero
    FileHelper folder(temp.Path());
    EXPECT_FALSE(RpmSignerCreator().IsMe(&folder));

    RpmSignerCreator creator;
    EXPECT_STREQ(creator.GetFileExtensions(), "rpm;srpm");
    EXPECT_EQ(PlainCreator().GetFileExtensions(), nullptr);
}

TEST(RpmSignerFramework, SignerSettingsAndTheOperationsThatAreNotImplemented) {
    std::unique_ptr<Signer> signer(RpmSignerCreator().GetSigner(7));
    auto* rpmSigner = dynamic_cast<RpmSigner*>(signer.get());
    ASSERT_NE(rpmSigner, nullptr);
    EXPECT_EQ(signer->GetInputFile(), nullptr);
    EXPECT_EQ(signer->GetOutputFile(), nullptr);
    EXPECT_EQ(signer->GetSettingA(), 1);
    EXPECT_EQ(signer->GetCreationArgument(), 7u);
    EXPECT_TRUE(signer->GetSettingB());
    EXPECT_EQ(rpmSigner->GetSettingC(), 1);
    EXPECT_EQ(rpmSigner->GetSignatureEntryCount(), 0u);
    EXPECT_EQ(signer->GetFileType(), 4);
    EXPECT_FALSE(signer->IsCatSpecificContentInfo());
    EXPECT_EQ(signer->GetDigest(), nullptr);
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { signer->BuildContentInfo(true); }),
              "Not implemented: RpmSigner::BuildContentInfo() is not implemented");
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { signer->BuildContentInfo(soapWrap::Sha1, true); }),
              "Not implemented: BuildContentInfo method with hash algorithm specification");
    // Without an input file Process reports an internal error with the reason.
    std::string errorText;
    EXPECT_EQ(signer->Process(true, false, false, errorText), 5);
    EXPECT_EQ(errorText, "Invalid argument: the signer has no input file");
}

TEST(RpmSignatureHelpers, AlignmentStorageSizesEntriesAndStorage) {
    unsigned int offset = 6;
    EXPECT_EQ(RpmSignature::BoundaryAlign(RpmInt32, offset), 2u);
    EXPECT_EQ(offset, 8u);
    EXPECT_EQ(RpmSignature::BoundaryAlign(RpmInt32, offset), 0u);
    offset = 7;
    EXPECT_EQ(RpmSignature::BoundaryAlign(RpmString, offset), 0u);
    EXPECT_EQ(offset, 7u);
    EXPECT_EQ(RpmSignature::BoundaryAlign(RpmInt16, offset), 1u);
    EXPECT_EQ(offset, 8u);
    offset = 9;
    EXPECT_EQ(RpmSignature::BoundaryAlign(RpmInt64, offset), 7u);
    EXPECT_EQ(offset, 16u);

    unsigned char abc[] = "abc";
    EXPECT_EQ(RpmSignature::GetEntryStorageSize(RpmInt32, abc, 3), 4u);
    EXPECT_EQ(RpmSignature::GetEntryStorageSize(RpmInt64, abc, 3), 8u);
    EXPECT_EQ(RpmSignature::GetEntryStorageSize(RpmString, abc, 1), 4u);
    EXPECT_EQ(RpmSignature::GetEntryStorageSize(RpmBinary, abc, 9), 9u);
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { RpmSignature::GetEntryStorageSize(RpmInt16, abc, 1); }),
              "Not implemented: GetEntryStorageSize() is not implemented for data type = 3");
    EXPECT_EQ(MessageOf<NotImplementedException>(
                  [&] { RpmSignature::GetEntryStorageSize(static_cast<RpmDataType>(9), abc, 1); }),
              "Not implemented: GetEntryStorageSize() is not implemented for data type = 9");

    SignatureEntry entry;
    RpmSignature::CreateHeaderEntry(&entry, 0x0C010000, 7, 0x10, 0x0102);
    const Bytes expected = Concat({{0x00, 0x00, 0x01, 0x0C}, Be(7, 4), Be(0x10, 4), Be(0x0102, 4)});
    EXPECT_EQ(Bytes(reinterpret_cast<unsigned char*>(&entry), reinterpret_cast<unsigned char*>(&entry) + 16), expected);

    unsigned char store[16] = {};
    unsigned int size = 0;
    unsigned char text[] = "hey";
    RpmSignature::CreateStorage(RpmString, store, text, size);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(reinterpret_cast<char*>(store), "hey");
    unsigned char number[] = {1, 2, 3, 4, 5, 6, 7, 8};
    RpmSignature::CreateStorage(RpmInt32, store, number, size);
    EXPECT_EQ(size, 4u);
    RpmSignature::CreateStorage(RpmInt64, store, number, size);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(std::memcmp(store, number, 8), 0);  // no byte order conversion
    size = 3;
    RpmSignature::CreateStorage(RpmBinary, store, text, size);
    EXPECT_EQ(size, 3u);
}

TEST(RpmSignatureHelpers, EntriesArePickedOutAndConvertedInPlace) {
    EVP_PKEY* key = TestKey(2048);
    pgp::SignatureOptions second;
    second.issuer = Bytes(8, 0x22);
    const std::vector<Entry> entries = {{62, 7, Bytes(16, 0), 0},          {1000, 6, BytesOf("x"), 0},
                                        {1004, 7, Bytes(16, 0xAA), 0},     {269, 6, BytesOf("00ff"), 0},
                                        {268, 7, pgp::SignaturePacket(key, "h"), 0},
                                        {1002, 7, pgp::SignaturePacket(key, "p"), 0},
                                        {1002, 7, pgp::SignaturePacket(key, "p", second), 0}};
    Bytes structure = HeaderStructure(entries);
    HeaderStructureHeader header;
    std::memcpy(&header, structure.data(), 16);
    header.indexCount = entries.size();
    header.dataSize = structure.size() - 16 - 16 * entries.size();
    RpmSignature signature(structure.data() + 16, header);

    EXPECT_STREQ(signature.GetSha1Value(), "00ff");
    ASSERT_NE(signature.GetMd5Value(), nullptr);
    EXPECT_EQ(signature.GetMd5Value()[15], 0xAA);
    ASSERT_NE(signature.GetHeaderSignature(), nullptr);
    ASSERT_EQ(signature.GetPackageSignatures().size(), 2u);
    EXPECT_EQ(signature.GetPackageSignatures()[1]->GetSignatureData()->GetIssuerId()[0], 0x22);  // index order
    EXPECT_EQ(signature.GetHashAlgorithm(), soapWrap::Sha256);

    // Offsets, counts and types are now host values; tags stay as the file has them.
    const auto* converted = reinterpret_cast<const SignatureEntry*>(structure.data() + 16);
    EXPECT_EQ(converted[2].type, 7u);
    EXPECT_EQ(converted[2].count, 16u);
    EXPECT_EQ(converted[3].offset, 34u);
    EXPECT_EQ(Bytes(reinterpret_cast<const unsigned char*>(&converted[3].tag),
                    reinterpret_cast<const unsigned char*>(&converted[3].tag) + 4),
              Be(269, 4));

    // Signing is not implemented: Sign does nothing, the digest update finds no signatures.
    soapWrap::Binary out{}, in{};
    std::string message;
    EXPECT_EQ(signature.Sign(&out, &in, message), 1);
    EXPECT_EQ(MessageOf<NotDefinedException>([&] { signature.UpdateDigests(); }), "There are no PGP signatures.");
    EXPECT_EQ(MessageOf<NotDefinedException>([&] { signature.GetHashAlgorithm(); }), "There are no PGP signatures.");
    EXPECT_EQ(signature.GetHeaderSignature(), nullptr);
    EXPECT_TRUE(signature.GetPackageSignatures().empty());
}

TEST(RpmVerifyEntry, StatusesAndMessagesOfTheEntry) {
    TempFolder temp;
    const std::string key = temp.Write("key.asc", pgp::Armor(pgp::KeyBlock(TestKey(2048), TestIssuer())));
    auto verify = [&](const std::string& file, const std::string& keyPath) {
        RpmVerifyResult result = rpm_verify(file.c_str(), keyPath.c_str());
        const std::pair<int, std::string> answer(result.status, result.message);
        std::free(result.message);
        return answer;
    };
    EXPECT_EQ(verify(temp.Path(), key), std::make_pair(5, temp.Path() + " is not an RPM file."));
    const std::string text = temp.Write("text.rpm", "not a package at all");
    EXPECT_EQ(verify(text, key), std::make_pair(5, text + " is not an RPM file."));
    EXPECT_EQ(verify(temp / "missing.rpm", key),
              std::make_pair(5, "File operation error: File not found: Cannot get status for '" + (temp / "missing.rpm") +
                                    "': No such file or directory"));

    // Each call sets its own key path: the same package, another key, another verdict.
    const std::string package = temp.Write("good.rpm", Package(SignedOptions()));
    const std::string otherKey = temp.Write("other.asc", pgp::Armor(pgp::KeyBlock(TestKey(2048), Bytes(8, 0x55))));
    EXPECT_EQ(verify(package, key), std::make_pair(0, package + " is signed."));
    EXPECT_EQ(verify(package, otherKey).first, 2);
    EXPECT_EQ(verify(package, key).first, 0);
    EXPECT_EQ(CertificateManager::Instance()->GetPgpPublicKeyFilePath(), key);
    EXPECT_EQ(verify(package, temp / "nokey.asc").first, 5);

    // Null arguments are answered, not crashed on.
    RpmVerifyResult result = rpm_verify(nullptr, key.c_str());
    EXPECT_EQ(result.status, RPM_STATUS_ERROR);
    EXPECT_STREQ(result.message, "rpm_verify: no package file was given");
    std::free(result.message);
    result = rpm_verify(package.c_str(), nullptr);
    EXPECT_STREQ(result.message, "rpm_verify: no key file was given");
    std::free(result.message);

    result = response(RPM_STATUS_INVALID_HASH, std::string("a\0b", 3));
    EXPECT_EQ(result.status, RPM_STATUS_INVALID_HASH);
    EXPECT_EQ(std::memcmp(result.message, "a\0b\0", 4), 0);
    std::free(result.message);
    EXPECT_STREQ(FILE_PATTERN, "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$");
}
