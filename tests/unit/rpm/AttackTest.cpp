// The current policy against an attacker who holds a package signed by the publisher and may change
// what is not signed (the signature header, the payload as stored), or who hands the module a hostile
// key file: each row one attack and the status the module must give (0, signed, never for a package
// changed after signing); a key file of 1 MiB costs at most a second and 32 MiB.
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>

#include "Base.h"
#include "Base64.h"
#include "Exceptions.h"
#include "OpenPgpKeyring.h"
#include "RpmReport.h"
#include "RpmWriter.h"
#include "TestSupport.h"

namespace {

using pgp::Be, pgp::Concat, pgp::SignatureOptions;
using rpm::BytesOf, rpm::Entry, rpm::Text;
using Sign = std::function<std::vector<Bytes>(const std::string& header)>;

std::string Hex(const Bytes& bytes) {
    return Base::DumpBufferToString(bytes.data(), bytes.size(), false);
}
// What a signature over a (version 4) key hashes of it: 99, the body's length in two octets, the body.
std::string Framed(const Bytes& keyPacket) {
    const Bytes body(keyPacket.begin() + 3, keyPacket.end());
    return Text(Concat({{0x99}, Be(body.size(), 2), body}));
}
Bytes KeyIdOf(const Bytes& keyPacket) {
    const Bytes print = HashOf(EVP_sha1(), Framed(keyPacket));
    return Bytes(print.end() - 8, print.end());
}
std::string Base64Of(const Bytes& packet) {
    unsigned int length = 0;
    std::unique_ptr<char[]> text(
        Base64::Encode(reinterpret_cast<const char*>(packet.data()), unsigned(packet.size()), length));
    return std::string(text.get(), length);
}

const Bytes& Issuer() {
    static const Bytes issuer = KeyIdOf(pgp::PublicKey(TestKey(2048)));
    return issuer;
}
// Signatures over the header by key (the file's 2048-bit key), as options (issuer: the file's key) say.
Sign Signs(const std::function<void(SignatureOptions&)>& change = nullptr, EVP_PKEY* key = TestKey(2048)) {
    return [change, key](const std::string& header) {
        SignatureOptions o;
        o.issuer = Issuer();
        if (change) change(o);
        return std::vector<Bytes>{pgp::SignaturePacket(key, header, o)};
    };
}

// A package as rpm 6 writes it: a main header (a name, then main), tag 278 with sign's packets over
// it as Base64 (each text through mangle), 273 its SHA-256, then the entries of more.
struct Package {
    std::vector<Entry> main;
    std::string payload = std::string(5000, 'q');
    Sign sign = Signs();
    std::vector<Entry> more = {};
    std::function<std::string(const std::string&)> mangle = nullptr;
};
std::string HeaderOf(const Package& p) {
    std::vector<Entry> entries = {{1000, 6, BytesOf("hello")}};
    entries.insert(entries.end(), p.main.begin(), p.main.end());
    return Text(rpm::HeaderBytes(entries));
}
std::string Write(const TempFolder& folder, const std::string& name, const Package& p) {
    const std::string header = HeaderOf(p);
    const std::vector<Bytes> packets = p.sign(header);
    std::string texts;
    for (const Bytes& packet : packets) texts += (p.mangle ? p.mangle(Base64Of(packet)) : Base64Of(packet)) + '\0';
    std::vector<Entry> entries = {{62, 7, Bytes(16, 0)},
                                  {273, 6, BytesOf(Hex(HashOf(EVP_sha256(), header)))},
                                  {278, 8, BytesOf(texts), uint32_t(packets.size())}};
    entries.insert(entries.end(), p.more.begin(), p.more.end());
    Bytes file = Concat({rpm::Lead(), rpm::HeaderBytes(entries)});
    file.resize((file.size() + 7) & ~size_t(7), 0);
    return folder.Write(name, Text(file) + header + p.payload);
}
// A payload digest entry: the SHA-256 of of, in a string array (type 8) or a string (6).
Entry Digest(uint32_t tag, const std::string& of, uint32_t type = 8) {
    return Entry{tag, type, BytesOf(Hex(HashOf(EVP_sha256(), of)) + (type == 8 ? std::string(1, '\0') : ""))};
}
const std::string& Stored() {
    static const std::string stored(5000, 'q');
    return stored;
}
Package Good() {
    return Package{{Digest(5092, Stored())}};
}

// Each package against the key file's text (default: the 2048-bit key, certified by itself).
void Expect(const std::vector<std::tuple<const char*, Package, int>>& rows, const std::string& keyText = "") {
    TempFolder folder;
    const std::string key =
        folder.Write("key", keyText.empty() ? pgp::Armor(pgp::CertifiedKey(TestKey(2048), Issuer())) : keyText);
    for (const auto& [what, package, status] : rows) {
        RpmReport report;
        const std::string path = Write(folder, std::string(what) + ".rpm", package);
        const RpmVerifyResult result = rpm_verify_report(path.c_str(), key.c_str(), report, SigningPolicy::Current);
        EXPECT_EQ(result.status, status) << what << ": " << result.message << " | " << report.detail;
        free(result.message);
    }
}

}  // namespace

// The header signature covers the payload as stored through the main header's payload digests only.
TEST(Attack, AChangedPayloadNeverPasses) {
    const std::string archive(7000, 'a'), other(5000, 'x');
    const Entry filler{1001, 7, Bytes(0x10000 - 40, 'f')};  // the digest text then crosses 64 KiB
    Expect({
        {"changed", {{Digest(5092, Stored())}, other}, 3},
        {"digest across a block boundary", {{filler, Digest(5092, Stored())}}, 0},
        {"changed, digest across a block boundary", {{filler, Digest(5092, Stored())}, other}, 3},
        {"digest as an integer: not read", {{{5092, 4, Be(1, 4)}}, other}, 5},
        {"digest as a string", {{Digest(5092, Stored(), 6)}, other}, 3},
        {"ALT alone, changed", {{Digest(5097, Stored())}, other}, 3},
        {"the first of two 5092 entries counts", {{Digest(5092, other), Digest(5092, Stored())}}, 3},
        // rpmbuild's ALT digests are of the uncompressed archive: stored in place of the compressed
        // payload, the archive matches 5097, and the failure of 5092 must not be excused.
        {"archive stored in place of the payload", {{Digest(5092, Stored()), Digest(5097, archive)}, archive}, 3},
    });
}

// The signature header is anyone's to rewrite: only a signature by the file's key over this main
// header, of a binary document, signs.
TEST(Attack, ARewrittenSignatureHeaderNeverPasses) {
    const auto with = [](Sign sign, std::vector<Entry> more = {},
                         std::function<std::string(const std::string&)> mangle = nullptr) {
        return Package{{Digest(5092, Stored())}, Stored(), std::move(sign), std::move(more), std::move(mangle)};
    };
    const auto appended = [](const Bytes& tail) {
        return [tail](const std::string& header) { return std::vector<Bytes>{Concat({Signs()(header)[0], tail})}; };
    };
    const Sign badThenGood = [](const std::string& header) {
        return std::vector<Bytes>{Signs()(header + "x")[0], Signs()(header)[0]};
    };
    const Entry goodEntry{278, 8, BytesOf(Base64Of(Signs()(HeaderOf(Good()))[0]) + '\0')};
    const Entry badEntry{278, 8, Concat({BytesOf("AAAA"), {0}})};
    const Entry foreign268{268, 7, pgp::SignaturePacket(TestKey(3072), "x")}, foreign1002{1002, 7, foreign268.value};
    const Bytes otherPrint = HashOf(EVP_sha1(), Framed(pgp::PublicKey(TestKey(3072))));
    Expect({
        {"baseline", Good(), 0},
        {"another key names the file's", with(Signs(nullptr, TestKey(3072))), 2},
        {"fingerprint of another key, key ID of the file's", with(Signs([&](SignatureOptions& o) {
             o.hashedExtra = Concat({{22, 33, 4}, otherPrint});
         })),
         2},
        {"text signature", with(Signs([](SignatureOptions& o) { o.type = 0x01; })), 2},
        {"value off", with(Signs([](SignatureOptions& o) { o.breakValue = true; })), 2},
        {"a byte after the packet", with(appended({0})), 2},
        {"a packet after the packet", with(appended(Signs()("x")[0])), 2},
        {"a bad signature before the good one", with(badThenGood), 2},
        {"a second 278, good, after a bad one",
         with(Signs([](SignatureOptions& o) { o.breakValue = true; }), {goodEntry}), 2},
        {"a second 278, bad, after a good one", with(Signs(), {badEntry}), 0},
        {"268 and 1002 of another key beside 278", with(Signs(), {foreign268, foreign1002}), 0},
        {"64 KiB of spaces before the Base64",
         with(Signs(), {}, [](const std::string& t) { return std::string(0x10000, ' ') + t; }), 0},
        // rpm's Base64 decoder refuses a '-'; OpenSSL's stops at one.
        {"text after a dash", with(Signs(), {}, [](const std::string& t) { return t + "-AAAA"; }), 2},
    });
}

// A key revoked by its owner signs nothing, wherever the key file holds the revocation: after the key,
// after its user ID (a revocation certificate appended to the key), in an armored block of its own
// (the certificate gpg writes, pasted below the key).
TEST(Attack, ARevokedKeySignsNothingWhereverTheRevocationStands) {
    const Bytes key = pgp::PublicKey(TestKey(2048)), certified = pgp::CertifiedKey(TestKey(2048), Issuer());
    const Bytes rest(certified.begin() + long(key.size()), certified.end());
    SignatureOptions o;
    o.type = 0x20, o.issuer = Issuer(), o.created = 0x61000000;
    const Bytes revocation = pgp::SignaturePacket(TestKey(2048), Framed(key), o);
    const Bytes other = pgp::SignaturePacket(TestKey(3072), Framed(key), o);
    for (const auto& [what, keyText, status] : std::vector<std::tuple<const char*, std::string, int>>{
             {"after the key", pgp::Armor(Concat({key, revocation, rest})), 1},
             {"by another key", pgp::Armor(Concat({key, other, rest})), 0},
             {"after the user ID", pgp::Armor(Concat({certified, revocation})), 1},
             {"in a block of its own", pgp::Armor(certified) + pgp::Armor(revocation), 1},
         }) {
        SCOPED_TRACE(what);
        Expect({{what, Good(), status}}, keyText);
    }
}

namespace {

// n random octets, the first under top (so that a value stays under a modulus), the last odd.
Bytes Random(size_t n, unsigned char top = 0xFF) {
    Bytes bytes(n);
    RAND_bytes(bytes.data(), int(n));
    bytes[0] = std::max<unsigned char>(1, bytes[0] % top), bytes[n - 1] |= 1;
    return bytes;
}

// A key of algorithm with material, made at created, then 4 user IDs with 32 self-signatures each
// (the bound of one) whose values (value()) are random under the right quick-check octets: each
// costs a whole verification to refuse.
Bytes HostileKey(unsigned char algorithm, const Bytes& material, uint32_t created,
                 const std::function<Bytes()>& value) {
    const Bytes key = pgp::Packet(6, Concat({{4}, Be(created, 4), {algorithm}, material}));
    Bytes block = key;
    for (unsigned char id = 'a'; id < 'e'; ++id) {
        const Bytes area = {5, 2, 0x60, 0, 0, 0}, fields = Concat({{4, 0x13, algorithm, 8}, Be(area.size(), 2), area});
        const std::string data =
            Framed(key) + Text(Concat({{0xB4}, Be(1, 4), {id}, fields, {4, 0xFF}, Be(fields.size(), 4)}));
        const Bytes digest = HashOf(EVP_sha256(), data), uid = pgp::UserId(std::string(1, char(id)));
        block.insert(block.end(), uid.begin(), uid.end());
        for (int i = 0; i < 32; ++i) {
            const Bytes self = pgp::Packet(2, Concat({fields, {0, 0, digest[0], digest[1]}, value()}));
            block.insert(block.end(), self.begin(), self.end());
        }
    }
    return block;
}

// How far the peak memory of a child process grows while it runs action, in KiB (-1: unknown).
long PeakGrowth(const std::function<void()>& action) {
    int channel[2];
    if (pipe(channel) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
        rusage before{}, after{};
        getrusage(RUSAGE_SELF, &before);
        action();
        getrusage(RUSAGE_SELF, &after);
        const long growth = after.ru_maxrss - before.ru_maxrss;
        _exit(write(channel[1], &growth, sizeof growth) == sizeof growth ? 0 : 1);
    }
    long growth = -1;
    if (read(channel[0], &growth, sizeof growth) != sizeof growth) growth = -1;
    waitpid(child, nullptr, 0);
    close(channel[0]), close(channel[1]);
    return growth;
}

}  // namespace

// The file's key, then hostile keys up to 1 MiB: the package verifies within a second of processor
// time (four under a sanitizer, which slows the arithmetic down but not the module's cost budget,
// an estimate made before each check).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const double kSecondsOfWork = 4.0;
#else
const double kSecondsOfWork = 1.0;
#endif
TEST(Attack, AKeyFileOfCostlySelfSignaturesStaysBounded) {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> ec(EVP_EC_gen("P-384"), EVP_PKEY_free);
    Bytes point(97);
    size_t length = 0;
    EVP_PKEY_get_octet_string_param(ec.get(), "encoded-pub-key", point.data(), point.size(), &length);
    Bytes n = Random(2048), p = Random(512), q = Random(32);
    n[0] |= 0x80, p[0] |= 0x80, q[0] |= 0x80;
    const std::vector<std::tuple<const char*, unsigned char, Bytes, std::function<Bytes()>>> kinds = {
        {"ECDSA P-384", 19, Concat({{5, 0x2B, 0x81, 0x04, 0x00, 0x22}, pgp::Mpi(point)}),
         [] {
             return Concat({pgp::Mpi(Random(48, 0x7F)), pgp::Mpi(Random(48, 0x7F))});
         }},
        {"RSA 16384, exponent of 64 bits", 1, Concat({pgp::Mpi(n), pgp::Mpi(Bytes(8, 0xFF))}),
         [] { return pgp::Mpi(Random(2048, 0x7F)); }},
        {"DSA 4096", 17, Concat({pgp::Mpi(p), pgp::Mpi(q), pgp::Mpi(Random(511)), pgp::Mpi(Random(511))}),
         [] {
             return Concat({pgp::Mpi(Random(31)), pgp::Mpi(Random(31))});
         }},
    };
    for (const auto& [what, algorithm, material, value] : kinds) {
        Bytes file = pgp::CertifiedKey(TestKey(2048), Issuer());
        for (uint32_t created = 0x5F000000;; ++created) {
            const Bytes key = HostileKey(algorithm, material, created, value);
            if (file.size() + key.size() > (1u << 20)) break;
            file.insert(file.end(), key.begin(), key.end());
        }
        const std::clock_t start = std::clock();
        Expect({{what, Good(), 0}}, Text(file));
        EXPECT_LT(double(std::clock() - start) / CLOCKS_PER_SEC, kSecondsOfWork)
            << what << ", " << file.size() << " bytes";
    }
}

// An armored key file of 1 MiB of empty lines grows memory by less than 32 MiB.
TEST(Attack, AKeyFileOfEmptyLinesStaysSmall) {
    const std::string text = "-----BEGIN PGP PUBLIC KEY BLOCK-----\n" + std::string((1u << 20) - 80, '\n') +
                             "-----END PGP PUBLIC KEY BLOCK-----\n";
    const long growth = PeakGrowth([&text] {
        try {
            OpenPgpKeyring::Parse(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        } catch (const DataFormatException&) {
        }
    });
    EXPECT_GE(growth, 0);
    EXPECT_LT(growth, 32 * 1024);
}
