// OpenPGP as tables (tests/data/vectors/openpgp-*.vec): Base64 and Radix-64, packets, integers, the
// armor search, signatures checked against keys made here, the certificate manager and gpg's keys.
#include <sstream>

#include "../crypto/Vectors.h"
#include "ByteCursor.h"
#include "CertificateManager.h"
#include "Digest.h"
#include "Exceptions.h"
#include "PgpKey.h"
#include "PgpSignature.h"
#include "PgpWriter.h"
#include "TestSupport.h"

using namespace pgp;

namespace {

const Bytes kIssuer(8, 0x11);  // the writer's default issuer
TempFolder temp;

// A copy of exactly the given bytes (or hex), so that a read past them is caught by the sanitizers.
std::vector<char> Exact(const std::string& text) {
    return std::vector<char>(text.begin(), text.end());
}
std::vector<char> Raw(const std::string& hex) {
    return Exact(Text(Unhex(hex)));
}
// The size of a buffer made here as the length the module's interfaces take.
template <typename Buffer>
unsigned int Length(const Buffer& buffer) {
    return static_cast<unsigned int>(buffer.size());
}
std::string Value(const MPI* mpi) {
    return Hex(mpi->GetValue(), static_cast<size_t>(mpi->GetLengthInBytes()));
}
int Number(const std::string& text) {
    return std::stoi(text);
}
std::string Number(uint64_t value) {
    return std::to_string(value);
}
PgpSignatureVersion Version(const std::string& text) {
    return PgpSignatureVersion(Number(text));
}
soapWrap::CertificateFileFormat Format(const std::string& t) {
    return soapWrap::CertificateFileFormat(Number(t));
}
CertificateManager& Manager() {
    return *CertificateManager::Instance();
}

// "key BITS N E; sig vV tTYPE aALG hHASH H/U issuer ID left BITS value V", or "-".
std::string Summary(const std::string& input) {
    const std::vector<char> bytes = Exact(input);
    const PgpMessage message(bytes.data(), Length(bytes));
    std::string text;
    if (const PgpPublicKey* key = message.GetPublicKey())
        text = "key " + std::to_string(key->GetModulus()->GetLengthInBits()) + " " + Value(key->GetModulus()) + " " +
               Value(key->GetExponent());
    if (const PgpSignatureData* s = message.GetSignatureData()) {
        char head[64];
        snprintf(head, sizeof head, "sig v%d t%02x a%d h%d %d/%d issuer ", s->GetVersion(), s->GetSignatureType(),
                 s->GetPublicKeyAlgorithm(), s->GetHashAlgorithm(), s->GetHashedLength(), s->GetUnhashedLength());
        text += (text.empty() ? "" : "; ") + std::string(head) + Hex(s->GetIssuerId(), 8) + " left " +
                Hex(s->GetLeft16(), 2) + " value " + Value(s->GetSignatureValue());
    }
    return text.empty() ? "-" : text;
}
// Encoders take hex and answer text, decoders the other way round.
std::string Coded(char* (*codec)(const char*, unsigned int, unsigned int&), const std::string& input, bool encode) {
    const std::vector<char> bytes = Exact(encode ? Text(Unhex(input)) : input);
    unsigned int length = 0;
    std::unique_ptr<char[]> out(codec(bytes.data(), Length(bytes), length));
    return encode ? std::string(out.get(), length) : Hex(reinterpret_cast<unsigned char*>(out.get()), length);
}
// Key files made here: an armored, binary and CRLF-armored key block (issuer 11..), a
// bare key, and blocks whose last signature packet names another issuer (99..) or the right one;
// any other name is one of gpg's keys in tests/data/keys.
std::string KeyFile(const std::string& name) {
    static std::map<std::string, std::string> files;
    if (files.empty()) {
        EVP_PKEY* key = TestKey(2048);
        SignatureOptions mine, theirs;
        mine.type = theirs.type = 0x13, theirs.issuer = Bytes(8, 0x99);
        const Bytes block = KeyBlock(key, kIssuer), own = SignaturePacket(key, "key", mine),
                    foreign = SignaturePacket(key, "key", theirs);
        files = {{"armored", Armor(block)},
                 {"binary", Text(block)},
                 {"bare", Armor(PublicKey(key))},
                 {"crlf", Armor(block, "\r\n", "Version: 1\r\nComment: x\r\n")},
                 {"foreign-last", Text(Concat({PublicKey(key), own, UserId("u"), foreign}))},
                 {"own-last", Text(Concat({PublicKey(key), foreign, own}))},
                 {"key-last", Text(Concat({own, PublicKey(key)}))}};
        for (auto& file : files) file.second = temp.Write(file.first, file.second);
    }
    return files.count(name) ? files.at(name) : std::string(SIGNING_TEST_DATA) + "/keys/" + name;
}
// The check of a signature packet over "payload" with the key file: the result and its text.
std::string Check(const char* packet, unsigned int size, const std::string& keyFile) {
    Manager().SetPgpPublicKeyFilePath(KeyFile(keyFile));
    const PgpMessage message(packet, size);
    PgpSignature signature(message.GetSignatureData());
    Digest digest(signature.GetHashAlgorithm());
    digest.Update("payload", 7);
    signature.SetDigest(0, &digest);  // borrowed
    std::string text;
    const int result = signature.Verify(text);
    return std::to_string(result) + text;
}
// verify | key file | words: the words name the signature's options (vN version, hN hash id, foreign
// issuer, near: the issuer's last octet changed, left or left2: the first or second quick-check octet
// broken, value broken, zero: a value with a leading zero octet, key3072: another key).
std::string Verify(const Args& a) {
    SignatureOptions o;
    EVP_PKEY* signer = TestKey(2048);
    std::istringstream words(a[1]);
    for (std::string w; words >> w;) {
        if (w.size() < 4) (w[0] == 'v' ? o.version : o.hashId) = std::stoi(w.substr(1));  // v3, h10
        o.issuer = w == "foreign" ? Bytes(8, 0x99) : o.issuer;
        if (w == "near") o.issuer.back() ^= 0x01;
        o.breakLeft16 |= (w == "left" ? 1 : 0) | (w == "left2" ? 2 : 0);
        o.breakValue |= w == "value", o.leadingZero |= w == "zero";
        signer = w == "key3072" ? TestKey(3072) : signer;
    }
    const std::string packet = Text(SignaturePacket(signer, "payload", o));
    return Check(packet.data(), Length(packet), a[0]);
}
// sign | version: a packet the module builds, hashes (UpdateHash) and writes around an RSA value
// (Sign, its quick check from digest 0 holding that hash) => written/expected size, its check.
std::string Sign(const Args& a) {
    PgpSignatureData built(Version(a[0]), Text(kIssuer).c_str(), 2048, PgpSignatureBinaryDocument, PgpHashSha256);
    PgpSignature signature(&built);
    Digest data(soapWrap::Sha256);
    data.Update("payload", 7);
    signature.SetDigest(0, &data);
    DigestBase* hash = signature.UpdateHash();
    Bytes value = SignDigest(TestKey(2048), EVP_sha256(), Bytes(hash->GetValue(), hash->GetValue() + 32));
    soapWrap::Binary in{value.data(), static_cast<uint32_t>(value.size())}, out{};
    std::string text;
    signature.SetDigest(0, hash);  // the store owns it from here, and leaves data to its owner
    signature.Sign(&out, &in, text);
    std::unique_ptr<unsigned char[]> owned(out.data);
    return std::to_string(out.length) + "/" + std::to_string(signature.GetSize()) + " " +
           Check(reinterpret_cast<const char*>(out.data), out.length, "armored");
}

// cursor | hex | steps: u8, u16, u32, skip N, take N (the view taken), has N, at OFFSET N; "try"
// before a step answers "refused" for a step that throws; the position comes last.
std::string Cursor(const Args& a) {
    const std::vector<char> bytes = Raw(a[0]);
    ByteCursor cursor(bytes.data(), bytes.size(), "Test data");
    std::istringstream words(a[1]);
    auto n = [&] {
        std::string w;
        words >> w;
        return std::stoull(w);
    };
    auto step = [&](const std::string& op) -> std::string {
        char text[16];
        if (op[0] == 'u') {
            const int bits = std::stoi(op.substr(1));
            const uint32_t v = bits == 8 ? cursor.ReadUInt8() : bits == 16 ? cursor.ReadUInt16() : cursor.ReadUInt32();
            snprintf(text, sizeof text, "%0*x ", bits / 4, v);
            return text;
        }
        if (op == "skip") {
            cursor.Skip(n());
            return "";
        }
        if (op == "take") {
            const ByteCursor view = cursor.Take(n());
            return "[" + Hex(view.Here(), static_cast<size_t>(view.Size())) + "] ";
        }
        if (op == "has") return cursor.Has(n()) ? "yes " : "no ";
        const uint64_t offset = n();
        return cursor.HasAt(offset, n()) ? "yes " : "no ";
    };
    std::string text;
    for (std::string op; words >> op;) {
        const bool trying = op == "try";
        if (trying) words >> op;
        try {
            text += step(op);
        } catch (const DataFormatException&) {
            if (!trying) throw;
            text += "refused ";
        }
    }
    return text + "@" + Number(cursor.Position());
}

std::string Certificate(::Certificate* certificate) {
    const PgpCertificate* c = dynamic_cast<PgpCertificate*>(certificate);
    const PgpSignatureData* s = c ? c->GetMessage()->GetSignatureData() : nullptr;
    return c == nullptr ? "none" : std::to_string(c->GetKeyLength()) + " " + (s ? Hex(s->GetIssuerId(), 8) : "-");
}

const Operations kOperations = {
    {"base64", [](const Args& a) { return Coded(Base64::Encode, a[0], true); }},
    {"unbase64", [](const Args& a) { return Coded(Base64::Decode, a[0], false); }},
    {"radix64", [](const Args& a) { return Coded(Radix64::Encode, a[0], true); }},
    {"unradix64", [](const Args& a) { return Coded(Radix64::Decode, a[0], false); }},
    {"crc24", [](const Args& a) { return std::to_string(Radix64::Crc24(Raw(a[0]).data(), Length(Unhex(a[0])))); }},
    {"packets", [](const Args& a) { return Summary(Text(Unhex(a[0]))); }},
    {"packets-text", [](const Args& a) { return Summary(a[0]); }},
    {"cursor", Cursor},
    {"armor",
     [](const Args& a) {
         const std::vector<char> text = Exact(a[0]);
         char* body = nullptr;
         unsigned int n = 0;
         const bool found = PgpMessage::SkipHeader(text.data(), text.size(), &body, n);
         return found ? "[" + std::string(body, n) + "]" : "not found";
     }},
    {"mpi",
     [](const Args& a) {
         const std::vector<char> bytes = Raw(a[0]);
         std::unique_ptr<MPI> m(a.size() == 2 ? new MPI(bytes.data(), std::stoull(a[1]))
                                              : new MPI(bytes.data(), std::stoull(a[1]), std::stoull(a[2])));
         return Number(m->GetLengthInBits()) + "/" + Number(m->GetLengthInBytes()) + ":" + Value(m.get());
     }},
    {"length-tag",
     [](const Args& a) {
         unsigned int header = 0;
         const uint32_t length = PgpPacket::ParseLengthTag(Raw(a[0]).data(), header);
         return Number(length) + "/" + Number(header);
     }},
    {"build",
     [](const Args& a) {
         const PgpSignatureData d(Version(a[0]), "12345678", 2048, PgpSignatureType(Number(a[1])),
                                  PgpHashAlgorithm(Number(a[2])));
         return Number(d.GetHashedLength()) + "/" + Number(d.GetUnhashedLength()) + " " + Hex(d.GetHashedData(), 1);
     }},
    {"size", [](const Args& a) { return std::to_string(PgpSignature::GetSize(Version(a[0]), Number(a[1]))); }},
    {"signed-size", [](const Args&) { return std::to_string(PgpSignature(nullptr).GetSignedSize()); }},
    {"verify", Verify},
    {"sign", Sign},
    {"load", [](const Args& a) { return Certificate(Manager().LoadCertificateFromFile(KeyFile(a[0]), Format("2"))); }},
    {"key-file",
     [](const Args& a) {  // copied to one path, which the manager reads again on each load
         if (!a[0].empty()) remove((temp / "key").c_str()), std::filesystem::copy_file(KeyFile(a[0]), temp / "key");
         Manager().SetPgpPublicKeyFilePath(a[0].empty() ? "" : temp / "key");
         return "";
     }},
    {"load-key", [](const Args&) { return Certificate(Manager().LoadPgpPublicKey()); }},
    {"kept", [](const Args& a) { return Certificate(Manager().GetCertificate(Format(a[0]))); }},
    {"create",
     [](const Args& a) {
         return Certificate(Manager().CreateCertificate(Raw(a[1]).data(), Length(Unhex(a[1])), Format(a[0])));
     }},
    {"null-certificate", [](const Args&) { return Certificate(std::make_unique<PgpCertificate>(nullptr).get()); }},
    {"pem", [](const Args& a) { return Text(*der_to_pem(std::make_shared<binary>(Number(a[0]), 0))); }}};

}  // namespace

TEST(OpenpgpVectors, CodecsPacketsSignaturesAndCertificates) {
    for (const char* name : {"openpgp-base64.vec", "openpgp-packets.vec", "openpgp-verify.vec"})
        RunVectors(name, kOperations);
}

// A verification reads its key once: the file replaced or removed after the first Key() changes
// neither the key nor an error already met.
TEST(OpenpgpKeyFile, TheKeyIsReadOnce) {
    const std::string path = temp / "once.asc", missing = temp / "once-missing.asc";
    temp.Write("once.asc", Armor(KeyBlock(TestKey(2048), kIssuer)));
    KeyFromFile source(path);
    const PgpKey& key = source.Key();
    EXPECT_EQ(key.Public().keyId, Hex(kIssuer.data(), 8));
    EXPECT_EQ(key.Public().bits, 2048u);
    EXPECT_EQ(key.Public().algorithm, 1u);
    temp.Write("once.asc", Armor(KeyBlock(TestKey(3072), Bytes(8, 0x22))));
    EXPECT_EQ(&source.Key(), &key);
    EXPECT_EQ(source.Key().Public().bits, 2048u);

    KeyFromFile absent(missing);
    const std::string error = MessageOf<std::exception>([&] { absent.Key(); });
    temp.Write("once-missing.asc", Armor(KeyBlock(TestKey(2048), kIssuer)));
    EXPECT_EQ(MessageOf<std::exception>([&] { absent.Key(); }), error);
    EXPECT_NE(error.find("once-missing.asc"), std::string::npos) << error;

    // At most 1 MiB is read, whatever the file claims (a sparse file of 2 GiB - 1 cost 4 GiB).
    const std::string large = temp.Write("large.asc", Armor(KeyBlock(TestKey(2048), kIssuer)));
    std::filesystem::resize_file(large, PgpKey::LargestFile + 1);
    EXPECT_EQ(MessageOf<DataFormatException>([&] { KeyFromFile(large).Key(); }),
              "Invalid format of data: PGP public key file " + large +
                  " holds 1048577 bytes; a key file holds at "
                  "most 1048576");
    std::filesystem::resize_file(large, PgpKey::LargestFile);
    EXPECT_EQ(KeyFromFile(large).Key().Public().bits, 2048u);
}
