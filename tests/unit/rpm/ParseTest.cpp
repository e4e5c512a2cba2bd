// The lead, the signature header and the main header, written byte by byte in
// tests/data/vectors/rpm-structures.vec: the checks in order, their exact texts and bounds.
#include "RpmTestSupport.h"

namespace {

// ParseSignature, then the digests and Verify: the text of the first failure, after "@" and the main
// header's offset once the signature header is read, or Verify's result and message.
std::string Outcome(const std::string& bytes) {
    TempFolder temp;
    std::unique_ptr<RpmSigner> signer = SignerFor(temp.Write("p.rpm", bytes));
    unsigned int offset = 0;
    std::string text, message;
    try {
        std::unique_ptr<RpmSignature> signature(signer->ParseSignature(offset, false));
        text = "@" + std::to_string(offset) + " ";
        signer->PassDigestsToSignature(signature.get(), offset, false);
        const int result = signature->Verify(message);
        return text + std::to_string(result) + (message.empty() ? "" : " " + message);
    } catch (const std::exception& e) {
        return text + e.what();
    }
}

}  // namespace

TEST(RpmParse, StructuresByteByByte) {
    const Vectors vectors = ReadVectors("rpm-structures.vec");
    for (const auto& [input, expected] : vectors.rows) {
        EXPECT_EQ(Outcome(Decode(input, vectors.names)), expected) << input;
    }
}

// Two parses by one signer: the first signature keeps its buffer after the second and the signer
// are gone. Signing is not implemented: the digest update drops the signatures and finds none.
TEST(RpmParse, ASecondParseLeavesTheFirstSignatureItsBuffer) {
    TempFolder temp;
    const PackageOptions o;
    std::unique_ptr<RpmSigner> signer = SignerFor(temp.Write("twice.rpm", Package(o)));
    unsigned int offset = 0;
    std::unique_ptr<RpmSignature> first(signer->ParseSignature(offset, false));
    delete signer->ParseSignature(offset, false);
    signer.reset();
    const Bytes md5(first->GetMd5Value(), first->GetMd5Value() + 16);
    EXPECT_EQ(md5, HashOf(EVP_md5(), Text(MainHeader()) + o.payload));
    std::string message;
    EXPECT_EQ(MessageOf<NotDefinedException>([&] { first->Verify(message); }),
              "The package digests have not been computed.");
    EXPECT_EQ(MessageOf<NotDefinedException>([&] { first->UpdateDigests(); }), "There are no PGP signatures.");
    EXPECT_TRUE(first->GetHeaderSignature() == nullptr && first->GetPackageSignatures().empty());
}
