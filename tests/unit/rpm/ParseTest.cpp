#include <gtest/gtest.h>

#include "Exceptions.h"
#include "RpmTestSupport.h"

using namespace rpm;

namespace {

const std::string kInvalidStructure = "File operation error: Invalid structure of the file: ";

class RpmParse : public ::testing::Test {
protected:
    // ParseSignature on bytes; the what() text of what it throws, or "ok" and the header offset.
    std::string Parse(const std::string& bytes, unsigned int* headerOffset = nullptr) {
        std::unique_ptr<RpmSigner> signer = SignerFor(temp_.Write("parse.rpm", bytes));
        unsigned int offset = 0;
        try {
            std::unique_ptr<RpmSignature> signature(signer->ParseSignature(offset, false));
        } catch (const std::exception& e) {
            return e.what();
        }
        if (headerOffset) *headerOffset = offset;
        return "ok";
    }
    // Process on bytes: the result and the error text.
    std::pair<int, std::string> Process(const std::string& bytes) {
        std::unique_ptr<RpmSigner> signer = SignerFor(temp_.Write("process.rpm", bytes));
        std::string errorText;
        const int result = signer->Process(true, false, false, errorText);
        return {result, errorText};
    }
    TempFolder temp_;
};

std::string SignatureHeader(const std::vector<Entry>& entries, size_t padding = 0) {
    return Text(Concat({Lead(), HeaderStructure(entries, padding)}));
}

}  // namespace

TEST_F(RpmParse, ChecksRunInOrderWithTheirExactTexts) {
    EXPECT_EQ(Parse(std::string(96, 0)), kInvalidStructure + "File is too small to have RPM format");
    // 97 bytes pass the size check; the signature header is then missing.
    const std::string lead = Text(Lead());
    EXPECT_EQ(Parse(lead + "x"), kInvalidStructure + "Signature section: RPM header magic number is not found.");
    EXPECT_EQ(Parse(Text(Lead(4)) + std::string(64, 0)), kInvalidStructure + "Unsupported signature type");

    std::vector<Entry> entries = {{62, 7, Bytes(16, 0), 0}};
    std::string version2 = SignatureHeader(entries);
    version2[99] = 2;
    EXPECT_EQ(Parse(version2), kInvalidStructure + "Signature section: RPM header magic number is not found.");

    entries[0].tag = 63;
    EXPECT_EQ(Parse(SignatureHeader(entries)), "Invalid format of data: RPM signature is expected to be the first header");
    EXPECT_EQ(Parse(SignatureHeader({})), "Invalid format of data: RPM signature is expected to be the first header");

    // The lead magic is not the parser's business: recognition rejects such files earlier.
    entries[0].tag = 62;
    std::string foreignLead = SignatureHeader(entries);
    foreignLead[0] = 'X';
    EXPECT_EQ(Parse(foreignLead), "ok");
}

TEST_F(RpmParse, MainHeaderStartsAtTheNextMultipleOfEight) {
    // Three entries, 61 bytes of store: 112 + 48 + 61 = 221, rounded up to 224.
    const std::vector<Entry> entries = {{62, 7, Bytes(16, 0), 0}, {1000, 7, Bytes(40, 1), 0}, {1001, 7, Bytes(5, 2), 0}};
    unsigned int offset = 0;
    ASSERT_EQ(Parse(SignatureHeader(entries), &offset), "ok");
    EXPECT_EQ(offset, 224u);
    ASSERT_EQ(Parse(SignatureHeader(entries, 3), &offset), "ok");  // 64 bytes of store: 224 exactly
    EXPECT_EQ(offset, 224u);
    ASSERT_EQ(Parse(SignatureHeader(entries, 4), &offset), "ok");
    EXPECT_EQ(offset, 232u);
}

TEST_F(RpmParse, HostileSignatureHeadersAreRefused) {
    const std::vector<Entry> entries = {{62, 7, Bytes(16, 0), 0}};
    std::string bytes = SignatureHeader(entries);
    bytes[106] = 0x10;  // index count 0x1001
    EXPECT_EQ(Parse(bytes), kInvalidStructure +
                                "Signature section: 4097 index entries and 16 bytes of data do not fit in the file of " +
                                std::to_string(bytes.size()) + " bytes");
    bytes = SignatureHeader(entries);
    bytes[108] = 0xFF;  // data size near 4 GiB: 16 × count + size must not wrap
    EXPECT_NE(Parse(bytes).find("do not fit in the file"), std::string::npos);

    std::vector<Entry> many(256, Entry{1000, 4, Be(1, 4), 0});
    many[0] = {62, 7, Bytes(16, 0), 0};
    EXPECT_EQ(Parse(SignatureHeader(many)),
              "Invalid format of data: RPM signature header holds 256 index entries; at most 255 are supported");
    many.resize(255);
    EXPECT_EQ(Parse(SignatureHeader(many)), "ok");

    // Entries that are read must lie inside the store.
    EXPECT_EQ(Parse(SignatureHeader({{62, 7, Bytes(16, 0), 0}, {1004, 7, Bytes(8, 0), 0}})),
              "Invalid format of data: RPM signature tag 1004: 16 bytes at offset 16 lie outside the store of 24 bytes");
    EXPECT_EQ(Parse(SignatureHeader({{62, 7, Bytes(16, 0), 0}, {1002, 7, Bytes(8, 0x88), 400}})),
              "Invalid format of data: RPM signature tag 1002: 400 bytes at offset 16 lie outside the store of 24 bytes");
    std::string unterminated = SignatureHeader({{62, 7, Bytes(16, 0), 0}, {269, 7, BytesOf("abcd"), 0}});
    EXPECT_EQ(Parse(unterminated),
              "Invalid format of data: RPM signature tag 269: the text is not terminated inside the store");
    EXPECT_EQ(Parse(SignatureHeader({{62, 7, Bytes(16, 0), 0}, {268, 7, pgp::UserId("x"), 0}})),
              "Invalid format of data: RPM signature tag 268 holds no OpenPGP signature packet");
    // An entry that is not read may point anywhere.
    EXPECT_EQ(Parse(SignatureHeader({{62, 7, Bytes(16, 0), 0}, {1000, 7, Bytes(4, 0), 999}})), "ok");
}

TEST_F(RpmParse, BrokenMainHeadersEndProcessWithResultFive) {
    PackageOptions o;
    const std::string package = Package(o);
    const size_t headerOffset = package.size() - o.payload.size() - MainHeader(o).size();

    std::string noMagic = package;
    noMagic[headerOffset] = 0;
    EXPECT_EQ(Process(noMagic), std::make_pair(5, kInvalidStructure + "Header section: RPM header magic number is not found."));
    // Cut right after the signature header: the main header is missing altogether.
    EXPECT_EQ(Process(package.substr(0, headerOffset)).second,
              kInvalidStructure + "Header section: RPM header magic number is not found.");
    // Cut inside the main header's store.
    const std::string cut = package.substr(0, headerOffset + 40);
    EXPECT_EQ(Process(cut), std::make_pair(5, kInvalidStructure +
                                                  "Header section: 2 index entries and 12 bytes of data do not fit in the "
                                                  "file of " + std::to_string(cut.size()) + " bytes"));
    // The whole file is fine.
    EXPECT_EQ(Process(package), std::make_pair(0, std::string()));
}

// Two parses by one signer: the first signature keeps its buffer after the second and the signer
// are gone.
TEST_F(RpmParse, ASecondParseLeavesTheFirstSignatureItsBuffer) {
    const PackageOptions o = SignedOptions();
    std::unique_ptr<RpmSigner> signer = SignerFor(temp_.Write("twice.rpm", Package(o)));
    unsigned int offset = 0;
    std::unique_ptr<RpmSignature> first(signer->ParseSignature(offset, false));
    std::unique_ptr<RpmSignature> second(signer->ParseSignature(offset, false));
    second.reset();
    signer.reset();
    EXPECT_EQ(Bytes(first->GetMd5Value(), first->GetMd5Value() + 16), HashOf(EVP_md5(), Text(MainHeader(o)) + o.payload));
    EXPECT_EQ(first->GetPackageSignatures().size(), 1u);
}

// Entries that point at the same bytes would each be parsed and kept again: the values read may
// not add up to more than the store.
TEST_F(RpmParse, ValuesReadMayNotAddUpToMoreThanTheStore) {
    const PackageOptions o = SignedOptions();
    Bytes structure = HeaderStructure(SignatureEntries(o));
    const size_t count = structure[11];
    const Bytes last(structure.begin() + 16 * count, structure.begin() + 16 + 16 * count);  // the tag-1002 entry
    structure.insert(structure.begin() + 16 + 16 * count, last.begin(), last.end());
    structure[11] = static_cast<unsigned char>(count + 1);
    Bytes file = Concat({Lead(), structure});
    file.resize((file.size() + 7) & ~size_t(7), 0);
    const std::string error = Parse(Text(file) + Text(MainHeader(o)) + o.payload);
    EXPECT_EQ(error.rfind("Invalid format of data: RPM signature tag 1002: the values read add up to ", 0), 0u) << error;
}
