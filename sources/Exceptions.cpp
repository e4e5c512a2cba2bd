#include "Exceptions.h"

namespace {

std::string Compose(const char* prefix, const std::string& detail) {
    return std::string(prefix) + ": " + detail;
}

}  // namespace

const char* const FileIoException::Prefix = "File operation error";
FileIoException::FileIoException() : std::runtime_error(Prefix) {}
FileIoException::FileIoException(const std::string& detail) : std::runtime_error(Compose(Prefix, detail)) {}
FileIoException::FileIoException(const char* detail) : FileIoException(std::string(detail)) {}
FileIoException::~FileIoException() {}

const char* const DigestException::Prefix = "Digest calculation error";
DigestException::DigestException() : std::runtime_error(Prefix) {}
DigestException::DigestException(const std::string& detail) : std::runtime_error(Compose(Prefix, detail)) {}
DigestException::DigestException(const char* detail) : DigestException(std::string(detail)) {}
DigestException::~DigestException() {}

// The subclasses of FileIoException hand their composed text to FileIoException, which adds its
// own prefix in front: the doubled prefix is part of their messages.
#define SIGNING_DEFINE_PREFIXED(Name, Parent, PrefixText)                      \
    const char* const Name::Prefix = PrefixText;                               \
    Name::Name() : Parent(std::string(Prefix)) {}                              \
    Name::Name(const std::string& detail) : Parent(Compose(Prefix, detail)) {} \
    Name::~Name() {}

// Classes directly below std::runtime_error compose their message themselves.
#define SIGNING_DEFINE_TOP(Name, PrefixText)                                               \
    const char* const Name::Prefix = PrefixText;                                           \
    Name::Name() : std::runtime_error(Prefix) {}                                           \
    Name::Name(const std::string& detail) : std::runtime_error(Compose(Prefix, detail)) {} \
    Name::~Name() {}

#define SIGNING_DEFINE_PLAIN(Name)                                        \
    Name::Name(const std::string& detail) : std::runtime_error(detail) {} \
    Name::~Name() {}

SIGNING_DEFINE_TOP(NotImplementedException, "Not implemented")
SIGNING_DEFINE_PREFIXED(FileNotFoundException, FileIoException, "File not found")
SIGNING_DEFINE_PREFIXED(InvalidFileStructureException, FileIoException, "Invalid structure of the file")
SIGNING_DEFINE_PREFIXED(NotSupportedFileFormatException, FileIoException, "File format is not supported")
SIGNING_DEFINE_TOP(ArgumentException, "Invalid argument")
SIGNING_DEFINE_TOP(DataFormatException, "Invalid format of data")
SIGNING_DEFINE_TOP(Pkcs7InnerException, "Error during processing PKCS7 structure")

SIGNING_DEFINE_PLAIN(NotSupportedException)
SIGNING_DEFINE_PLAIN(NotDefinedException)
SIGNING_DEFINE_PLAIN(Base64OperationException)
SIGNING_DEFINE_PLAIN(InternalErrorException)
