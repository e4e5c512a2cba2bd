// Recognition, the signer framework, the writer helpers of the signature header and the entry.
#include "CertificateManager.h"
#include "RpmSignerCreator.h"
#include "RpmTestSupport.h"

// The rows of rpm-framework.vec: "recognise BYTES", "folder", "align TYPE OFFSET", "size TYPE COUNT
// BYTES", "storage TYPE SIZE BYTES".
TEST(RpmSignerFramework, RecognitionAndWriterHelpers) {
    using R = RpmSignature;
    TempFolder temp;
    const Vectors vectors = ReadVectors("rpm-framework.vec");
    for (const auto& [input, expected] : vectors.rows) {
        std::istringstream in(input);
        std::string verb, rest, got;
        unsigned int type = 0, number = 0;
        if (in >> verb && verb != "recognise" && verb != "folder") in >> type >> number;
        std::getline(in, rest);
        std::string data = Decode(rest, vectors.names);
        auto* bytes = reinterpret_cast<unsigned char*>(&data[0]);
        char store[9] = {};
        try {
            FileHelper file(verb == "folder" ? temp.Path() : temp.Write("lead", data));
            if (verb == "recognise" || verb == "folder") got = RpmSignerCreator().IsMe(&file) ? "yes" : "no";
            if (verb == "align") got = std::to_string(R::BoundaryAlign(RpmDataType(type), number));
            if (verb == "align") got += " " + std::to_string(number);
            if (verb == "size") got = std::to_string(R::GetEntryStorageSize(RpmDataType(type), bytes, number));
            if (verb == "storage") R::CreateStorage(RpmDataType(type), (unsigned char*)store, bytes, number);
            if (verb == "storage") got = std::string(1, char(number)) + std::string(store, 9);
        } catch (const std::exception& e) {
            got = e.what();
        }
        EXPECT_EQ(got, verb == "storage" ? Decode(expected, {}) : expected) << input;
    }
}

TEST(RpmSignerFramework, CreatorSignerAndEntry) {
    TempFolder temp;
    RpmSignerCreator creator;
    EXPECT_EQ(MessageOf<ArgumentException>([&] { creator.IsMe(nullptr); }), "Invalid argument: no file to recognise");
    EXPECT_STREQ(creator.GetFileExtensions(), "rpm;srpm");
    SignatureEntry entry;  // the tag as given (in file order), the rest big-endian
    RpmSignature::CreateHeaderEntry(&entry, 0x0C010000, 7, 0x10, 0x0102);
    const auto* raw = reinterpret_cast<unsigned char*>(&entry);
    EXPECT_EQ(Bytes(raw, raw + 16), Concat({{0, 0, 1, 0x0C}, Be(7, 4), Be(0x10, 4), Be(0x0102, 4)}));

    std::unique_ptr<Signer> signer(creator.GetSigner(7));
    auto* rpm = dynamic_cast<RpmSigner*>(signer.get());
    ASSERT_NE(rpm, nullptr);
    EXPECT_TRUE(signer->GetInputFile() == nullptr && signer->GetOutputFile() == nullptr && !signer->GetDigest());
    EXPECT_EQ(
        std::make_tuple(signer->GetSettingA(), signer->GetCreationArgument(), signer->GetSettingB(), rpm->GetSettingC(),
                        rpm->GetSignatureEntryCount(), signer->GetFileType(), signer->IsCatSpecificContentInfo()),
        std::make_tuple(1, 7u, true, 1, 0u, 4, false));
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { signer->BuildContentInfo(true); }),
              "Not implemented: RpmSigner::BuildContentInfo() is not implemented");
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { signer->BuildContentInfo(soapWrap::Sha1, true); }),
              "Not implemented: BuildContentInfo method with hash algorithm specification");
    std::string errorText;
    EXPECT_EQ(signer->Process(true, false, false, errorText), 5);
    EXPECT_EQ(errorText, "Invalid argument: the signer has no input file");
    const std::string package = temp.Write("p.rpm", Package(PackageOptions()));
    signer->SetInputFile(new FileHelper(package));
    EXPECT_EQ(signer->Process(false, true, false, errorText), 5);
    EXPECT_EQ(errorText, "Invalid argument: the signer has no output file to copy to");

    const std::string key = KeyFile(temp), otherKey = KeyFile(temp, Bytes(8, 0x55)), missing = temp / "nokey";
    const std::string text = temp.Write("t.rpm", "not a package");
    const std::string notFound =
        "File operation error: File not found: Cannot get status for '" + missing + "': No such file or directory";
    // rpm_verify reads its own key: the certificate manager's key path is neither read nor set.
    CertificateManager::Instance()->SetPgpPublicKeyFilePath(otherKey);
    const std::string rows[][3] = {
        {temp.Path(), key, "5 " + temp.Path() + " is not an RPM file."},
        {text, key, "5 " + text + " is not an RPM file."},
        {missing, key, "5 " + notFound},
        // Each call sets its own key path: the same package, another key, another verdict.
        {package, key, "0 " + package + " is signed."},
        {package, otherKey,
         "2 " + package +
             " has invalid signature. | RSA signature is not valid.  The file was "
             "signed with a different PGP certificate"},
        {package, key, "0 " + package + " is signed."},
        {package, missing, "5 Internal error occured while verifying " + package + " | " + notFound}};
    for (const auto& row : rows) EXPECT_EQ(Verify(row[0], row[1]), row[2]);
    EXPECT_EQ(CertificateManager::Instance()->GetPgpPublicKeyFilePath(), otherKey);
    RpmVerifyResult results[] = {rpm_verify(nullptr, key.c_str()), rpm_verify(package.c_str(), nullptr),
                                 response(RPM_STATUS_INVALID_HASH, std::string("a\0b", 3))};
    EXPECT_EQ(std::to_string(results[0].status) + results[0].message + std::to_string(results[1].status) +
                  results[1].message + std::to_string(results[2].status) + std::string(results[2].message, 4),
              "5rpm_verify: no package file was given5rpm_verify: no key file was given3" + std::string("a\0b\0", 4));
    for (RpmVerifyResult& result : results) std::free(result.message);
    // Every signer result and its status and text; 8 (signed over the header only) is one of the others.
    std::string answers;
    for (int result : {0, 1, 2, 3, 4, 5, 8, -1}) {
        RpmVerifyResult answer = rpm_result_response(result, "f");
        answers += std::to_string(answer.status) + " " + answer.message + "|";
        std::free(answer.message);
    }
    EXPECT_EQ(answers,
              "1 f is not signed.|0 f is signed.|2 f has invalid signature.|3 f has invalid hash.|"
              "4 f has invalid structure.|5 Internal error occured while verifying f|5 Unknown error|5 Unknown error|");
    EXPECT_STREQ(FILE_PATTERN, "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$");
}
