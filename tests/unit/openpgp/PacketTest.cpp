#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Exceptions.h"
#include "PgpCertificate.h"
#include "PgpMessage.h"
#include "PgpWriter.h"
#include "TestSupport.h"

using namespace pgp;

namespace {

std::string ParseError(const Bytes& bytes) {
    return MessageOf<DataFormatException>(
        [&] { PgpMessage message(reinterpret_cast<const char*>(bytes.data()), static_cast<unsigned>(bytes.size())); });
}

std::string ParseError(const std::string& text) {
    return ParseError(Bytes(text.begin(), text.end()));
}

std::unique_ptr<PgpMessage> Parse(const Bytes& bytes) {
    return std::unique_ptr<PgpMessage>(
        new PgpMessage(reinterpret_cast<const char*>(bytes.data()), static_cast<unsigned>(bytes.size())));
}

const std::string kPrefix = "Invalid format of data: ";

}  // namespace

TEST(PacketFraming, HeadersTagsAndAlgorithms) {
    unsigned int header = 0;
    EXPECT_EQ(PgpPacket::ParseLengthTag("\x88\x05", header), 7u);
    EXPECT_EQ(header, 2u);
    EXPECT_EQ(PgpPacket::ParseLengthTag("\x99\x01\x0D", header), 272u);
    EXPECT_EQ(header, 3u);
    EXPECT_EQ(PgpPacket::ParseLengthTag("\x8A\x00\x01\x00\x00", header), 65542u);
    EXPECT_EQ(header, 6u);

    EXPECT_EQ(ParseError(Bytes{0xC6, 0x01, 0x00}), kPrefix + "New OpenPGP packet format is not supported");
    EXPECT_EQ(ParseError(Bytes{0x9B, 0x00}), kPrefix + "OpenPGP packets with indeterminate length are not supported");
    EXPECT_EQ(ParseError(Bytes{0xAC, 0x00}), kPrefix + "Unsupported packet tag");
    // User IDs (0xB4) and subkeys (0xB8) are skipped by their length: only then is tag 11 met.
    EXPECT_EQ(ParseError(Bytes{0xB4, 0x01, 'x', 0xB8, 0x00, 0xAC, 0x00}), kPrefix + "Unsupported packet tag");
    EXPECT_EQ(Parse(Bytes{0xB4, 0x01, 'x', 0xB8, 0x00})->GetPublicKey(), nullptr);
    EXPECT_EQ(ParseError(Bytes{0xB4, 0x05, 'x'}),
              kPrefix + "OpenPGP packet of 7 bytes is longer than the 3 bytes that remain");
    EXPECT_EQ(ParseError(Bytes{0xB5, 0x00}), kPrefix + "OpenPGP packet header is truncated");

    for (char algorithm : {1, 2, 3, 17}) EXPECT_NO_THROW(PgpPacket::CheckPublicKeyAlgorithm(algorithm));
    EXPECT_EQ(MessageOf<DataFormatException>([] { PgpPacket::CheckPublicKeyAlgorithm(16); }),
              kPrefix + "Only RSA algorithm is supported");

    Bytes mpi = Concat({{0x08, 0x00}, Bytes(256, 0xAB)});
    const char* data = reinterpret_cast<const char*>(mpi.data());
    EXPECT_EQ(MPI(data, 256).GetLengthInBytes(), 256u);
    EXPECT_EQ(MPI(data, 256).GetLengthInBits(), 2048u);
    EXPECT_EQ(MessageOf<DataFormatException>([&] { MPI m(data, 255); }),
              kPrefix + "Size of the multi-precision integers is greater than the buffer length");
    EXPECT_EQ(MessageOf<DataFormatException>([&] { MPI m(data, 256, 257); }),
              kPrefix + "Multi-precision integer is truncated");
}

TEST(PacketFraming, ArmorIsRecognisedOnlyAtTheStart) {
    const Bytes key = KeyBlock(TestKey(2048), Bytes(8, 0x42));
    EXPECT_NE(Parse(key)->GetPublicKey(), nullptr);  // 0x99: binary
    for (const std::string& armored : {Armor(key), Armor(key, "\r\n", "Version: GnuPG v1\r\nComment: x\r\n")}) {
        const std::unique_ptr<PgpMessage> message = Parse(Bytes(armored.begin(), armored.end()));
        EXPECT_EQ(message->GetPublicKey()->GetModulus()->GetLengthInBits(), 2048u);
        EXPECT_EQ(Bytes(message->GetSignatureData()->GetIssuerId(), message->GetSignatureData()->GetIssuerId() + 8),
                  Bytes(8, 0x42));
    }
    const std::string notFound = kPrefix + "PGP public key is not found";
    EXPECT_EQ(ParseError("# comment\n" + Armor(key)), notFound);
    EXPECT_EQ(ParseError("\n" + Armor(key)), notFound);
    EXPECT_EQ(ParseError(Armor(key).substr(5)), notFound);
    EXPECT_EQ(ParseError(std::string("")), notFound);
    EXPECT_EQ(ParseError(Armor(key).substr(0, 200)), notFound);  // no END marker
    std::string noEmptyLine = Armor(key);
    noEmptyLine.erase(37, 1);
    EXPECT_EQ(ParseError(noEmptyLine), notFound);

    // Without the checksum line the last "=" of the body is taken for it, and the body is cut there.
    // A user ID sized so that the data leaves one byte over a multiple of 3: the body ends in "==".
    const size_t extra = (3 + 1 - (key.size() + 2) % 3) % 3;
    std::string armored = Armor(Concat({key, Bytes{0xB4, static_cast<unsigned char>(extra)}, Bytes(extra, 'u')}));
    const size_t checksum = armored.rfind("\n=");
    armored.erase(checksum, 6);
    char* body = nullptr;
    unsigned int length = 0;
    ASSERT_TRUE(PgpMessage::SkipHeader(armored.data(), armored.size(), &body, length));
    EXPECT_EQ(body + length + 1, &armored[armored.rfind('=', armored.find("-----END"))]);

    const std::string text = "first line\r\n\r\nQUJD\r\n-----END-----\r\n";
    ASSERT_TRUE(PgpMessage::DeArmor(text.data(), text.size(), &body, length));
    EXPECT_EQ(std::string(body, length), "\nQUJD\r\n");  // three line breaks skipped, no more
}

TEST(PacketFraming, PublicKeyPackets) {
    EVP_PKEY* key = TestKey(2048);
    const std::unique_ptr<PgpMessage> message = Parse(PublicKey(key));
    const PgpPublicKey* packet = message->GetPublicKey();
    EXPECT_EQ(packet->GetModulus()->GetLengthInBits(), 2048u);
    EXPECT_EQ(packet->GetModulus()->GetLengthInBytes(), 256u);
    EXPECT_EQ(Bytes(packet->GetExponent()->GetValue(), packet->GetExponent()->GetValue() + 3), (Bytes{1, 0, 1}));
    for (unsigned char version : {5, 6}) EXPECT_NE(Parse(PublicKey(key, version))->GetPublicKey(), nullptr);
    EXPECT_EQ(ParseError(PublicKey(key, 3)), kPrefix + "This version of OpenPGP public key is not supported");
    EXPECT_EQ(ParseError(PublicKey(key, 4, 16)), kPrefix + "Only RSA algorithm is supported");
    // The bound handed to the modulus counts from the packet's start, 4 bytes more than there are:
    // a modulus cut by 2 bytes passes it and is caught by the bytes really present.
    Bytes truncated = PublicKey(key);
    truncated.resize(truncated.size() - 7);
    truncated[1] = static_cast<unsigned char>((truncated.size() - 3) >> 8);
    truncated[2] = static_cast<unsigned char>(truncated.size() - 3);
    EXPECT_EQ(ParseError(truncated), kPrefix + "Multi-precision integer is truncated");
    truncated.resize(truncated.size() - 10);
    truncated[1] = static_cast<unsigned char>((truncated.size() - 3) >> 8);
    truncated[2] = static_cast<unsigned char>(truncated.size() - 3);
    EXPECT_EQ(ParseError(truncated),
              kPrefix + "Size of the multi-precision integers is greater than the buffer length");

    PgpCertificate certificate(Parse(KeyBlock(key, Bytes(8, 1))).release());
    EXPECT_EQ(certificate.GetKeyLength(), 2048u);
    EXPECT_EQ(MessageOf<ArgumentException>([] { PgpCertificate c(nullptr); }),
              "Invalid argument: Function PgpCertificate::PgpCertificate does not allow NULL value as an argument");
    EXPECT_EQ(MessageOf<DataFormatException>([] { PgpCertificate c(Parse(UserId("nobody")).release()); }),
              kPrefix + "PGP public key is not found");
}

TEST(PacketFraming, SignaturePackets) {
    EVP_PKEY* key = TestKey(2048);
    SignatureOptions v3;
    v3.version = 3;
    v3.hashId = 2;
    const std::unique_ptr<PgpMessage> three = Parse(SignaturePacket(key, "data", v3));
    const PgpSignatureData* s3 = three->GetSignatureData();
    EXPECT_EQ(s3->GetVersion(), 3);
    EXPECT_EQ(s3->GetHashedLength(), 5);
    EXPECT_EQ(s3->GetHashAlgorithm(), 2);
    EXPECT_EQ(s3->GetSignatureValue()->GetLengthInBytes(), s3->GetSignatureSize());  // the bound is exact

    SignatureOptions v4;
    v4.issuer = Bytes{1, 2, 3, 4, 5, 6, 7, 8};
    const std::unique_ptr<PgpMessage> four = Parse(SignaturePacket(key, "data", v4));
    const PgpSignatureData* s4 = four->GetSignatureData();
    EXPECT_EQ(Bytes(s4->GetIssuerId(), s4->GetIssuerId() + 8), v4.issuer);
    EXPECT_EQ(s4->GetUnhashedLength(), 10);
    EXPECT_EQ(s4->GetSignatureValue()->GetLengthInBytes(), s4->GetSignatureSize());

    // Only an issuer in the unhashed area counts; a shorter one is refused.
    // (The walk steps past another subpacket by its length octet alone, so this one says 10.)
    SignatureOptions hashedIssuer;
    hashedIssuer.hashedArea = Concat({{9, 16}, Bytes(8, 0x77)});
    hashedIssuer.withIssuer = false;
    hashedIssuer.unhashedExtra = Concat({{10, 99}, Bytes(8, 0x55)});
    const std::unique_ptr<PgpMessage> hidden = Parse(SignaturePacket(key, "data", hashedIssuer));
    EXPECT_EQ(Bytes(hidden->GetSignatureData()->GetIssuerId(), hidden->GetSignatureData()->GetIssuerId() + 8),
              Bytes(8, 0));
    SignatureOptions shortIssuer;
    shortIssuer.issuer = Bytes(3, 1);
    Bytes packet = SignaturePacket(key, "data", shortIssuer);
    packet[3 + 6 + 6 + 2] = 5;
    EXPECT_EQ(ParseError(packet), kPrefix + "Wrong size of IssuerID");

    packet = SignaturePacket(key, "data", v4);
    packet[3] = 5;
    EXPECT_EQ(ParseError(packet), kPrefix + "Version 5 of signature packets is not supported");
    packet = SignaturePacket(key, "data", v3);
    packet[4] = 0xFB;
    EXPECT_EQ(ParseError(packet), kPrefix + "Version 3 signature packet has a hashed material length of -5; it must be 5");
    // Any other length than 5 could carry the end of the signed data into the hashed material.
    for (int length : {0, 4, 6, 127}) {
        packet = SignaturePacket(key, "data", v3);
        packet[4] = static_cast<unsigned char>(length);
        EXPECT_EQ(ParseError(packet), kPrefix + "Version 3 signature packet has a hashed material length of " +
                                          std::to_string(length) + "; it must be 5");
    }
    // A zero length where the walk ends anyway (U = 0 or 1) is read, not refused; the left 16 bits
    // come from where the walk stopped.
    const struct {
        Bytes lengthAndRest;  // U, the unhashed area, left 16 bits, the value (and a spare octet)
        Bytes left16;
    } ends[] = {{{0, 0, 0x00, 0x12, 0x00, 0x01, 0x01}, {0x00, 0x12}},
                {{0, 1, 0x00, 0x00, 0x00, 0x08, 0xFF, 0xEE}, {0x00, 0x00}}};
    for (const auto& end : ends) {
        const std::unique_ptr<PgpMessage> walked = Parse(Packet(2, Concat({{4, 0, 1, 8, 0, 0}, end.lengthAndRest})));
        const unsigned char* left16 = walked->GetSignatureData()->GetLeft16();
        EXPECT_EQ(Bytes(left16, left16 + 2), end.left16);
    }
    SignatureOptions zero;
    zero.unhashedExtra = Bytes{0, 7};
    zero.issuerFirst = false;
    EXPECT_EQ(ParseError(SignaturePacket(key, "data", zero)),
              kPrefix + "Unhashed subpacket of length 0 cannot be walked");
    packet = SignaturePacket(key, "data", v4);
    packet.resize(12);  // cut inside the hashed area
    packet[1] = 0;
    packet[2] = 9;
    EXPECT_EQ(ParseError(packet), kPrefix + "Signature packet is truncated");
    packet = SignaturePacket(key, "data", v4);
    packet.resize(30);  // cut inside the signature value
    packet[1] = 0;
    packet[2] = 27;
    EXPECT_EQ(ParseError(packet), kPrefix + "Multi-precision integer is truncated");

    EXPECT_EQ(PgpSignatureData(PgpSignatureVersion3, "12345678", 2048, PgpSignatureTextDocument, PgpHashSha1)
                  .GetHashedData()[0],
              0x00);  // always a binary document
    PgpSignatureData built(PgpSignatureVersion4, "12345678", 2048, PgpSignatureBinaryDocument, PgpHashSha256);
    EXPECT_EQ(built.GetHashedLength(), 6);
    EXPECT_EQ(built.GetUnhashedLength(), 10);
    EXPECT_EQ(MessageOf<NotSupportedException>([] {
                  PgpSignatureData d(PgpSignatureVersion(5), "12345678", 2048, PgpSignatureBinaryDocument, PgpHashSha1);
              }),
              "Not supported version of PGP certificate");
}
