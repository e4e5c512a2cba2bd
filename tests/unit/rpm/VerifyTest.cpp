// Packages through rpm_verify (rows in tests/data/vectors/rpm-verdicts.vec), then the digest slots
// across payload blocks and the copy to an output file.
#include <algorithm>
#include <map>

#include "Digest.h"
#include "OpenPgpKeyring.h"
#include "RpmReport.h"
#include "RpmTestSupport.h"

namespace {

using Sig = pgp::SignatureOptions;

bool Known(const std::string& list, const std::string& w) {
    return (" " + list + " ").find(" " + w + " ") != -1ul;
}

Sig Kind(Sig s, const std::string& kind) {
    EXPECT_TRUE(
        Known("good bits foreign broken zero text standalone certification revocation critical "
              "known-critical not-critical long long-critical cut none",
              kind))
        << kind;
    s.breakLeft16 = kind == "bits", s.breakValue = kind == "broken", s.leadingZero = kind == "zero";
    if (kind == "foreign") s.issuer = Bytes(8, 0x77);
    const std::map<std::string, unsigned char> types = {
        {"text", 0x01}, {"standalone", 0x02}, {"certification", 0x13}, {"revocation", 0x20}};
    if (types.count(kind)) s.type = types.at(kind);
    // Hashed subpackets after the creation time: type 100 (private) critical or not, a second
    // creation time marked critical, lengths of two octets (200) and of five (3), a length that runs
    // past the area.
    const std::map<std::string, Bytes> extra = {{"critical", {2, 0x80 | 100, 0}},
                                                {"not-critical", {2, 100, 0}},
                                                {"known-critical", {5, 0x82, 0x60, 0, 0, 0}},
                                                {"long", Concat({{192, 8, 100}, Bytes(199, 0)})},
                                                {"long-critical", {255, 0, 0, 0, 3, 0x80 | 100, 0, 0}},
                                                {"cut", {9, 100, 0}}};
    if (extra.count(kind)) s.hashedExtra = extra.at(kind);
    return s;
}

// An entry of a tag the classic writer leaves out (see policy-tags.vec): good, or bad (a digest of
// other bytes, a signature by another issuer).
Entry Added(const PackageOptions& o, uint32_t tag, const std::string& kind) {
    const bool good = kind == "good";
    const std::string header = Text(MainHeader(o)), data = good ? header : header + "x";
    Sig signature;  // version 4, SHA-256, whatever the row did to the writer's own signatures
    signature.issuer = good ? o.header.issuer : Bytes(8, 0x77);
    const auto hex = [](const Bytes& bytes) {
        std::string text, digits = "0123456789abcdef";
        for (unsigned char c : bytes) text += digits[c >> 4], text += digits[c & 15];
        return text;
    };
    switch (tag) {
        case 273: return {273, 6, BytesOf(hex(HashOf(EVP_sha256(), data)))};
        case 279: return {279, 6, BytesOf(hex(HashOf(EVP_sha3_256(), data)))};
        case 267: return {267, 7, pgp::SignaturePacket(o.key, header, signature)};
        case 1005: return {1005, 7, pgp::SignaturePacket(o.key, header + o.payload, signature)};
        default: break;
    }
    // 278: the Base64 text of a signature packet over the header, in a string array.
    const Bytes packet = pgp::SignaturePacket(o.key, header, signature);
    std::string text(4 * ((packet.size() + 2) / 3) + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), packet.data(), static_cast<int>(packet.size()));
    return {278, 8, BytesOf(text.c_str() + std::string(1, '\0')), 1u};
}

// The package a row's changes describe (see rpm-verdicts.vec).
std::string Write(const std::string& changes, const Bytes& issuer = Sig().issuer) {
    PackageOptions o;
    o.header.issuer = issuer;
    Sig base = o.header;
    std::string header = "good", packages = "good", name, kind;
    uint32_t tag = 0, number = 0;
    std::istringstream in(changes);
    while (in >> name && name != ";") {
        EXPECT_TRUE(Known("unsigned version hash header packages payload no digests", name)) << name;
        if (name == "unsigned") o.key = nullptr;
        if (name == "digests") o.digests = true;
        if (name == "version") in >> base.version;
        if (name == "hash") in >> base.hashId;
        if (name == "header") in >> header;
        if (name == "packages") in >> packages;
        if (name == "payload" && in >> number) o.payload.resize(number);
        if (name == "no" && in >> tag) (tag == 269 ? o.sha1 : o.md5) = false;
    }
    o.headerSignature = header != "none";
    o.header = Kind(base, header);
    std::istringstream list(packages);
    for (o.packages.clear(); std::getline(list, kind, ',');) {
        if (kind != "none") o.packages.push_back(Kind(base, kind));
    }
    std::vector<Entry> entries = SignatureEntries(o);
    while (in >> name >> tag) {  // after ";": changes to the signature header's entries
        EXPECT_TRUE(Known("flip upper longer shorter before after moved count add drop", name)) << name;
        if (name == "add" && in >> kind) {
            entries.push_back(Added(o, tag, kind));
            continue;
        }
        if (name == "drop") {
            entries.erase(std::remove_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.tag == tag; }),
                          entries.end());
            continue;
        }
        auto entry = std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.tag == tag; });
        Entry second = *entry;
        second.value[0] ^= 1;
        if (name == "flip" && in >> number) entry->value[number] ^= 1;
        if (name == "count" && in >> number) entry->count = number;
        if (name == "upper") std::transform(entry->value.begin(), entry->value.end(), entry->value.begin(), ::toupper);
        if (name == "longer") entry->value.push_back('0');
        if (name == "shorter") entry->value.pop_back();
        if (name == "after" && tag == 268 && in >> kind) {
            second.value = pgp::SignaturePacket(o.key, Text(MainHeader(o)), Kind(base, kind));
        }
        if (name == "before" || name == "after") entries.insert(name == "before" ? entry : entries.end(), second);
        if (name == "moved" && in >> number) {
            const std::string moved(number, 'p');
            const Bytes genuine = pgp::SignaturePacket(o.key, Text(MainHeader(o)) + o.payload + moved, o.packages[0]);
            const Bytes hashed = Concat({{3, static_cast<unsigned char>(5 + number)}, BytesOf(moved)});
            entry->value = pgp::Packet(2, Concat({hashed, Bytes(genuine.begin() + 5, genuine.end())}));
        }
    }
    return Package(o, &entries);
}

}  // namespace

TEST(RpmVerify, Verdicts) {
    TempFolder temp;
    const std::string key = KeyFile(temp), path = temp / "p.rpm";
    for (auto [changes, expected] : ReadVectors("rpm-verdicts.vec").rows) {
        temp.Write("p.rpm", Write(changes));
        if (expected.find('@') != std::string::npos) expected.replace(expected.find('@'), 1, path);
        EXPECT_EQ(Verify(path, key), expected) << changes;
    }
}

// The tag table read under each policy (rows in tests/data/vectors/policy-tags.vec): the same
// package, classic verdict then current one.
TEST(RpmVerify, PolicyTagTable) {
    TempFolder temp;
    // Signatures name the key by its fingerprint's key ID, which the current policy matches.
    const std::string id = OpenPgpKeyring::Parse(pgp::KeyBlock(TestKey(2048), Sig().issuer).data(),
                                                 pgp::KeyBlock(TestKey(2048), Sig().issuer).size())
                               .Keys()
                               .front()
                               .keyId;
    Bytes issuer;
    for (size_t i = 0; i < id.size(); i += 2) {
        issuer.push_back(static_cast<unsigned char>(std::stoi(id.substr(i, 2), nullptr, 16)));
    }
    const std::string key = KeyFile(temp, issuer), path = temp / "p.rpm";
    for (auto [changes, expected] : ReadVectors("policy-tags.vec").rows) {
        // With the digests today's rpm requires (273 and 5092), unless a row drops them.
        temp.Write("p.rpm", Write("digests " + changes, issuer));
        std::string verdicts;
        for (const SigningPolicy policy : {SigningPolicy::Classic, SigningPolicy::Current}) {
            RpmReport report;
            RpmVerifyResult result = rpm_verify_report(path.c_str(), key.c_str(), report, policy);
            verdicts += (verdicts.empty() ? "" : " || ") + std::to_string(result.status) +
                        (report.detail.empty() ? "" : " " + report.detail);
            std::free(result.message);
        }
        EXPECT_EQ(verdicts, expected) << changes;
    }
}

// Slots 0-2 cover the main header, 3-5 header and payload: SHA-1 or MD5, the header signature's hash,
// and SHA-1 again when that is not SHA-1. The payload is read in blocks of 65536 bytes.
TEST(RpmVerify, DigestSlotsAcrossPayloadBlocks) {
    TempFolder temp;
    struct Case {
        int hashId;
        size_t total;
    };  // total: main header and payload; hash 0: no header signature
    for (const Case& c : {Case{0, 65536}, Case{2, 65535}, Case{8, 2 * 65536}, Case{1, 65537}, Case{10, 2 * 65536 + 1},
                          Case{9, 3 * 65536}, Case{11, 100}}) {
        PackageOptions o;
        o.headerSignature = c.hashId != 0;
        o.header.hashId = c.hashId;
        o.payload = std::string(c.total - MainHeader().size(), 'q');
        const std::string package = Package(o);
        std::unique_ptr<RpmSigner> signer = SignerFor(temp.Write("d.rpm", package));
        signer->SetOutputFile(new FileHelper(temp.Path() + "/", "out.rpm", false));
        unsigned int offset = 0;
        std::unique_ptr<RpmSignature> signature(signer->ParseSignature(offset, true));
        signer->PassDigestsToSignature(signature.get(), offset, true);
        const EVP_MD *hash = c.hashId ? pgp::MdOf(c.hashId) : EVP_sha1(), *extra = hash != EVP_sha1() ? EVP_sha1() : 0;
        const EVP_MD* slots[] = {EVP_sha1(), hash, extra, EVP_md5(), hash, extra};
        for (int i = 0; i < 6; ++i) {
            DigestBase* digest = signature->GetDigest(i);
            ASSERT_EQ(digest != nullptr, slots[i] != nullptr) << i;
            if (digest == nullptr) continue;
            const unsigned char* value = digest->GetValue();
            const std::string data = Text(MainHeader()) + (i < 3 ? "" : o.payload);
            EXPECT_EQ(Bytes(value, value + digest->GetLength()), HashOf(slots[i], data)) << c.total << "/" << i;
        }
        // The copy: the lead, then everything from the main header on.
        std::ifstream copied(temp / "out.rpm", std::ios::binary);
        const std::string copy(std::istreambuf_iterator<char>(copied), {});
        EXPECT_TRUE(copy == package.substr(0, 96) + package.substr(package.size() - c.total)) << c.total;
        signer.reset();  // the signer removes its output file
        EXPECT_FALSE(FileHelper::IsExist(temp / "out.rpm"));
    }
}

// Packages from 512 KiB on are hashed on two threads, MD5 on the second, the signed hash on the first: a
// flipped payload byte at the start, in the middle or in the last block is caught by MD5, and by the
// package signature when the package's MD5 value was made over the changed payload.
TEST(RpmVerify, LargePackagesAreHashedOnTwoThreads) {
    TempFolder temp;
    const std::string key = KeyFile(temp), path = temp / "big.rpm";
    for (const size_t payload : {size_t{1} << 20, (size_t{3} << 20) + 12345}) {
        PackageOptions o;
        o.payload.resize(payload);
        for (size_t i = 0; i < payload; ++i) o.payload[i] = static_cast<char>(i * 131 % 251);
        const std::vector<Entry> entries = SignatureEntries(o);
        EXPECT_EQ(Verify(temp.Write("big.rpm", Package(o)), key), "0 " + path + " is signed.") << payload;
        for (const size_t flip : {size_t{0}, payload / 2, payload - 1}) {
            PackageOptions changed = o;
            changed.payload[flip] ^= 1;
            EXPECT_EQ(Verify(temp.Write("big.rpm", Package(changed, &entries)), key),
                      "3 " + path + " has invalid hash. | Invalid value of MD5 hash")
                << payload << " " << flip;
            std::vector<Entry> md5Matches = entries;
            for (Entry& entry : md5Matches) {
                if (entry.tag == 1004) entry.value = HashOf(EVP_md5(), Text(MainHeader()) + changed.payload);
            }
            EXPECT_EQ(Verify(temp.Write("big.rpm", Package(changed, &md5Matches)), key).substr(0, 2), "2 ")
                << payload << " " << flip;
        }
    }
}
