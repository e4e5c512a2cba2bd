#pragma once
// The exceptions through which every failure inside the module travels. Each one is a
// std::runtime_error whose what() text is composed once, when it is made:
//
//   - a class with a prefix, given a detail D:   prefix + ": " + D  ("Invalid argument: ...");
//   - the same class made without a detail:      the bare prefix     ("File operation error");
//   - the three subclasses of FileIoException compose their own prefix + ": " + D and hand that to
//     FileIoException, which prefixes it once more, so their texts carry two prefixes:
//     "File operation error: Invalid structure of the file: File is too small to have RPM format";
//   - a class without a prefix keeps the detail as the whole message.
//
// No constructor appends strerror() or anything else; callers put operating-system reasons into D.

#include <stdexcept>
#include <string>

// The macros' parameters are class names, which cannot be put in parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
// A class whose message is "prefix: detail".
#define SIGNING_PREFIXED_EXCEPTION(Name, Parent)  \
    class Name : public Parent {                  \
    public:                                       \
        static const char* const Prefix;          \
        Name();                                   \
        explicit Name(const std::string& detail); \
        ~Name() override;                         \
    }

// A class whose message is the detail alone.
#define SIGNING_PLAIN_EXCEPTION(Name)             \
    class Name : public std::runtime_error {      \
    public:                                       \
        explicit Name(const std::string& detail); \
        ~Name() override;                         \
    }
// NOLINTEND(bugprone-macro-parentheses)

class FileIoException : public std::runtime_error {
public:
    static const char* const Prefix;  // "File operation error"
    FileIoException();
    explicit FileIoException(const std::string& detail);
    explicit FileIoException(const char* detail);
    ~FileIoException() override;
};

class DigestException : public std::runtime_error {
public:
    static const char* const Prefix;  // "Digest calculation error"
    DigestException();
    explicit DigestException(const std::string& detail);
    explicit DigestException(const char* detail);
    ~DigestException() override;
};

SIGNING_PREFIXED_EXCEPTION(NotImplementedException, std::runtime_error);       // "Not implemented"
SIGNING_PREFIXED_EXCEPTION(FileNotFoundException, FileIoException);            // "File not found"
SIGNING_PREFIXED_EXCEPTION(InvalidFileStructureException, FileIoException);    // "Invalid structure of the file"
SIGNING_PREFIXED_EXCEPTION(NotSupportedFileFormatException, FileIoException);  // "File format is not supported"
SIGNING_PREFIXED_EXCEPTION(ArgumentException, std::runtime_error);             // "Invalid argument"
SIGNING_PREFIXED_EXCEPTION(DataFormatException, std::runtime_error);           // "Invalid format of data"
SIGNING_PREFIXED_EXCEPTION(Pkcs7InnerException, std::runtime_error);  // "Error during processing PKCS7 structure"

SIGNING_PLAIN_EXCEPTION(NotSupportedException);
SIGNING_PLAIN_EXCEPTION(NotDefinedException);
SIGNING_PLAIN_EXCEPTION(Base64OperationException);
SIGNING_PLAIN_EXCEPTION(InternalErrorException);

#undef SIGNING_PREFIXED_EXCEPTION
#undef SIGNING_PLAIN_EXCEPTION
