// The keyring against hostile key files, each within its bound of time, and the cases a vector row
// cannot write: a signature naming an encryption subkey, an RSA value with a leading zero octet.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>
#include <fstream>
#include <iterator>

#include "Exceptions.h"
#include "OpenPgpKeyring.h"

namespace {

using Bytes = std::vector<unsigned char>;
const std::string kKeys = std::string(SIGNING_TEST_DATA) + "/keys/current6/";

Bytes FileBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

// A new-format packet of tag with body.
Bytes Packet(unsigned char tag, const Bytes& body) {
    Bytes packet = {static_cast<unsigned char>(0xC0 | tag), 0xFF};
    for (int shift = 24; shift >= 0; shift -= 8) packet.push_back(static_cast<unsigned char>(body.size() >> shift));
    packet.insert(packet.end(), body.begin(), body.end());
    return packet;
}

// Seconds of CPU time parse takes.
template <typename F>
double Seconds(F parse) {
    const std::clock_t start = std::clock();
    parse();
    return double(std::clock() - start) / CLOCKS_PER_SEC;
}

// The verdict of the signature file over data.txt with the key file.
SignatureVerdict Verify(const OpenPgpKeyring& keys, const OpenPgpSignature& signature, std::string& reason) {
    const Bytes data = FileBytes(kKeys + "data.txt");
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    EVP_DigestUpdate(context.get(), data.data(), data.size());
    return VerifyOpenPgpSignature(signature, context.get(), keys, reason, 1800000000);
}

}  // namespace

// BEGIN lines by the hundred thousand, with one END line at the end: one pass over the text.
TEST(KeyringBounds, ManyBeginLinesAreReadOnce) {
    for (size_t size : {256u << 10, 1u << 20}) {
        std::string text;
        while (text.size() < size) text += "-----BEGIN PGP PUBLIC KEY BLOCK-----\n";
        text += "-----END PGP PUBLIC KEY BLOCK-----\n";
        const auto* data = reinterpret_cast<const unsigned char*>(text.data());
        EXPECT_LT(Seconds([&] { EXPECT_THROW(OpenPgpKeyring::Parse(data, text.size()), DataFormatException); }), 1.0)
            << size;
    }
}

// The packets of a binary key block (gpg writes old-format headers).
std::vector<Bytes> Packets(const Bytes& block) {
    std::vector<Bytes> packets;
    for (size_t at = 0; at < block.size();) {
        const unsigned char first = block[at];
        size_t header = 2, length = block[at + 1];
        if ((first & 0x40) != 0 && length >= 192) {
            header = length < 224 ? 3 : 6;
            length = header == 3 ? ((length - 192) << 8) + block[at + 2] + 192 : 0;
            for (size_t i = 2; header == 6 && i < 6; ++i) length = (length << 8) | block[at + i];
        } else if ((first & 0x40) == 0) {
            header = 1 + (1u << (first & 3)), length = 0;
            for (size_t i = 1; i < header; ++i) length = (length << 8) | block[at + i];
        }
        packets.emplace_back(block.begin() + static_cast<long>(at),
                             block.begin() + static_cast<long>(at + header + length));
        at += header + length;
    }
    return packets;
}

Bytes Join(const std::vector<Bytes>& packets) {
    Bytes all;
    for (const Bytes& packet : packets) all.insert(all.end(), packet.begin(), packet.end());
    return all;
}

// A signing subkey whose good binding is followed by 5000 copies with a broken value: at most 32
// signatures of a component are checked, quickly, and the good binding still binds the subkey.
TEST(KeyringBounds, BogusBindingsAreCheckedUpToTheBound) {
    const Bytes file = FileBytes(kKeys + "gpg-signing-subkey.asc");
    std::vector<Bytes> packets = Packets(OpenPgpKeyring::SplitKeys(file.data(), file.size()).at(0));
    // Copies that differ (a key block that holds a packet twice is refused whole, as rpm refuses it).
    const Bytes good = packets.back();
    const auto broken = [&good](int i) {
        Bytes copy = good;
        copy[copy.size() - 1] ^= static_cast<unsigned char>(1 + (i & 0x7F));
        copy[copy.size() - 2] ^= static_cast<unsigned char>(i >> 7);
        return copy;
    };
    for (int i = 0; i < 5000; ++i) packets.push_back(broken(i));
    const Bytes block = Join(packets);
    EXPECT_LT(Seconds([&] {
                  const OpenPgpKeyring keys = OpenPgpKeyring::Parse(block.data(), block.size());
                  EXPECT_EQ(keys.Keys().size(), 2u);
              }),
              1.0);
    // Good bindings after 32 broken ones are not reached: the subkey is left out.
    packets.erase(packets.end() - 5000, packets.end());
    for (int i = 0; i < 32; ++i) packets.insert(packets.end() - 1, broken(i));
    const Bytes late = Join(packets);
    EXPECT_EQ(OpenPgpKeyring::Parse(late.data(), late.size()).Keys().size(), 1u);
}

// A primary RSA key whose public exponent has 3071 bits, with thousands of bindings: refused as a
// key at once, its signatures never checked.
TEST(KeyringBounds, HugeRsaExponentIsRefused) {
    Bytes body = {4, 0x60, 0, 0, 0, 1, 0x08, 0x00};
    body.insert(body.end(), 256, 0xC5);
    body.insert(body.end(), {0x0B, 0xFF, 0x40});
    body.insert(body.end(), 383, 0x01);
    std::vector<Bytes> packets = {Packet(6, body), Packet(13, Bytes{'x'})};
    for (int i = 0; i < 20000; ++i) {
        const auto hi = static_cast<unsigned char>(0x80 | (i >> 8)), lo = static_cast<unsigned char>(i);
        packets.push_back(Packet(2, Bytes{4, 0x13, 1, 8, 0, 0, 0, 0, 0xAB, 0xCD, 0, 16, hi, lo}));
    }
    const Bytes block = Join(packets);
    EXPECT_LT(Seconds([&] {
                  try {
                      OpenPgpKeyring::Parse(block.data(), block.size());
                      ADD_FAILURE() << "the key was taken";
                  } catch (const DataFormatException& e) {
                      EXPECT_NE(std::string(e.what()).find("its RSA public exponent is not usable"), std::string::npos)
                          << e.what();
                  }
              }),
              1.0);
}

// A signature naming an encryption subkey is Bad; an RSA value written with a leading zero octet
// verifies.
TEST(KeyringBounds, EncryptionSubkeyAndLeadingZeroValue) {
    const Bytes keyFile = FileBytes(kKeys + "gpg-encryption-subkey.asc");
    const OpenPgpKeyring keys = OpenPgpKeyring::Parse(keyFile.data(), keyFile.size());
    ASSERT_EQ(keys.Keys().size(), 2u);
    const Bytes sigFile = FileBytes(kKeys + "gpg-encryption-subkey.sig");
    OpenPgpSignature signature = OpenPgpSignature::Parse(sigFile.data(), sigFile.size());
    std::string reason;
    EXPECT_EQ(Verify(keys, signature, reason), SignatureVerdict::Ok) << reason;
    signature.value.insert(signature.value.begin(), 0);
    EXPECT_EQ(Verify(keys, signature, reason), SignatureVerdict::Ok) << reason;
    signature.value.insert(signature.value.begin(), 1);
    EXPECT_EQ(Verify(keys, signature, reason), SignatureVerdict::Bad);
    signature.issuer = keys.Keys()[1].keyId;
    signature.issuerFingerprint = keys.Keys()[1].fingerprint;
    EXPECT_EQ(Verify(keys, signature, reason), SignatureVerdict::Bad);
    EXPECT_EQ(reason, "subkey " + keys.Keys()[1].keyId + ": it is not a signing key");
}
