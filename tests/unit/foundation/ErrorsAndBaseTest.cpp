#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Base.h"
#include "Exceptions.h"

namespace {

template <typename E>
std::string MessageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const E& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

}  // namespace

TEST(Exceptions, ComposeTheirMessagesFromPrefixAndDetail) {
    const std::string d = "detail";
    EXPECT_STREQ(NotImplementedException(d).what(), "Not implemented: detail");
    EXPECT_STREQ(FileIoException(d).what(), "File operation error: detail");
    EXPECT_STREQ(FileIoException("text").what(), "File operation error: text");
    EXPECT_STREQ(ArgumentException(d).what(), "Invalid argument: detail");
    EXPECT_STREQ(DataFormatException(d).what(), "Invalid format of data: detail");
    EXPECT_STREQ(DigestException(d).what(), "Digest calculation error: detail");
    EXPECT_STREQ(DigestException("text").what(), "Digest calculation error: text");
    EXPECT_STREQ(Pkcs7InnerException(d).what(), "Error during processing PKCS7 structure: detail");
    EXPECT_STREQ(ArgumentException("").what(), "Invalid argument: ");

    // The subclasses of FileIoException carry both prefixes.
    EXPECT_STREQ(FileNotFoundException(d).what(), "File operation error: File not found: detail");
    EXPECT_STREQ(InvalidFileStructureException("File is too small to have RPM format").what(),
                 "File operation error: Invalid structure of the file: File is too small to have RPM format");
    EXPECT_STREQ(NotSupportedFileFormatException(d).what(),
                 "File operation error: File format is not supported: detail");

    // Without a prefix the detail is the whole message.
    EXPECT_STREQ(NotSupportedException("Not supported version of PGP certificate").what(),
                 "Not supported version of PGP certificate");
    EXPECT_STREQ(NotDefinedException(d).what(), "detail");
    EXPECT_STREQ(Base64OperationException(d).what(), "detail");
    EXPECT_STREQ(InternalErrorException("Failed to obtain UTC time").what(), "Failed to obtain UTC time");

    // Without a detail: the bare prefix.
    EXPECT_STREQ(FileIoException().what(), "File operation error");
    EXPECT_STREQ(NotImplementedException().what(), "Not implemented");
    EXPECT_STREQ(DigestException().what(), "Digest calculation error");
    EXPECT_STREQ(FileNotFoundException().what(), "File operation error: File not found");
}

TEST(Exceptions, AreCaughtThroughTheirBaseClasses) {
    EXPECT_EQ(MessageOf<FileIoException>([] { throw InvalidFileStructureException("x"); }),
              "File operation error: Invalid structure of the file: x");
    EXPECT_EQ(MessageOf<std::runtime_error>([] { throw FileNotFoundException("x"); }),
              "File operation error: File not found: x");
    EXPECT_EQ(MessageOf<std::exception>([] { throw Base64OperationException("x"); }), "x");
    const DataFormatException original("x");
    const DataFormatException copy = original;
    EXPECT_STREQ(copy.what(), original.what());
}

TEST(BaseUtilities, AlignAndRoundUp) {
    EXPECT_EQ(Base::AlignUp(221, 8), 224u);
    EXPECT_EQ(Base::AlignUp(224, 8), 224u);
    EXPECT_EQ(Base::AlignUp(0, 4), 0u);
    EXPECT_EQ(Base::AlignUp(0xFFFFFFFF, 8), 0u);  // wraps in 32 bits

    EXPECT_EQ(Base::RoundUp(5, 2), 8u);
    EXPECT_EQ(Base::RoundUp(8, 2), 8u);
    EXPECT_EQ(Base::RoundUp(1, 1), 2u);
    EXPECT_EQ(Base::RoundUp(17, 4), 32u);
    EXPECT_EQ(Base::RoundUp(1, 12), 4096u);
    EXPECT_EQ(Base::RoundUp(0x8001, 15), 0x10000u);
    EXPECT_EQ(Base::RoundUp(0xFFFFFFF1, 4), 0u);
    for (unsigned char bits : {0, 5, 6, 7, 8, 9, 10, 11, 16, 32}) {
        EXPECT_EQ(MessageOf<NotImplementedException>([bits] { Base::RoundUp(3, bits); }),
                  "Not implemented: Not supported value to round up to a power of 2.")
            << "bits " << int(bits);
    }
}

TEST(BaseUtilities, RFindNeverLooksAtIndexZero) {
    EXPECT_EQ(Base::RFind("abxxab", 6, "ab", 2), 4);
    EXPECT_EQ(Base::RFind("abxxxx", 6, "ab", 2), -1);
    EXPECT_EQ(Base::RFind("xabxxx", 6, "ab", 2), 1);
    EXPECT_EQ(Base::RFind("abab", 4, "abab", 4), -1);  // as long as the buffer
    EXPECT_EQ(Base::RFind("ab", 2, "abc", 3), -1);
    EXPECT_EQ(Base::RFind("abc", 3, "", 0), -1);
    EXPECT_EQ(Base::RFind("aXbXb", 5, "b", 1), 4);
}

TEST(BaseUtilities, SwapEndianReversesInPlace) {
    for (unsigned length : {1u, 2u, 3u, 5u}) {
        std::vector<unsigned char> bytes, reversed;
        for (unsigned i = 0; i < length; ++i) bytes.push_back(static_cast<unsigned char>(i + 1));
        reversed.assign(bytes.rbegin(), bytes.rend());
        Base::SwapEndian(bytes.data(), length);
        EXPECT_EQ(bytes, reversed) << length;
    }
}

TEST(BaseUtilities, StrTrim) {
    EXPECT_EQ(Base::StrTrim(" \t\r\n key \v\f"), "key");
    EXPECT_EQ(Base::StrTrim("a b"), "a b");
    EXPECT_EQ(Base::StrTrim(" \n "), "");
    EXPECT_EQ(Base::StrTrim(""), "");
    EXPECT_EQ(Base::StrTrim("\xE9x\xE9"), "\xE9x\xE9");  // bytes above 127 are not spaces
}

TEST(BaseUtilities, ReplaceIgnoresStartAndStopsAtEnd) {
    std::string text = "aXa";
    EXPECT_EQ(&Base::Replace(text, 2, 3, "a", "b"), &text);
    EXPECT_EQ(text, "bXb");  // start 2 is ignored

    text = "aXaXa";
    EXPECT_EQ(Base::Replace(text, 0, 3, "a", "b"), "bXbXa");  // the match at 4 is beyond end

    // A shorter replacement resumes before it; at the very start that position wraps and ends it.
    text = "zzabcabc";
    EXPECT_EQ(Base::Replace(text, 0, 100, "abc", "x"), "zzxx");
    text = "abcabc";
    EXPECT_EQ(Base::Replace(text, 0, 100, "abc", "x"), "xabc");
    text = "a.b.c";
    EXPECT_EQ(Base::Replace(text, 0, 100, ".", "::"), "a::b::c");
    text = "none";
    EXPECT_EQ(Base::Replace(text, 0, 100, "z", "y"), "none");

    // A replacement ending in the searched text is found again at p + growth; only the 32-bit
    // wrap of end stops it. Where that comes soon the loop runs as written...
    text = "aXa";
    EXPECT_EQ(Base::Replace(text, 0, 0xFFFFFFFF, "a", "ba"), "baXa");
    // ...otherwise it would never end, and it is refused.
    text = "aXa";
    EXPECT_THROW(Base::Replace(text, 0, 3, "a", "ba"), ArgumentException);
    EXPECT_THROW(Base::Replace(text, 0, 3, "a", "a"), ArgumentException);
    text = "bXb";
    EXPECT_EQ(Base::Replace(text, 0, 3, "a", "a"), "bXb");  // nothing found: nothing refused
}

TEST(BaseUtilities, DumpsBuffersAsHex) {
    const unsigned char bytes[] = {0x0A, 0xFF, 0x00, 0x7B};
    EXPECT_EQ(Base::DumpBufferToString(bytes, 2, false), "0aff");
    EXPECT_EQ(Base::DumpBufferToString(bytes, 2, true), "0AFF");
    EXPECT_EQ(Base::DumpBufferToString(bytes, 4, false), "0aff007b");
    EXPECT_EQ(Base::DumpBufferToString(bytes, 0, true), "");

    std::vector<unsigned char> sixteen(16, 0xAB);
    testing::internal::CaptureStdout();
    Base::DumpBuffer(bytes, 2);
    Base::DumpBuffer(sixteen.data(), 16);
    Base::DumpBuffer(bytes, 0);
    std::string expected = "0A FF \n";
    for (int i = 0; i < 16; ++i) expected += "AB ";
    expected += "\n\n\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
}
