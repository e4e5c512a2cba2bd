#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Base64.h"
#include "Exceptions.h"
#include "TestSupport.h"

namespace {

std::string Encode(const std::string& data) {
    soapWrap::Binary binary{reinterpret_cast<unsigned char*>(const_cast<char*>(data.data())),
                            static_cast<uint32_t>(data.size())};
    return Base64::Encode(&binary);
}

std::string Decode(const std::string& text, bool radix64 = false) {
    std::unique_ptr<soapWrap::Binary> binary(radix64 ? Radix64::Decode(text) : Base64::Decode(text));
    std::unique_ptr<unsigned char[]> data(binary->data);
    return std::string(reinterpret_cast<char*>(data.get()), binary->length);
}

std::string RadixEncode(const std::string& data) {
    unsigned int length = 0;
    std::unique_ptr<char[]> text(Radix64::Encode(data.data(), static_cast<unsigned>(data.size()), length));
    return std::string(text.get(), length);
}

}  // namespace

TEST(Base64, Rfc4648Vectors) {
    const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (const auto& v : vectors) {
        EXPECT_EQ(Encode(v.first), v.second);
        EXPECT_EQ(Decode(v.second), v.first);
    }
    EXPECT_EQ(Encode(std::string(1, '\0')), "AA==");
    EXPECT_EQ(Encode("\xFB\xFF"), "+/8=");
    EXPECT_EQ(Decode("+/8="), "\xFB\xFF");
}

TEST(Base64, DecodingQuirks) {
    EXPECT_EQ(Decode("QQ==\n"), "A");
    EXPECT_EQ(Decode("QQ\r\n=="), "A");                       // line breaks are skipped anywhere
    EXPECT_EQ(Decode("QQ==QUJD"), std::string("A\0\0A", 4));  // "=" inside: padding and a zero symbol
    const std::string bad = "Base64 data decoding error: bad character in input";
    for (const std::string& text : {std::string("QQ== "), std::string("Q\tQ=="), std::string("QQ\x80="),
                                    std::string("QQ=}"), std::string("QQ\0=", 4)}) {
        EXPECT_EQ(MessageOf<Base64OperationException>([&] { Decode(text); }), bad);
    }
    const std::string length = "Base64 data decoding error: wrong data length";
    EXPECT_EQ(MessageOf<Base64OperationException>([] { Decode("QUJDR"); }), length);
    EXPECT_EQ(MessageOf<Base64OperationException>([] { Decode("===="); }), length);  // more padding than bytes
}

TEST(Radix64, ChecksumAndItsArmorLine) {
    EXPECT_EQ(Radix64::Crc24("", 0), 0xB704CEu);
    EXPECT_EQ(Radix64::Crc24("123456789", 9), 0x21CF02u);  // CRC-24/OpenPGP check value
    EXPECT_EQ(Radix64::Crc24("\x80\xFF", 2), Radix64::Crc24("\x80\xFF", 2) & 0xFFFFFF);

    const std::string data = "OpenPGP armored data\x01\xFE";
    const std::string encoded = RadixEncode(data);
    ASSERT_EQ(encoded.size(), Encode(data).size() + 5);
    EXPECT_EQ(encoded.substr(0, encoded.size() - 5), Encode(data));
    EXPECT_EQ(encoded[encoded.size() - 5], '=');
    // The decoder drops the character before "=", which armored text has as a line break.
    const std::string armored = encoded.substr(0, encoded.size() - 5) + "\n" + encoded.substr(encoded.size() - 5);
    EXPECT_EQ(Decode(armored, true), data);
    EXPECT_EQ(Decode("\n=twTO", true), "");
    EXPECT_THROW(Decode(encoded, true), Base64OperationException);  // not the encoder's inverse

    const std::string format = "Invalid format of data: Expected data in Radix-64 format";
    for (const std::string& text : {std::string("QQ==\nXtwTO"), std::string("=twTO"), std::string("")}) {
        EXPECT_EQ(MessageOf<DataFormatException>([&] { Decode(text, true); }), format);
    }
    std::string corrupted = armored;
    corrupted[0] = corrupted[0] == 'A' ? 'B' : 'A';
    EXPECT_EQ(MessageOf<DataFormatException>([&] { Decode(corrupted, true); }),
              "Invalid format of data: Calculated CRC does not equal to stored CRC of the Radix-64 message");
}
