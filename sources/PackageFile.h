#pragma once
// Reading an RPM package for verification: the file, opened once and read at 64-bit positions; its
// lead; its header structures, decoded into values; and the one pass over the main header and the
// payload that feeds every digest a verification needs.
//
// Layout of a package (all integers big-endian):
//   lead               96 bytes at offset 0: magic ED AB EE DB, major and minor version, ..., the
//                      signature type at offset 78 (5: a header structure follows)
//   signature header   16-byte structure header, 16 bytes per index entry, then the data store
//   padding            up to the next multiple of 8
//   main header        a header structure like the signature header
//   payload            to the end of the file
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ByteCursor.h"

// The largest header structures read, as rpm's own header reader bounds them: a larger claim is
// refused before anything is allocated or read, whatever the file's size.
struct HeaderBounds {
    uint32_t maxEntries;
    uint32_t maxDataSize;
};
constexpr HeaderBounds kSignatureHeaderBounds{32, 64u * 1024 * 1024};
constexpr HeaderBounds kMainHeaderBounds{0xFFFF, 0x0FFFFFFF};

// How a reader words and orders what it refuses: the same structure read the same way, told in
// the words each verification has always used.
struct ReaderStyle {
    // The size above which a package is refused as a 32-bit size would refuse it (0: no limit).
    uint64_t largestPackage;
    // Whether a refused header size names the bounds it exceeds.
    bool boundsNamed;
    // Whether a header structure cut short by the end of the file reads as zeros (its magic then
    // is not found), or is refused as cut short.
    bool shortReadsAsZeros;
    // Whether the signature header's first tag is the first four bytes after its structure header
    // whatever the index holds (a store's, when the index is empty), or its first entry's (none
    // when the index is empty).
    bool firstTagFromBuffer;
    // Whether the package is read as rpm reads it today: a lead is its magic alone (of any version
    // and signature type: rpm 6 packages say major version 4), and the headers are held to rpm's
    // header checks (HeaderStore.h), with or without a region; else the lead must say version 3.0
    // and signature type 5, and the signature header must start with its region.
    bool asRpm;
};

// A package file opened for reading. A folder opens too: it has no descriptor and reads nothing.
// Failures are FileIoExceptions that name the path (FileNotFoundException when it is missing).
class PackageFile {
public:
    static const uint32_t LeadSize = 96;

    explicit PackageFile(const std::string& path);
    ~PackageFile();
    PackageFile(const PackageFile&) = delete;
    PackageFile& operator=(const PackageFile&) = delete;

    const std::string& Path() const { return path_; }
    bool IsFolder() const { return descriptor_ < 0; }
    // The size of the open file (0 for a folder).
    uint64_t Size() const { return size_; }
    // Up to size bytes at position; fewer only at the end of the file. A file that cannot be read at
    // a position (a pipe, a socket) is refused as it cannot be positioned.
    size_t Read(void* data, size_t size, uint64_t position) const;
    // size bytes at position; the bytes the file does not have are zeros.
    void ReadZeroFilled(void* data, size_t size, uint64_t position) const;
    // Tells the kernel the file will be read from position to its end in order (a hint only).
    void AdviseSequential(uint64_t position) const;

    // Whether the file starts with the lead of an RPM package as style reads one: the magic, then
    // major version 3 and minor 0 (the whole lead and the magic alone, read as rpm reads it).
    bool IsRpm(const ReaderStyle& style) const;
    // Checks the size and the lead's signature type.
    void CheckLead(const ReaderStyle& style) const;

private:
    std::string path_;
    int descriptor_ = -1;
    uint64_t size_ = 0;
};

// The type field of an index entry, as stored in the file.
enum RpmDataType : uint32_t {
    RpmInt16 = 3,
    RpmInt32 = 4,
    RpmInt64 = 5,
    RpmString = 6,
    RpmBinary = 7,
    RpmStringArray = 8,
};

// One 16-byte index entry: tag, type, offset into the data store, count.
struct HeaderEntry {
    uint32_t tag;
    uint32_t type;
    uint32_t offset;
    uint32_t count;
};

// A header structure: where it starts, its index entries as values, and where its store lies.
struct HeaderStructure {
    uint64_t start = 0;  // of the 16-byte structure header
    uint32_t indexCount = 0;
    uint32_t dataSize = 0;
    std::vector<HeaderEntry> entries;

    uint64_t StoreStart() const { return start + 16 + 16ull * indexCount; }
    uint64_t End() const { return StoreStart() + dataSize; }
    // The first entry of tag, or null.
    const HeaderEntry* Find(uint32_t tag) const;
};

// Reads the header structure at start (section names it in failures: "Signature section"): its
// magic, its counts against bounds and the file, and its index.
HeaderStructure ReadHeaderStructure(const PackageFile& file, uint64_t start, const HeaderBounds& bounds,
                                    const char* section, const ReaderStyle& style);
// The same in two steps: the 16-byte structure header (its magic and counts), then the counts
// against bounds and the file and the index.
HeaderStructure ReadStructureHeader(const PackageFile& file, uint64_t start, const char* section,
                                    const ReaderStyle& style);
void ReadStructureIndex(const PackageFile& file, HeaderStructure& header, const HeaderBounds& bounds,
                        const char* section, const ReaderStyle& style);

// The signature header: its structure and its whole store (at most 64 MiB), the first entry
// checked to be the header-signatures region (tag 62).
struct SignatureHeaderData {
    HeaderStructure structure;
    std::vector<unsigned char> store;

    ByteCursor Store() const { return ByteCursor(store.data(), store.size(), "RPM signature store"); }
    // Where the main header starts: the next multiple of 8 after the store.
    uint64_t MainHeaderStart() const { return (structure.End() + 7) & ~uint64_t(7); }
};
SignatureHeaderData ReadSignatureHeaderData(const PackageFile& file, const ReaderStyle& style);

// A digest that a pass feeds, and its rough cost per byte (DigestPipeline::Cost).
struct DigestStream {
    std::function<void(const char* data, size_t size)> feed;
    double cost;
};
// The digests one pass feeds: over the main header alone, over main header and payload, over the
// payload alone. The header digests and the reading stay on the calling thread; the others are
// shared between it and a second thread by their cost, so that a large package is hashed on two
// cores.
struct DigestStreams {
    std::vector<DigestStream> header;
    std::vector<DigestStream> package;
    std::vector<DigestStream> payload;
};
// Runs the pass from the main header (mainHeader) to the end of the file, calling copy, when
// given, with every block on the reading thread. Returns the bytes after the main header.
uint64_t DigestPass(const PackageFile& file, const HeaderStructure& mainHeader, const DigestStreams& streams,
                    const std::function<void(const char*, size_t)>& copy = nullptr);
