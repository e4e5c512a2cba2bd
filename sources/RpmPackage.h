#pragma once
// Reading an RPM package for verification: the lead, the signature header, and one pass over the
// main header and the payload that computes the package digests. VerifyPackage puts them together
// with a key; it keeps no state between calls, so calls on other packages may run on other threads.
//
// Layout of a package (all integers big-endian):
//   lead               96 bytes at offset 0; the signature type at offset 78 must be 5
//   signature header   16-byte structure header, 16 bytes per index entry, then the data store
//   padding            up to the next multiple of 8
//   main header        a header structure like the signature header
//   payload            to the end of the file
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FileHelper.h"
#include "PgpKey.h"
#include "RpmCheck.h"
#include "SignatureHeader.h"
#include "soapWrap.h"

// The largest header structures read, as rpm's own header reader bounds them: a larger claim is
// refused before anything is allocated or read, whatever the file's size.
struct HeaderBounds {
    uint32_t maxEntries;
    uint32_t maxDataSize;
};
constexpr HeaderBounds kSignatureHeaderBounds{32, 64u * 1024 * 1024};
constexpr HeaderBounds kMainHeaderBounds{0xFFFF, 0x0FFFFFFF};

// The index and store of a signature header, and where they end in the file.
struct SignatureStore {
    std::shared_ptr<char[]> entries;
    uint64_t end;
};

class PackageReader {
public:
    static const uint32_t LeadSize = 96;
    static const uint32_t SignatureIndexOffset = LeadSize + sizeof(HeaderStructureHeader);

    explicit PackageReader(FileHelper& input) : input_(input) {}

    // Whether the file starts with the lead of an RPM package of major version 3.
    static bool IsRpm(FileHelper& file);
    // Checks the lead; returns the file size.
    uint64_t CheckLead() const;
    // Reads a header structure header at pos and converts its counts to host order; false when its
    // magic is not 8E AD E8 01.
    bool ReadStructureHeader(uint64_t pos, HeaderStructureHeader& header) const;
    // The same, where a header must begin: InvalidFileStructureException "SECTION: RPM header magic
    // number is not found." when it does not.
    HeaderStructureHeader RequireStructureHeader(uint64_t pos, const char* section) const;
    // The index and store of the signature header described by header.
    SignatureStore ReadSignatureStore(const HeaderStructureHeader& header, uint64_t fileSize) const;
    // Main header (described by header, at headerOffset) and payload, read once in blocks: the
    // header through the header digests, header and payload through the package digests, each block
    // copied to copy when given. signingDigests adds the SHA-1 digests only the signing path reads.
    PackageDigests DigestPackage(uint64_t headerOffset, const HeaderStructureHeader& header,
                                 soapWrap::HashAlgorithm hash, FileHelper* copy, bool signingDigests) const;

private:
    FileHelper& input_;
};

// The ProcessingResult of the package in input checked with the key of keys; any error becomes 5
// (ResultInternalError) with its text in message. With checks, every check is made and recorded.
int VerifyPackage(FileHelper& input, KeySource& keys, std::string& message, std::vector<RpmCheck>* checks);
