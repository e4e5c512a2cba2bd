#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Base.h"
#include "CertificateManager.h"
#include "Digest.h"
#include "Exceptions.h"
#include "PgpSignature.h"
#include "PgpWriter.h"
#include "TestSupport.h"

using namespace pgp;

namespace {

const Bytes kIssuer{0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x03, 0x04};

std::unique_ptr<PgpMessage> Parse(const Bytes& bytes) {
    return std::unique_ptr<PgpMessage>(
        new PgpMessage(reinterpret_cast<const char*>(bytes.data()), static_cast<unsigned>(bytes.size())));
}

// Verifies a signature packet over data against the key file at keyPath.
struct Check {
    int result = -1;
    std::string message;
};

Check VerifyPacket(const Bytes& packet, const std::string& data, const std::string& keyPath) {
    CertificateManager::Instance()->SetPgpPublicKeyFilePath(keyPath);
    const std::unique_ptr<PgpMessage> message = Parse(packet);
    PgpSignature signature(message->GetSignatureData());
    Digest digest(signature.GetHashAlgorithm());
    digest.Update(data.data(), static_cast<unsigned>(data.size()));
    signature.SetDigest(0, &digest);  // borrowed
    Check check;
    check.result = signature.Verify(check.message);
    return check;
}

class PgpVerify : public ::testing::Test {
protected:
    void SetUp() override { keyPath_ = temp_.Write("key.asc", Armor(KeyBlock(TestKey(2048), kIssuer))); }
    TempFolder temp_;
    std::string keyPath_;
};

}  // namespace

TEST_F(PgpVerify, GoodSignaturesOfEveryHashAndVersion) {
    for (int version : {3, 4}) {
        for (int hashId : {1, 2, 8, 9, 10, 11}) {
            SignatureOptions o;
            o.version = version;
            o.hashId = hashId;
            o.issuer = kIssuer;
            const Check check = VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", keyPath_);
            EXPECT_EQ(check.result, ResultSigned) << version << " " << hashId;
            EXPECT_EQ(check.message, "");
        }
    }
}

TEST_F(PgpVerify, FailuresInTheirOrder) {
    SignatureOptions o;
    o.issuer = kIssuer;
    o.breakLeft16 = true;
    o.breakValue = true;  // the quick check comes first
    Check check = VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", keyPath_);
    EXPECT_EQ(check.result, ResultInvalidSignature);
    EXPECT_EQ(check.message, " Digest does not correspond to the signature");

    o.breakLeft16 = false;
    o.issuer = Bytes(8, 0x99);
    check = VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", keyPath_);
    EXPECT_EQ(check.message, " The file was signed with a different PGP certificate");

    o.issuer = kIssuer;
    EXPECT_EQ(MessageOf<std::logic_error>(
                  [&] { VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", keyPath_); }),
              "basic_string::_S_construct NULL not valid");
    o.breakValue = false;
    EXPECT_EQ(MessageOf<std::logic_error>(
                  [&] { VerifyPacket(SignaturePacket(TestKey(3072), "payload", o), "payload", keyPath_); }),
              "basic_string::_S_construct NULL not valid");  // another key, same issuer

    // A key block without a signature packet names no issuer: the check fails cleanly.
    const std::string bare = temp_.Write("bare.asc", Armor(PublicKey(TestKey(2048))));
    check = VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", bare);
    EXPECT_EQ(check.result, ResultInvalidSignature);
    EXPECT_EQ(check.message, " The PGP certificate holds no signature packet that names its key");

    o.hashId = 3;
    EXPECT_EQ(MessageOf<NotSupportedException>(
                  [&] { VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", keyPath_); }),
              "Not supported hash algorithm in PGP signature");
    EXPECT_EQ(PgpSignature::GetPgpHashAlgorithm(soapWrap::Sha224), PgpHashSha224);
    EXPECT_THROW(PgpSignature::GetPgpHashAlgorithm(soapWrap::PeHeaderHash), NotSupportedException);
    o.hashId = 8;
    EXPECT_EQ(MessageOf<FileNotFoundException>(
                  [&] { VerifyPacket(SignaturePacket(TestKey(2048), "payload", o), "payload", temp_ / "none"); }),
              "File operation error: File not found: Cannot get status for '" + (temp_ / "none") +
                  "': No such file or directory");
}

TEST_F(PgpVerify, HashTrailerAndSignedPacketsRoundTrip) {
    // A built version 4 packet has a 6-byte hashed area: its trailer length field is 12.
    PgpSignatureData built(PgpSignatureVersion4, reinterpret_cast<const char*>(kIssuer.data()), 2048,
                           PgpSignatureBinaryDocument, PgpHashSha256);
    PgpSignature signature(&built);
    Digest data(soapWrap::Sha256);
    data.Update("payload", 7);
    signature.SetDigest(0, &data);
    std::unique_ptr<DigestBase> hash(signature.UpdateHash());
    SignatureOptions o;
    o.hashedArea = Bytes(built.GetHashedData(), built.GetHashedData() + 6);
    EXPECT_EQ(Bytes(hash->GetValue(), hash->GetValue() + 32), SignatureHash("payload", o));

    // Sign writes the packet around an RSA value, its quick-check bits taken from digest 0: given
    // the finished hash there, the packet parses back and verifies.
    Bytes value = SignDigest(TestKey(2048), EVP_sha256(), Bytes(hash->GetValue(), hash->GetValue() + 32));
    soapWrap::Binary in{value.data(), static_cast<uint32_t>(value.size())}, out{nullptr, 0};
    std::string message;
    PgpSignature signer(&built);
    signer.SetDigest(0, hash.get());
    EXPECT_EQ(signer.Sign(&out, &in, message), 1);
    std::unique_ptr<unsigned char[]> owned(out.data);
    EXPECT_EQ(out.length, PgpSignature::GetSize(PgpSignatureVersion4, 2048));
    EXPECT_EQ(signature.GetSize(), 287u);
    EXPECT_EQ(VerifyPacket(Bytes(out.data, out.data + out.length), "payload", keyPath_).result, ResultSigned);

    PgpSignatureData built3(PgpSignatureVersion3, reinterpret_cast<const char*>(kIssuer.data()), 2048,
                            PgpSignatureBinaryDocument, PgpHashSha1);
    PgpSignature signature3(&built3);
    EXPECT_EQ(signature3.GetSize(), 280u);
    EXPECT_EQ(PgpSignature::GetSize(PgpSignatureVersion3, 2048), 280u);
    EXPECT_EQ(MessageOf<NotImplementedException>([] { PgpSignature::GetSize(PgpSignatureVersion(5), 2048); }),
              "Not implemented: Cannot get size of PGP signature.");
    EXPECT_EQ(MessageOf<NotImplementedException>([&] { signature.GetSignedSize(); }),
              "Not implemented: PgpSignature::GetSignedSize() is not implemented");
}

TEST(CertificateManager, LoadsKeysFromFilesEachTime) {
    TempFolder temp;
    CertificateManager* manager = CertificateManager::Instance();
    EXPECT_EQ(CertificateManager::Instance(), manager);
    EXPECT_GE(CertificateManager::Count(), 2u);
    manager->SetPgpPublicKeyFilePath("");
    EXPECT_EQ(MessageOf<FileNotFoundException>([&] { manager->LoadPgpPublicKey(); }),
              "File operation error: File not found: Cannot get status for '': No such file or directory");

    const Bytes block = KeyBlock(TestKey(2048), kIssuer);
    const std::string path = temp.Write("key.gpg", std::string(block.begin(), block.end()));
    manager->SetPgpPublicKeyFilePath(path);
    EXPECT_EQ(static_cast<PgpCertificate*>(manager->LoadPgpPublicKey())->GetKeyLength(), 2048u);
    Certificate* second = manager->LoadPgpPublicKey();  // a new certificate; the first is freed
    EXPECT_EQ(manager->GetCertificate(soapWrap::PgpPublicKey), second);
    temp.Write("key.gpg", Armor(KeyBlock(TestKey(3072), kIssuer)));         // a changed file is read again
    EXPECT_EQ(static_cast<PgpCertificate*>(manager->LoadPgpPublicKey())->GetKeyLength(), 3072u);

    for (int format : {0, 1, 3}) {
        EXPECT_EQ(MessageOf<NotImplementedException>(
                      [&] { manager->CreateCertificate("x", 1, soapWrap::CertificateFileFormat(format)); }),
                  "Not implemented: Not implemented certificate format");
    }
    auto der = std::make_shared<binary>(100, 0xAB);
    const std::shared_ptr<binary> pem = der_to_pem(der);
    const std::string text(pem->begin(), pem->end());
    EXPECT_EQ(text.size(), 2 * 65u + 8 + 1 + 54);  // 136 Base64 characters
    EXPECT_EQ(text.substr(0, 28), "-----BEGIN CERTIFICATE-----\n");
    EXPECT_EQ(text.substr(28 + 64, 1), "\n");
    EXPECT_EQ(text.substr(text.size() - 26), "-----END CERTIFICATE-----\n");
    EXPECT_EQ(der_to_pem(std::make_shared<binary>())->size(), 54u);
}

TEST(CertificateManager, ReadsTheKeysThatGpgMade) {
    std::ifstream list(std::string(SIGNING_TEST_DATA) + "/keys/keys.txt");
    std::string name, keyId, readable;
    unsigned bits = 0;
    int keys = 0;
    while (list >> name >> keyId >> bits >> readable) {
        const std::string base = std::string(SIGNING_TEST_DATA) + "/keys/" + name;
        std::vector<std::string> files{base + ".asc", base + ".gpg"};
        if (name == "publisher-2048") files.push_back(base + "-version-crlf.asc");
        for (const std::string& file : files) {
            if (readable != "readable") {
                EXPECT_THROW(CertificateManager::Instance()->LoadCertificateFromFile(file, soapWrap::PgpPublicKey),
                             DataFormatException);
                continue;
            }
            PgpCertificate* certificate = static_cast<PgpCertificate*>(
                CertificateManager::Instance()->LoadCertificateFromFile(file, soapWrap::PgpPublicKey));
            EXPECT_EQ(certificate->GetKeyLength(), bits) << file;
            // The last signature packet of the block (the self-signature, or the subkey binding
            // signature) is made by the primary key.
            const unsigned char* issuer = certificate->GetMessage()->GetSignatureData()->GetIssuerId();
            EXPECT_EQ(Base::DumpBufferToString(issuer, 8, true), keyId) << file;
        }
        ++keys;
    }
    EXPECT_EQ(keys, 4);
}
