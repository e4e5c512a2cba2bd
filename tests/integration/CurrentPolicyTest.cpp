// The older fixtures (tests/data/current, made by scripts/make-current-fixtures with rpm 4.18's tools:
// header-only and header+payload signatures, SHA-1 to SHA-512, RSA 1024 to 4096, Ed25519, signing
// subkeys, a certified key, two keys in a file, tampered copies): the classic verdicts do not move
// (the current policy's are held to rpm 6.1's in OracleTest.cpp); and rpm 6 packages written byte by
// byte.
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>

#include "Exceptions.h"
#include "HostSupport.h"
#include "OpenPgpKeyring.h"
#include "RpmReport.h"
#include "RpmWriter.h"
#include "rpmutil.h"

namespace {

const std::string kCurrent = std::string(SIGNING_TEST_DATA) + "/current/";

// The rows of a table file: its fields, comment lines left out.
std::vector<std::vector<std::string>> Rows(const std::string& file) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream table(kCurrent + file);
    for (std::string line; std::getline(table, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        rows.emplace_back(std::istream_iterator<std::string>(fields), std::istream_iterator<std::string>());
    }
    return rows;
}

int Status(const std::string& package, const std::string& key, SigningPolicy policy, std::string* detail = nullptr) {
    std::string reason;
    const RpmVerifyResult result = rpm_verify_detailed(package.c_str(), key.c_str(), reason, policy);
    free(result.message);
    if (detail != nullptr) *detail = reason;
    return result.status;
}

}  // namespace

// The classic policy keeps the verdicts it gave these packages before the current policy existed.
TEST(CurrentPolicy, ClassicVerdictsOnTodaysPackagesStay) {
    const auto rows = Rows("classic.txt");
    ASSERT_EQ(rows.size(), Rows("packages.txt").size());
    for (const auto& row : rows) {
        EXPECT_EQ(Status(kCurrent + row[0], kCurrent + row[1], SigningPolicy::Classic), std::stoi(row[2]))
            << row[0] << " with " << row[1];
    }
}

namespace {

std::string Hex(const Bytes& bytes) {
    std::string hex, digits = "0123456789abcdef";
    for (unsigned char c : bytes) hex += digits[c >> 4], hex += digits[c & 15];
    return hex;
}

// An rpm 6 package written byte by byte: tag 278 holds Base64 signatures over the main header, 273
// and 279 its SHA-256 and SHA3-256, the main header its payload digest (5092, algorithm 5093) and
// its format (5114 = 6).
struct Version6 {
    std::vector<EVP_PKEY*> signers{TestKey(2048)};
    std::string payload = std::string(5000, 'q');
    std::string payloadDigestOf = payload;  // what 5092 is the digest of
    bool tamperSha3 = false;
    std::vector<rpm::Entry> extra;  // more signature-header entries
    // In place of the signatures of 278 and the digest of 5092: these strings (NUL-terminated), so many.
    std::optional<std::pair<Bytes, uint32_t>> signatureTexts, digestTexts;
    bool postQuantum = false;  // a version 6 ML-DSA-65+Ed25519 signature (algorithm 30) after the others
};

// A version 6 signature packet of ML-DSA-65+Ed25519 as the OpenPGP drafts lay it out: salt, issuer
// fingerprint of a key the file does not hold, and 3373 octets of value (nothing verifies it here).
Bytes PostQuantumSignature() {
    const Bytes hashed = pgp::Concat({{5, 2}, pgp::Be(0x68000000, 4), {34, 33, 6}, Bytes(32, 0x5A)});
    return pgp::Packet(2, pgp::Concat({{6, 0x00, 30, 10},
                                       pgp::Be(hashed.size(), 4),
                                       hashed,
                                       pgp::Be(0, 4),
                                       {0x12, 0x34},
                                       {32},
                                       Bytes(32, 0x77),
                                       Bytes(3373, 0x42)}));
}

Bytes KeyIdOf(EVP_PKEY* key) {
    const Bytes packet = pgp::PublicKey(key), body(packet.begin() + 3, packet.end());
    const Bytes fingerprint = HashOf(EVP_sha1(), rpm::Text(pgp::Concat({{0x99}, pgp::Be(body.size(), 2), body})));
    return Bytes(fingerprint.end() - 8, fingerprint.end());
}

std::string WriteVersion6(TempFolder& folder, const std::string& name, const Version6& v) {
    const Bytes digest = HashOf(EVP_sha256(), v.payloadDigestOf), digestText = rpm::BytesOf(Hex(digest) + '\0');
    const std::pair<Bytes, uint32_t> digests = v.digestTexts ? *v.digestTexts : std::make_pair(digestText, 1u);
    const std::string header = rpm::Text(rpm::HeaderBytes({{1000, 6, rpm::BytesOf("hello")},
                                                           {5092, 8, digests.first, digests.second},
                                                           {5093, 4, pgp::Be(8, 4)},
                                                           {5114, 4, pgp::Be(6, 4)}}));
    Bytes signatures;
    std::vector<Bytes> packets;
    for (EVP_PKEY* key : v.signers) {
        pgp::SignatureOptions options;
        options.issuer = KeyIdOf(key);
        packets.push_back(pgp::SignaturePacket(key, header, options));
    }
    if (v.postQuantum) packets.push_back(PostQuantumSignature());
    for (const Bytes& packet : packets) {
        unsigned int length = 0;
        std::unique_ptr<char[]> text(
            Base64::Encode(reinterpret_cast<const char*>(packet.data()), static_cast<unsigned>(packet.size()), length));
        signatures = pgp::Concat({signatures, rpm::BytesOf(std::string(text.get(), length) + '\0')});
    }
    if (v.signatureTexts) signatures = v.signatureTexts->first;
    Bytes sha3 = HashOf(EVP_sha3_256(), header);
    if (v.tamperSha3) sha3[0] ^= 1;
    std::vector<rpm::Entry> entries = {
        {62, 7, Bytes(16, 0)},
        {273, 6, rpm::BytesOf(Hex(HashOf(EVP_sha256(), header)))},
        {278, 8, signatures, v.signatureTexts ? v.signatureTexts->second : static_cast<uint32_t>(packets.size())},
        {279, 6, rpm::BytesOf(Hex(sha3))}};
    entries.insert(entries.end(), v.extra.begin(), v.extra.end());
    Bytes file = pgp::Concat({rpm::Lead(), rpm::HeaderBytes(entries)});
    file.resize((file.size() + 7) & ~size_t(7), 0);
    return folder.Write(name, rpm::Text(file) + header + v.payload);
}

}  // namespace

// rpm 6 packages: every signature of tag 278 must verify, every digest must match, the tags of older
// packages are not read beside 999 and 279; the classic policy refuses them all.
TEST(CurrentPolicy, Version6PackagesFromTheWriter) {
    TempFolder folder;
    const std::string key =
        folder.Write("key.asc", pgp::Armor(pgp::CertifiedKey(TestKey(2048), KeyIdOf(TestKey(2048)))));
    Version6 good, twoSigners, otherOnly, payload, sha3, later, rsaTagToo, reserved, mldsa, mldsaOnly;
    twoSigners.signers = {TestKey(3072), TestKey(2048)};
    otherOnly.signers = {TestKey(3072)};
    payload.payloadDigestOf = std::string(5000, 'r');
    sha3.tamperSha3 = true;
    later.extra = {{1004, 7, HashOf(EVP_md5(), "x")}};
    reserved.extra = {{999, 7, Bytes(32, 0)}, {1002, 7, pgp::SignaturePacket(TestKey(3072), "not the package")}};
    mldsa.postQuantum = mldsaOnly.postQuantum = true;
    mldsaOnly.signers.clear();
    rsaTagToo.extra = {{268, 7, pgp::SignaturePacket(TestKey(3072), "not the header")}};  // not read beside 278
    for (const auto& row : std::vector<std::tuple<std::string, Version6, int>>{{"good", good, 0},
                                                                               {"two-signers", twoSigners, 2},
                                                                               {"other-key", otherOnly, 2},
                                                                               {"payload", payload, 3},
                                                                               {"sha3", sha3, 3},
                                                                               {"later-tag", later, 3},
                                                                               {"reserved", reserved, 0},
                                                                               {"rsa-and-ml-dsa", mldsa, 0},
                                                                               {"ml-dsa-only", mldsaOnly, 1},
                                                                               {"268-beside-278", rsaTagToo, 0}}) {
        const std::string package = WriteVersion6(folder, std::get<0>(row) + ".rpm", std::get<1>(row));
        std::string detail;
        EXPECT_EQ(Status(package, key, SigningPolicy::Current, &detail), std::get<2>(row))
            << std::get<0>(row) << ": " << detail;
        EXPECT_NE(Status(package, key, SigningPolicy::Classic), 0) << std::get<0>(row);
    }
}

// What costs: a tag 278 of a million small signatures, a tag 5092 of a million digests. Each is
// refused (the signatures after the sixteenth, the digests after the 1024th are not read) within a
// second of CPU.
TEST(CurrentPolicy, HostileSignatureAndDigestListsStayBounded) {
    TempFolder folder;
    const std::string key =
        folder.Write("key.asc", pgp::Armor(pgp::CertifiedKey(TestKey(2048), KeyIdOf(TestKey(2048)))));
    Bytes texts;
    for (int i = 0; i < 1000000; ++i) texts.insert(texts.end(), {'Q', 'Q', '=', '=', 0});
    Version6 signatures, digests;
    signatures.signatureTexts = std::make_pair(texts, 1000000u);
    digests.digestTexts = std::make_pair(texts, 1000000u);
    for (const auto& row : std::vector<std::tuple<std::string, Version6, int, std::string>>{
             {"signatures", signatures, 2, "tag 278: more than 16 signatures are not read"},
             {"digests", digests, 3, "tag 5092: more than 1024 digests are not read"}}) {
        const std::string package = WriteVersion6(folder, std::get<0>(row) + ".rpm", std::get<1>(row));
        const std::clock_t start = std::clock();
        RpmReport report;
        const RpmVerifyResult result = rpm_verify_report(package.c_str(), key.c_str(), report, SigningPolicy::Current);
        free(result.message);
        EXPECT_LT(double(std::clock() - start) / CLOCKS_PER_SEC, 1.0) << std::get<0>(row);
        EXPECT_EQ(result.status, std::get<2>(row)) << std::get<0>(row);
        EXPECT_LE(report.checks.size(), 1030u) << std::get<0>(row);
        EXPECT_TRUE(std::any_of(report.checks.begin(), report.checks.end(), [&row](const RpmCheck& c) {
            return c.reason == std::get<3>(row);
        })) << std::get<0>(row);
    }
}

// A header signature covers the payload only through the main header's payload digest; and, as
// today's rpm requires, the header and the payload each need a digest it reads (273 or 279, a payload
// digest), whatever signature covers them.
TEST(CurrentPolicy, HeaderAndPayloadNeedTheirDigests) {
    TempFolder folder;
    const std::string key =
        folder.Write("key.asc", pgp::Armor(pgp::CertifiedKey(TestKey(2048), KeyIdOf(TestKey(2048)))));
    for (const auto& row : std::vector<std::tuple<bool, bool, int, std::string>>{
             {false, false, 5, "The package is signed over its header only, and its header holds no payload digest"},
             {true, false, 3, "The package holds no SHA256 or SHA3-256 digest of its header"},
             {false, true, 0, ""},
             {true, true, 0, ""}}) {
        rpm::PackageOptions o;
        o.header.issuer = KeyIdOf(TestKey(2048));
        o.packages.clear();
        if (std::get<0>(row)) o.packages = {o.header};
        o.digests = std::get<1>(row);
        std::string detail;
        EXPECT_EQ(Status(folder.Write("p.rpm", rpm::Package(o)), key, SigningPolicy::Current, &detail),
                  std::get<2>(row));
        EXPECT_EQ(detail, std::get<3>(row));
    }
}
