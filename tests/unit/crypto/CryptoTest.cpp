// The hash catalogue (checked against OpenSSL's object table), digests and RSA checks as tables
// (tests/data/vectors/crypto-*.vec); digest ownership. RsaCsp adopts RSA objects: deprecated API.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/err.h>
#include <openssl/objects.h>

#include "Digest.h"
#include "PgpSignature.h"
#include "RsaCsp.h"
#include "Vectors.h"

using soapWrap::HashAlgorithm;

namespace {
HashAlgorithm Type(const std::string& number) {
    return HashAlgorithm(std::stoi(number));
}
std::string Number(int value) {
    return std::to_string(value);
}
std::string Value(DigestBase& digest) {
    return Hex(digest.GetValue(), digest.GetLength());
}

HashAlgorithm ByName(const std::string& n) {
    return Digest::GetTypeByNid(EVP_MD_nid(EVP_get_digestbyname(n.c_str())));
}

std::string Hash(const Args& a) {  // the catalogue's entry, read through a digest object
    const Digest d(Type(a[0]));
    return d.GetTypeName() + " " + Number(Digest::GetNID(d.GetType())) + " " + Number(d.GetLength()) + " " +
           d.GetAlgorithmIdentifier() + " " + Number(PgpSignature::GetPgpHashAlgorithm(d.GetType()));
}

std::string OpenSsl(const Args& a) {
    const int nid = OBJ_sn2nid(a[0].c_str());
    char dotted[64] = "";
    OBJ_obj2txt(dotted, sizeof dotted, OBJ_nid2obj(nid), 1);
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> parsed(OBJ_txt2obj(dotted, 1), ASN1_OBJECT_free);
    int digestNid = 0, keyNid = 0;
    OBJ_find_sigid_algs(std::stoi(a[1]), &digestNid, &keyNid);
    return Number(nid) + " " + Number(EVP_MD_get_size(EVP_get_digestbynid(nid))) + " " + dotted + " " +
           Hex(OBJ_get0_data(parsed.get()), OBJ_length(parsed.get())) + " " + Number(digestNid) + " " + Number(keyNid);
}

std::string DigestOf(const Args& a) {  // digest | name | input | times; digest | number: made only
    if (a.size() == 1) return Digest(Type(a[0])).GetTypeName();
    Digest digest(ByName(a[0]));
    for (int i = std::stoi(a[2]); i > 0; --i) digest.Update(a[1].data(), static_cast<unsigned int>(a[1].size()));
    return Value(digest);
}
// copy | name: "ab", then a copy; "c" to the first, "cd" to the copy. Answers the first's value,
// its value after Reinitialize and "x" (written out; the cached value stays), the copy's value.
std::string Copy(const Args& a) {
    Digest first(ByName(a[0]));
    first.Update("ab", 2);
    std::unique_ptr<DigestBase> copy(first.Copy());
    first.Update("c", 1), copy->Update("cd", 2);
    const std::string value = Value(first);
    first.Reinitialize(), first.Update("x", 1);
    Bytes fresh(first.GetLength());
    const unsigned int written = first.GetValue(fresh.data());
    return value + " " + Hex(fresh.data(), written) + " " + Value(*copy) + (Value(first) == value ? "" : " lost");
}
// rsa | bits | digest | key form | value form, as crypto-rsa.vec describes them.
std::string Rsa(const Args& a) {
    static std::map<std::string, int> zeroAt;  // where a value with a leading zero octet was found
    EVP_PKEY* key = TestKey(std::stoi(a[0]));
    const EVP_MD* md = EVP_get_digestbyname(a[1].c_str());
    const bool zero = std::string("zero short shorter long lone-zero empty").find(a[3]) != std::string::npos;
    Bytes digest = HashOf(md, "payload"), value = SignDigest(key, md, digest);
    // Exactly one leading zero octet: with two, dropping two octets would leave the same number. The
    // search stops at the message it found, where the next row of the same key and digest begins.
    for (int& i = zeroAt[a[0] + a[1]]; zero; ++i) {
        value = SignDigest(key, md, digest = HashOf(md, "payload " + std::to_string(i)));
        if (value[0] == 0 && value[1] != 0) break;
    }
    const std::map<std::string, std::function<void()>> changes = {
        {"digest", [&] { digest[0] ^= 1; }},
        {"flip", [&] { value[value.size() / 2] ^= 0x40; }},
        {"cut", [&] { value.pop_back(); }},
        {"short", [&] { value.erase(value.begin()); }},
        {"long", [&] { value.insert(value.begin(), 0); }},
        {"lone-zero", [&] { value = Bytes(1, 0); }},
        {"shorter", [&] { value.erase(value.begin(), value.begin() + 2); }},
        {"empty", [&] { value.clear(); }}};
    if (changes.count(a[3])) changes.at(a[3])();
    Bytes n = KeyComponent(key, OSSL_PKEY_PARAM_RSA_N), e = KeyComponent(key, OSSL_PKEY_PARAM_RSA_E);
    n.insert(n.begin(), a[2] == "padded" ? 3 : 0, 0);
    const int nLength = static_cast<int>(n.size()), eLength = static_cast<int>(e.size());
    std::unique_ptr<BIGNUM, decltype(&BN_free)> bn(BN_bin2bn(n.data(), nLength, nullptr), BN_free),
        be(BN_bin2bn(e.data(), eLength, nullptr), BN_free);
    std::unique_ptr<RsaCsp> csp(a[2] == "numbers"   ? new RsaCsp(bn.get(), be.get())
                                : a[2] == "adopted" ? new RsaCsp(EVP_PKEY_get1_RSA(key))
                                : a[2] == "none"    ? new RsaCsp(nullptr, 0, nullptr, 0)
                                                    : new RsaCsp(n.data(), nLength, e.data(), eLength));
    const int nid = EVP_MD_get_type(md), other = nid == NID_sha1 ? NID_sha256 : NID_sha1;
    const int result = csp->Verify(a[3] == "nid" ? other : nid, digest.data(), static_cast<unsigned int>(digest.size()),
                                   value.data(), static_cast<unsigned int>(value.size()));
    ERR_clear_error();
    return Number(result) + (csp->GetLastErrorMessage() ? "+text" : "");
}
// pss | salt | algorithm | form: a PSS signature of SHA-256("pss") with that salt checked as that
// algorithm, whole, with a bit flipped or cut to 5 octets, by one key for all rows: the result, and
// "+text" when the check kept a text, "+new" when that text differs from the text kept before.
std::string Pss(const Args& a) {
    static std::string last;
    EVP_PKEY* key = TestKey(2048);
    static const Bytes n = KeyComponent(key, OSSL_PKEY_PARAM_RSA_N), e = KeyComponent(key, OSSL_PKEY_PARAM_RSA_E);
    static RsaCsp csp(n.data(), static_cast<int>(n.size()), e.data(), static_cast<int>(e.size()));
    const Bytes digest = HashOf(EVP_sha256(), "pss");
    bool valid = false;
    std::string text;
    // A flipped bit leaves a random encoded message (the salt is random), which fails on whichever
    // check comes first: now and then the one the failure before failed on, with the same text. A
    // fresh signature then shows whether the text is replaced; a text never replaced stays the same.
    for (int attempt = 0; attempt < (a[2] == "flip" ? 8 : 1) && (attempt == 0 || text == last); ++attempt) {
        Bytes value = SignDigest(key, EVP_sha256(), digest, RSA_PKCS1_PSS_PADDING, std::stoi(a[0]));
        if (a[2] == "flip") value[10] ^= 1;
        valid = csp.Verify_PSS(Type(a[1]), digest.data(), 32, value.data(), a[2] == "short" ? 5 : 256) != 0;
        text = csp.GetLastErrorMessage() ? csp.GetLastErrorMessage() : "";
    }
    return Number(valid) + (text.empty() ? "" : "+text") + (std::exchange(last, text) != text ? "+new" : "");
}

const Operations kOperations = {
    {"pss", Pss},
    {"errors", [](const Args&) { return std::string(std::unique_ptr<char[]>(RsaCsp::GetErrorMessage()).get()); }},
    {"hash", Hash},
    {"openssl", OpenSsl},
    {"digest", DigestOf},
    {"copy", Copy},
    {"rsa", Rsa},
    {"name", [](const Args& a) { return Digest::GetTypeName(Type(a[0])); }},
    {"length", [](const Args& a) { return Number(Digest::GetLength(Type(a[0]))); }},
    {"md", [](const Args& a) { return Number(EVP_MD_get_type(Digest::GetMd(Type(a[0])))); }},
    {"nid", [](const Args& a) { return Number(Digest::GetNID(Type(a[0]))); }},
    {"oid-text", [](const Args& a) { return std::string(Digest::GetAlgorithmIdentifier(Type(a[0]))); }},
    {"pgp-of", [](const Args& a) { return Number(PgpSignature::GetPgpHashAlgorithm(Type(a[0]))); }},
    {"pgp-id", [](const Args& a) { return Digest::GetTypeName(PgpSignature::GetHashAlgorithm(std::stoi(a[0]))); }},
    {"by-nid", [](const Args& a) { return Number(Digest::GetTypeByNid(static_cast<unsigned int>(std::stoul(a[0])))); }},
    {"by-oid", [](const Args& a) {
         Bytes oid = Unhex(a[0]);
         const soapWrap::Binary binary{oid.empty() ? nullptr : oid.data(), static_cast<uint32_t>(oid.size())};
         return Number(Digest::GetTypeByOid(&binary));
     }}};

struct CountedDigest : Digest {  // counts its own destructions
    explicit CountedDigest(int& deleted) : Digest(soapWrap::Sha1), deleted_(deleted) {}
    ~CountedDigest() override { ++deleted_; }
    int& deleted_;
};

struct TestSignature : PgpSignature {  // the base class's digest store and items; 1 is RSA
    explicit TestSignature(int algorithm = 1) : PgpSignature(nullptr), algorithm_(algorithm) {}
    int GetPublicKeyAlgorithm() const override { return algorithm_; }
    int algorithm_;
};
}  // namespace

TEST(CryptoVectors, HashCatalogueDigestsAndRsa) {
    for (const char* name : {"crypto-hash-table.vec", "crypto-digests.vec", "crypto-rsa.vec"})
        RunVectors(name, kOperations);
}
// One digest is borrowed (and may be lent to several signatures); from the second on, all are
// owned and deleted once each, except an entry replaced by SetDigest, which is left to its owner.
TEST(Signature, DigestOwnershipAdditionalInfoAndHashSize) {
    int n = 0;  // digests deleted
    CountedDigest shared(n), *a = new CountedDigest(n), *b = new CountedDigest(n), *c = new CountedDigest(n);
    {
        TestSignature first, second, mapped;
        first.SetDigest(3, &shared);
        second.SetDigest(5, nullptr);  // a null single digest leaves the store empty
        second.SetDigest(0, &shared);
        const std::pair<int, DigestBase*> sets[] = {{0, a}, {1, b}, {1, c}, {2, a}, {3, nullptr}};
        for (const auto& set : sets) mapped.SetDigest(set.first, set.second);
        const std::vector<DigestBase*> got = {first.GetDigest(3),  first.GetDigest(4),  second.GetDigest(0),
                                              second.GetDigest(5), mapped.GetDigest(0), mapped.GetDigest(1),
                                              mapped.GetDigest(2), mapped.GetDigest(3)};
        EXPECT_EQ(got, std::vector<DigestBase*>({&shared, nullptr, &shared, nullptr, a, c, a, nullptr}));
    }
    EXPECT_EQ(n, 2);  // a and c
    delete b;
    TestSignature rsa, dsa(17);
    soapWrap::Binary one{nullptr, 1}, two{nullptr, 2};
    rsa.SetAdditionalInfo(0, &one), rsa.SetAdditionalInfo(0, &two);
    EXPECT_EQ(std::vector<void*>({rsa.GetAdditionalInfo(0), rsa.GetAdditionalInfo(1)}),
              std::vector<void*>({&two, nullptr}));
    EXPECT_EQ(rsa.GetSignedHashSize() + PgpSignature(nullptr).GetPublicKeyAlgorithm(), 257u);
    EXPECT_EQ(Outcome([&] { return Number(dsa.GetSignedHashSize()); }), "!NotImplementedException: Not implemented: ");
}
