#include "PackageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "DigestPipeline.h"
#include "Exceptions.h"
#include "FileHelper.h"

namespace {

const unsigned char kLeadMagic[4] = {0xED, 0xAB, 0xEE, 0xDB};
const unsigned char kHeaderMagic[4] = {0x8E, 0xAD, 0xE8, 0x01};
const uint32_t kSignatureTypeOffset = 78;  // in the lead
const uint16_t kHeaderStyleSignature = 5;
const uint32_t kRegionTag = 62;  // the first entry of a signature header: header-signatures region
const size_t kBlockSize = 0x10000;

std::string SizeText(uint32_t indexCount, uint32_t dataSize) {
    return std::to_string(indexCount) + " index entries and " + std::to_string(dataSize) + " bytes of data";
}

}  // namespace

PackageFile::PackageFile(const std::string& path) : path_(path) {
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
        const int error = errno;
        const std::string detail = "Cannot get status for '" + path_ + "': " + SystemErrorText(error);
        if (error == ENOENT) throw FileNotFoundException(detail);
        throw FileIoException(detail);
    }
    if (S_ISDIR(status.st_mode)) return;
    // Without blocking: a pipe with no writer must not hang the caller.
    descriptor_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor_ < 0) throw FileIoException("Cannot open file " + path_ + ": " + SystemErrorText(errno));
    if (fstat(descriptor_, &status) != 0) {
        const int error = errno;
        close(descriptor_);
        throw FileIoException("Cannot get size of '" + path_ + "':" + SystemErrorText(error));
    }
    size_ = S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
}

PackageFile::~PackageFile() {
    if (descriptor_ >= 0) close(descriptor_);
}

size_t PackageFile::Read(void* data, size_t size, uint64_t position) const {
    size_t done = 0;
    while (descriptor_ >= 0 && done < size) {
        const ssize_t count =
            pread(descriptor_, static_cast<char*>(data) + done, size - done, static_cast<off_t>(position + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == ESPIPE) {
            throw FileIoException("Error on positioning file '" + path_ + "': " + SystemErrorText(errno));
        }
        if (count < 0) throw FileIoException("Cannot read file " + path_ + ": " + SystemErrorText(errno));
        if (count == 0) break;
        done += static_cast<size_t>(count);
    }
    return done;
}

void PackageFile::ReadZeroFilled(void* data, size_t size, uint64_t position) const {
    const size_t count = Read(data, size, position);
    std::memset(static_cast<char*>(data) + count, 0, size - count);
}

void PackageFile::AdviseSequential(uint64_t position) const {
    if (descriptor_ >= 0) posix_fadvise(descriptor_, static_cast<off_t>(position), 0, POSIX_FADV_SEQUENTIAL);
}

bool PackageFile::IsRpm(const ReaderStyle& style) const {
    unsigned char lead[LeadSize];
    const size_t count = Read(lead, style.asRpm ? LeadSize : 6, 0);
    if (count < 6 || std::memcmp(lead, kLeadMagic, sizeof kLeadMagic) != 0) return false;
    // The magic, then major version 3 and minor version 0: a lead of another minor is not taken.
    return style.asRpm ? count == LeadSize : lead[4] == 3 && lead[5] == 0;
}

void PackageFile::CheckLead(const ReaderStyle& style) const {
    if (style.largestPackage != 0 && size_ > style.largestPackage) {
        throw FileIoException("Cannot get size of '" + path_ + "':" + SystemErrorText(EOVERFLOW));
    }
    if (size_ <= LeadSize) throw InvalidFileStructureException("File is too small to have RPM format");
    unsigned char bytes[LeadSize];
    ReadZeroFilled(bytes, sizeof bytes, 0);
    ByteCursor lead(bytes, sizeof bytes, "RPM lead");
    lead.Skip(kSignatureTypeOffset);
    if (!style.asRpm && lead.ReadUInt16() != kHeaderStyleSignature)
        throw InvalidFileStructureException("Unsupported signature type");
}

const HeaderEntry* HeaderStructure::Find(uint32_t tag) const {
    for (const HeaderEntry& entry : entries) {
        if (entry.tag == tag) return &entry;
    }
    return nullptr;
}

HeaderStructure ReadStructureHeader(const PackageFile& file, uint64_t start, const char* section,
                                    const ReaderStyle& style) {
    const std::string name(section);
    unsigned char intro[16];
    if (style.shortReadsAsZeros) {
        file.ReadZeroFilled(intro, sizeof intro, start);
    } else if (file.Read(intro, sizeof intro, start) != sizeof intro) {
        throw InvalidFileStructureException(name + " is cut short");
    }
    if (std::memcmp(intro, kHeaderMagic, sizeof kHeaderMagic) != 0) {
        throw InvalidFileStructureException(name + ": RPM header magic number is not found.");
    }
    // rpm takes the four reserved bytes after the magic as part of it: they must be zero.
    static const unsigned char kReserved[4] = {0, 0, 0, 0};
    if (style.asRpm && std::memcmp(intro + 4, kReserved, sizeof kReserved) != 0) {
        throw InvalidFileStructureException(name + ": the reserved bytes after the RPM header magic are not zero");
    }
    ByteCursor counts(intro + 8, 8, section);
    HeaderStructure header;
    header.start = start;
    header.indexCount = counts.ReadUInt32();
    header.dataSize = counts.ReadUInt32();
    return header;
}

void ReadStructureIndex(const PackageFile& file, HeaderStructure& header, const HeaderBounds& bounds,
                        const char* section, const ReaderStyle& style) {
    const std::string name(section);
    if (header.indexCount > bounds.maxEntries || header.dataSize > bounds.maxDataSize) {
        throw InvalidFileStructureException(
            name + ": " + SizeText(header.indexCount, header.dataSize) + " exceed what an RPM header may hold" +
            (style.boundsNamed ? " (" + SizeText(bounds.maxEntries, bounds.maxDataSize) + ")" : ""));
    }
    if (header.End() > file.Size()) {
        throw InvalidFileStructureException(name + ": " + SizeText(header.indexCount, header.dataSize) +
                                            " do not fit in the file of " + std::to_string(file.Size()) + " bytes");
    }
    std::vector<unsigned char> index(16ull * header.indexCount);
    if (file.Read(index.data(), index.size(), header.start + 16) != index.size()) {
        throw InvalidFileStructureException(name + ": the index and the store could not be read");
    }
    ByteCursor cursor(index.data(), index.size(), section);
    header.entries.resize(header.indexCount);
    for (HeaderEntry& entry : header.entries) {
        entry.tag = cursor.ReadUInt32();
        entry.type = cursor.ReadUInt32();
        entry.offset = cursor.ReadUInt32();
        entry.count = cursor.ReadUInt32();
    }
}

HeaderStructure ReadHeaderStructure(const PackageFile& file, uint64_t start, const HeaderBounds& bounds,
                                    const char* section, const ReaderStyle& style) {
    HeaderStructure header = ReadStructureHeader(file, start, section, style);
    ReadStructureIndex(file, header, bounds, section, style);
    return header;
}

SignatureHeaderData ReadSignatureHeaderData(const PackageFile& file, const ReaderStyle& style) {
    SignatureHeaderData data;
    data.structure =
        ReadHeaderStructure(file, PackageFile::LeadSize, kSignatureHeaderBounds, "Signature section", style);
    data.store.resize(data.structure.dataSize);
    if (file.Read(data.store.data(), data.store.size(), data.structure.StoreStart()) != data.store.size()) {
        throw InvalidFileStructureException("Signature section: the index and the store could not be read");
    }
    // The first tag: the first entry's, or (read the way the classic reader reads it) the first four
    // bytes after the structure header, which are the store's when the index is empty.
    bool region = !data.structure.entries.empty() && data.structure.entries.front().tag == kRegionTag;
    if (data.structure.entries.empty() && style.firstTagFromBuffer && data.store.size() >= 4) {
        ByteCursor first(data.store.data(), data.store.size(), "RPM signature store");
        region = first.ReadUInt32() == kRegionTag;
    }
    if (!region && !style.asRpm) {
        throw DataFormatException("RPM signature is expected to be the first header");
    }
    return data;
}

uint64_t DigestPass(const PackageFile& file, const HeaderStructure& mainHeader, const DigestStreams& streams,
                    const std::function<void(const char*, size_t)>& copy) {
    // Each stream over header and payload or over the payload goes to one of the two threads.
    struct Lane {
        std::vector<const DigestStream*> package, payload;
    } lanes[2];
    std::vector<const DigestStream*> shared;
    shared.reserve(streams.package.size() + streams.payload.size());
    for (const DigestStream& stream : streams.package) shared.push_back(&stream);
    for (const DigestStream& stream : streams.payload) shared.push_back(&stream);
    std::vector<double> costs;
    costs.reserve(shared.size());
    for (const DigestStream* stream : shared) costs.push_back(stream->cost);
    const std::vector<bool> second = DigestPipeline::Share(costs);
    for (size_t i = 0; i < shared.size(); ++i) {
        Lane& lane = lanes[second[i] ? 1 : 0];
        (i < streams.package.size() ? lane.package : lane.payload).push_back(shared[i]);
    }

    const uint64_t headerEnd = mainHeader.End();
    const uint64_t size = file.Size();
    // The bytes of a block that belong to the main header.
    const auto inHeader = [headerEnd](uint64_t position, size_t count) {
        return position < headerEnd ? static_cast<size_t>(std::min<uint64_t>(position + count, headerEnd) - position)
                                    : size_t{0};
    };
    const auto feed = [&inHeader](const Lane& lane, const char* block, uint64_t position, size_t count) {
        const size_t header = inHeader(position, count);
        for (const DigestStream* stream : lane.package) stream->feed(block, count);
        for (const DigestStream* stream : lane.payload) stream->feed(block + header, count - header);
    };
    const auto read = [&file](char* block, uint64_t position, size_t count) {
        return file.Read(block, count, position);
    };
    const auto more = [size](size_t count, uint64_t end) { return count != 0 && end < size; };
    const auto front = [&](const char* block, uint64_t position, size_t count) {
        const size_t header = inHeader(position, count);
        if (header > 0) {
            for (const DigestStream& stream : streams.header) stream.feed(block, header);
        }
        feed(lanes[0], block, position, count);
        if (copy) copy(block, count);
    };
    const auto back = [&](const char* block, uint64_t position, size_t count) {
        feed(lanes[1], block, position, count);
    };
    file.AdviseSequential(mainHeader.start);
    const bool threaded = (!lanes[1].package.empty() || !lanes[1].payload.empty()) &&
                          DigestPipeline::Worthwhile(size > mainHeader.start ? size - mainHeader.start : 0);
    const uint64_t end = DigestPipeline::Run(mainHeader.start, kBlockSize, threaded, read, more, front, back);
    if (end < headerEnd) throw InvalidFileStructureException("Header section: the header could not be read");
    return end - headerEnd;
}
