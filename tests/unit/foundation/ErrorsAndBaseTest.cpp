#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Base.h"
#include "Exceptions.h"
#include "TestSupport.h"

TEST(Exceptions, ComposeTheirMessagesFromPrefixAndDetail) {
    EXPECT_STREQ(NotImplementedException("d").what(), "Not implemented: d");
    EXPECT_STREQ(FileIoException("d").what(), "File operation error: d");
    EXPECT_STREQ(FileIoException(std::string("d")).what(), "File operation error: d");
    EXPECT_STREQ(ArgumentException("").what(), "Invalid argument: ");
    EXPECT_STREQ(DataFormatException("d").what(), "Invalid format of data: d");
    EXPECT_STREQ(DigestException("d").what(), "Digest calculation error: d");
    EXPECT_STREQ(Pkcs7InnerException("d").what(), "Error during processing PKCS7 structure: d");
    // The subclasses of FileIoException carry both prefixes.
    EXPECT_STREQ(FileNotFoundException("d").what(), "File operation error: File not found: d");
    EXPECT_STREQ(InvalidFileStructureException("d").what(), "File operation error: Invalid structure of the file: d");
    EXPECT_STREQ(NotSupportedFileFormatException("d").what(), "File operation error: File format is not supported: d");
    // Without a prefix the detail is the whole message; without a detail, the bare prefix.
    const std::vector<std::runtime_error> plain{NotSupportedException("d"), NotDefinedException("d"),
                                                Base64OperationException("d"), InternalErrorException("d")};
    for (const std::runtime_error& e : plain) EXPECT_STREQ(e.what(), "d");
    EXPECT_STREQ(FileIoException().what(), "File operation error");
    EXPECT_STREQ(DigestException().what(), "Digest calculation error");
    EXPECT_STREQ(FileNotFoundException().what(), "File operation error: File not found");

    EXPECT_EQ(MessageOf<FileIoException>([] { throw InvalidFileStructureException("x"); }),
              "File operation error: Invalid structure of the file: x");
    EXPECT_EQ(MessageOf<std::runtime_error>([] { throw Base64OperationException("x"); }), "x");
}

TEST(BaseUtilities, AlignAndRoundUp) {
    EXPECT_EQ(Base::AlignUp(221, 8), 224u);
    EXPECT_EQ(Base::AlignUp(224, 8), 224u);
    EXPECT_EQ(Base::AlignUp(0xFFFFFFFF, 8), 0u);  // wraps in 32 bits
    EXPECT_EQ(Base::RoundUp(5, 2), 8u);
    EXPECT_EQ(Base::RoundUp(8, 2), 8u);
    EXPECT_EQ(Base::RoundUp(1, 12), 4096u);
    EXPECT_EQ(Base::RoundUp(0x8001, 15), 0x10000u);
    EXPECT_EQ(Base::RoundUp(0xFFFFFFF1, 4), 0u);
    for (unsigned char bits : {0, 5, 8, 11, 16}) {
        EXPECT_EQ(MessageOf<NotImplementedException>([bits] { Base::RoundUp(3, bits); }),
                  "Not implemented: Not supported value to round up to a power of 2.");
    }
}

TEST(BaseUtilities, RFindSwapAndTrim) {
    EXPECT_EQ(Base::RFind("abxxab", 6, "ab", 2), 4);
    EXPECT_EQ(Base::RFind("abxxxx", 6, "ab", 2), -1);  // index 0 is never examined
    EXPECT_EQ(Base::RFind("xabxxx", 6, "ab", 2), 1);
    EXPECT_EQ(Base::RFind("abab", 4, "abab", 4), -1);
    EXPECT_EQ(Base::RFind("ab", 2, "abc", 3), -1);
    EXPECT_EQ(Base::RFind("abc", 3, "", 0), -1);

    for (unsigned length : {1u, 2u, 3u, 5u}) {
        std::vector<unsigned char> bytes{1, 2, 3, 4, 5};
        bytes.resize(length);
        const std::vector<unsigned char> reversed(bytes.rbegin(), bytes.rend());
        Base::SwapEndian(bytes.data(), length);
        EXPECT_EQ(bytes, reversed);
    }

    EXPECT_EQ(Base::StrTrim(" \t\r\n a b \v\f"), "a b");
    EXPECT_EQ(Base::StrTrim(" \n "), "");
    EXPECT_EQ(Base::StrTrim("\xE9x\xE9"), "\xE9x\xE9");  // bytes above 127 are not spaces
}

TEST(BaseUtilities, ReplaceIgnoresStartAndStopsAtEnd) {
    std::string text = "aXa";
    EXPECT_EQ(&Base::Replace(text, 2, 3, "a", "b"), &text);
    EXPECT_EQ(text, "bXb");  // start 2 is ignored
    text = "aXaXa";
    EXPECT_EQ(Base::Replace(text, 0, 3, "a", "b"), "bXbXa");  // the match at 4 is beyond end
    text = "a.b.c";
    EXPECT_EQ(Base::Replace(text, 0, 100, ".", "::"), "a::b::c");
    // A shorter replacement resumes before itself; at the very start that position wraps and ends it.
    text = "zzabcabc";
    EXPECT_EQ(Base::Replace(text, 0, 100, "abc", "x"), "zzxx");
    text = "abcabc";
    EXPECT_EQ(Base::Replace(text, 0, 100, "abc", "x"), "xabc");
    // A replacement ending in the searched text finds itself again; only the wrap of end stops it.
    text = "aXa";
    EXPECT_EQ(Base::Replace(text, 0, 0xFFFFFFFF, "a", "ba"), "baXa");
    EXPECT_THROW(Base::Replace(text, 0, 3, "a", "ba"), ArgumentException);
    EXPECT_THROW(Base::Replace(text, 0, 3, "a", "a"), ArgumentException);
}

TEST(BaseUtilities, DumpsBuffersAsHex) {
    const unsigned char bytes[] = {0x0A, 0xFF, 0x00, 0x7B};
    EXPECT_EQ(Base::DumpBufferToString(bytes, 4, false), "0aff007b");
    EXPECT_EQ(Base::DumpBufferToString(bytes, 2, true), "0AFF");
    EXPECT_EQ(Base::DumpBufferToString(bytes, 0, true), "");

    const std::vector<unsigned char> sixteen(16, 0xAB);
    testing::internal::CaptureStdout();
    Base::DumpBuffer(bytes, 2);
    Base::DumpBuffer(sixteen.data(), 16);
    Base::DumpBuffer(bytes, 0);
    std::string expected = "0A FF \n";
    for (int i = 0; i < 16; ++i) expected += "AB ";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + "\n\n\n");
}
