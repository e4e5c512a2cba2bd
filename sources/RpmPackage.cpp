#include "RpmPackage.h"

#include <cerrno>
#include <cstring>

#include "ByteCursor.h"
#include "Digest.h"
#include "DigestPipeline.h"
#include "Exceptions.h"
#include "ProcessingResult.h"

namespace {

const unsigned char kHeaderMagic[4] = {0x8E, 0xAD, 0xE8, 0x01};
const uint32_t kSignatureTypeOffset = 78;  // in the lead
const uint16_t kHeaderStyleSignature = 5;
const uint32_t kRegionTag = 62;  // the first entry of a signature header: header-signatures region

// The OpenPGP id of a hash algorithm (RFC 4880, 9.4), by which DigestPipeline::Cost knows it.
unsigned int OpenPgpHashId(soapWrap::HashAlgorithm hash) {
    switch (hash) {
        case soapWrap::Md5: return PgpHashMd5;
        case soapWrap::Sha1: return PgpHashSha1;
        case soapWrap::Sha256: return PgpHashSha256;
        case soapWrap::Sha384: return PgpHashSha384;
        case soapWrap::Sha512: return PgpHashSha512;
        case soapWrap::Sha224: return PgpHashSha224;
        default: return 0;
    }
}

// A part of the file: where it starts and how many bytes it takes. In 64 bits, a start below 2^32
// plus 16 x a 32-bit count plus a 32-bit size cannot wrap.
struct Section {
    uint64_t start;
    uint64_t size;
    uint64_t End() const { return start + size; }
};

// Bytes of a header structure after its 16-byte structure header: the index, then the store.
uint64_t IndexAndStoreSize(const HeaderStructureHeader& header) {
    return 16ull * header.indexCount + header.dataSize;
}

std::string SizeText(const HeaderStructureHeader& header) {
    return std::to_string(header.indexCount) + " index entries and " + std::to_string(header.dataSize) +
           " bytes of data";
}

// Refuses a header structure that claims more than bounds allow.
void RequireBounds(const char* name, const HeaderStructureHeader& header, const HeaderBounds& bounds) {
    if (header.indexCount > bounds.maxEntries || header.dataSize > bounds.maxDataSize) {
        throw InvalidFileStructureException(std::string(name) + ": " + SizeText(header) +
                                            " exceed what an RPM header may hold (" +
                                            std::to_string(bounds.maxEntries) + " index entries and " +
                                            std::to_string(bounds.maxDataSize) + " bytes of data)");
    }
}

// Refuses a header structure (described by header) that runs past the end of the file.
void RequireInFile(const char* name, const Section& section, const HeaderStructureHeader& header, uint64_t fileSize) {
    if (section.End() > fileSize) {
        throw InvalidFileStructureException(std::string(name) + ": " + SizeText(header) +
                                            " do not fit in the file of " + std::to_string(fileSize) + " bytes");
    }
}

}  // namespace

bool PackageReader::IsRpm(FileHelper& file) {
    if (file.IsFolder()) {
        return false;
    }
    // Both values are read in host (little-endian) order: ED AB EE DB, then major 3 and minor 0.
    // A lead with another minor version is not taken.
    if (file.GetUInt32(0) != 0xDBEEABED) {
        return false;
    }
    return file.GetUInt16(4) == 3;
}

uint64_t PackageReader::CheckLead() const {
    const uint64_t fileSize = FileHelper::GetSize(input_.GetPath());
    if (fileSize <= LeadSize) {
        throw InvalidFileStructureException("File is too small to have RPM format");
    }
    unsigned char bytes[LeadSize] = {};
    input_.Read(reinterpret_cast<char*>(bytes), 0, LeadSize);
    ByteCursor lead(bytes, LeadSize, "RPM lead");
    lead.Skip(kSignatureTypeOffset);
    if (lead.ReadUInt16() != kHeaderStyleSignature) {
        throw InvalidFileStructureException("Unsupported signature type");
    }
    return fileSize;
}

bool PackageReader::ReadStructureHeader(uint64_t pos, HeaderStructureHeader& header) const {
    // A read cut short by the end of the file leaves zeros, which fail the magic comparison.
    unsigned char bytes[sizeof header] = {};
    input_.Read(reinterpret_cast<char*>(bytes), pos, sizeof bytes);
    ByteCursor structure(bytes, sizeof bytes, "RPM header structure");
    structure.Read(header.magic, sizeof header.magic);
    structure.Read(header.reserved, sizeof header.reserved);
    if (std::memcmp(header.magic, kHeaderMagic, sizeof kHeaderMagic) != 0) {
        return false;
    }
    header.indexCount = structure.ReadUInt32();
    header.dataSize = structure.ReadUInt32();
    return true;
}

HeaderStructureHeader PackageReader::RequireStructureHeader(uint64_t pos, const char* section) const {
    HeaderStructureHeader header;
    if (!ReadStructureHeader(pos, header)) {
        throw InvalidFileStructureException(std::string(section) + ": RPM header magic number is not found.");
    }
    return header;
}

SignatureStore PackageReader::ReadSignatureStore(const HeaderStructureHeader& header, uint64_t fileSize) const {
    input_.GetUInt32(SignatureIndexOffset);  // the first tag; checked below in the buffer

    RequireBounds("Signature section", header, kSignatureHeaderBounds);
    const Section section{SignatureIndexOffset, IndexAndStoreSize(header)};
    RequireInFile("Signature section", section, header, fileSize);
    SignatureStore store{std::shared_ptr<char[]>(new char[section.size]), section.End()};
    if (input_.Read(store.entries.get(), section.start, section.size) != static_cast<int32_t>(section.size)) {
        throw InvalidFileStructureException("Signature section: the index and the store could not be read");
    }

    // With no index entry there is no first header; a buffer shorter than a tag cannot hold one.
    ByteCursor index(store.entries.get(), section.size, "RPM signature index");
    if (!index.Has(sizeof(uint32_t)) || index.ReadUInt32() != kRegionTag) {
        throw DataFormatException("RPM signature is expected to be the first header");
    }
    return store;
}

PackageDigests PackageReader::DigestPackage(uint64_t headerOffset, const HeaderStructureHeader& header,
                                            soapWrap::HashAlgorithm hash, FileHelper* copy, bool signingDigests) const {
    RequireBounds("Header section", header, kMainHeaderBounds);
    const Section main{headerOffset, sizeof header + IndexAndStoreSize(header)};
    const uint64_t fileSize = FileHelper::GetSize(input_.GetPath());
    RequireInFile("Header section", main, header, fileSize);

    PackageDigests digests;
    digests.headerSha1 = std::make_unique<Digest>(soapWrap::Sha1);
    digests.headerSigned = std::make_unique<Digest>(hash);
    digests.packageMd5 = std::make_unique<Digest>(soapWrap::Md5);
    digests.packageSigned = std::make_unique<Digest>(hash);
    if (signingDigests && hash != soapWrap::Sha1) {
        digests.headerSha1Extra = std::make_unique<Digest>(soapWrap::Sha1);
        digests.packageSha1Extra = std::make_unique<Digest>(soapWrap::Sha1);
    }
    DigestBase* const headerDigests[] = {digests.headerSha1.get(), digests.headerSigned.get(),
                                         digests.headerSha1Extra.get()};
    // Over header and payload: MD5, the signed hash and (signing path) SHA-1, shared between the two
    // threads by their cost; the header digests, on the part of a block inside the main header, and
    // the copy stay with the reading thread.
    DigestBase* const packageDigests[] = {digests.packageMd5.get(), digests.packageSigned.get(),
                                          digests.packageSha1Extra.get()};
    const unsigned int hashIds[] = {PgpHashMd5, OpenPgpHashId(hash), PgpHashSha1};
    std::vector<DigestBase*> lanes[2];
    std::vector<double> costs;
    std::vector<DigestBase*> present;
    for (size_t i = 0; i < 3; ++i) {
        if (packageDigests[i] == nullptr) continue;
        present.push_back(packageDigests[i]);
        costs.push_back(DigestPipeline::Cost(hashIds[i]));
    }
    const std::vector<bool> second = DigestPipeline::Share(costs);
    for (size_t i = 0; i < present.size(); ++i) lanes[second[i] ? 1 : 0].push_back(present[i]);

    input_.AdviseSequential(headerOffset);
    const uint32_t blockSize = input_.GetBufferSize();
    const auto read = [&](char* block, uint64_t position, size_t size) -> size_t {
        const int32_t count = input_.Read(block, position, size);
        if (count < 0) {
            throw FileIoException("Cannot read file " + input_.GetPath() + ": " + SystemErrorText(errno));
        }
        return static_cast<size_t>(count);
    };
    // The pass ends at the first block shorter than a whole one (after the file's end).
    const auto more = [blockSize](size_t count, uint64_t) { return count == blockSize; };
    const auto front = [&](const char* block, uint64_t position, size_t count) {
        if (position < main.End()) {
            const auto inHeader = static_cast<unsigned int>(std::min<uint64_t>(count, main.End() - position));
            for (DigestBase* digest : headerDigests) {
                if (digest != nullptr) digest->Update(block, inHeader);
            }
        }
        for (DigestBase* digest : lanes[0]) digest->Update(block, static_cast<unsigned int>(count));
        if (copy != nullptr) copy->WriteBlock(block, static_cast<uint32_t>(count));
    };
    const auto back = [&lanes](const char* block, uint64_t, size_t count) {
        for (DigestBase* digest : lanes[1]) digest->Update(block, static_cast<unsigned int>(count));
    };
    const bool threaded =
        !lanes[1].empty() && DigestPipeline::Worthwhile(fileSize > headerOffset ? fileSize - headerOffset : 0);
    const uint64_t position = DigestPipeline::Run(headerOffset, blockSize, threaded, read, more, front, back);
    if (position < main.End()) {
        throw InvalidFileStructureException("Header section: the header could not be read");
    }
    digests.payloadLength = position - main.End();
    return digests;
}

int VerifyPackage(FileHelper& input, KeySource& keys, std::string& message, std::vector<RpmCheck>* checks) {
    try {
        const PackageReader reader(input);
        const uint64_t fileSize = reader.CheckLead();
        const HeaderStructureHeader structure =
            reader.RequireStructureHeader(PackageReader::LeadSize, "Signature section");
        const SignatureStore store = reader.ReadSignatureStore(structure, fileSize);
        const SignatureHeader signatureHeader(store.entries, structure);
        // The main header starts at the next multiple of 8.
        const uint64_t headerOffset = (store.end + 7) & ~uint64_t(7);
        const HeaderStructureHeader mainHeader = reader.RequireStructureHeader(headerOffset, "Header section");
        const PackageDigests digests =
            reader.DigestPackage(headerOffset, mainHeader, signatureHeader.DigestHash(), nullptr, false);
        return signatureHeader.Evaluate(keys, digests, message, checks);
    } catch (const std::exception& e) {
        message = e.what();
        return ResultInternalError;
    }
}
