#include "RpmSigner.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "ByteCursor.h"
#include "Digest.h"
#include "Exceptions.h"

namespace {

const unsigned char kHeaderMagic[4] = {0x8E, 0xAD, 0xE8, 0x01};
const uint32_t kSignatureTypeOffset = 78;  // in the lead
const uint16_t kHeaderStyleSignature = 5;
const uint32_t kRegionTag = 62;  // the first entry of a signature header: header-signatures region

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

// Refuses a header structure (described by header) that runs past the end of the file.
void RequireInFile(const char* name, const Section& section, const HeaderStructureHeader& header, uint64_t fileSize) {
    if (section.End() > fileSize) {
        throw InvalidFileStructureException(std::string(name) + ": " + SizeText(header) +
                                            " do not fit in the file of " + std::to_string(fileSize) + " bytes");
    }
}

// The hash of the header signature; SHA-1 when the package has none.
soapWrap::HashAlgorithm SignedHash(RpmSignature& signature) {
    try {
        return signature.GetHashAlgorithm();
    } catch (const NotDefinedException&) {
        return soapWrap::Sha1;
    }
}

}  // namespace

RpmSigner::RpmSigner(unsigned int creationArgument)
    : Signer(1, creationArgument, true), signatureEntryCount_(0), settingC_(1), checks_(nullptr) {}

RpmSigner::~RpmSigner() {
    signatureHeader_.reset();
}

FileHelper& RpmSigner::Input() const {
    if (inputFile_ == nullptr) {
        throw ArgumentException("the signer has no input file");
    }
    return *inputFile_;
}

FileHelper& RpmSigner::Output() const {
    if (outputFile_ == nullptr) {
        throw ArgumentException("the signer has no output file to copy to");
    }
    return *outputFile_;
}

int RpmSigner::Process(bool, bool copyToOutput, bool, std::string& errorText) {
    try {
        unsigned int headerOffset = 0;
        std::unique_ptr<RpmSignature> signature(ParseSignature(headerOffset, copyToOutput));
        PassDigestsToSignature(signature.get(), headerOffset, copyToOutput);
        return signature->Evaluate(errorText, checks_);
    } catch (const std::exception& e) {
        errorText = e.what();
        return ResultInternalError;
    }
}

ContentInfo* RpmSigner::BuildContentInfo(bool) {
    throw NotImplementedException("RpmSigner::BuildContentInfo() is not implemented");
}

bool RpmSigner::ReadStructureHeader(unsigned long long pos, HeaderStructureHeader& header) const {
    // A read cut short by the end of the file leaves zeros, which fail the magic comparison.
    unsigned char bytes[sizeof header] = {};
    Input().Read(reinterpret_cast<char*>(bytes), pos, sizeof bytes);
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

// The lead, the signature header's structure header, then its index and store.
RpmSignature* RpmSigner::ParseSignature(unsigned int& headerOffset, bool copyToOutput) {
    const uint64_t fileSize = CheckLead();
    HeaderStructureHeader header;
    if (!ReadStructureHeader(LeadSize, header)) {
        throw InvalidFileStructureException("Signature section: RPM header magic number is not found.");
    }
    if (copyToOutput) {
        Input().CopyData(&Output(), 0, LeadSize);
    }
    const uint64_t end = ReadSignatureHeader(header, fileSize);
    RpmSignature* signature = new RpmSignature(signatureHeader_, header);
    // The main header starts at the next multiple of 8; the file size bounds this below 2^32.
    headerOffset = static_cast<unsigned int>((end + 7) & ~uint64_t(7));
    return signature;
}

uint64_t RpmSigner::CheckLead() const {
    FileHelper& input = Input();
    const uint64_t fileSize = FileHelper::GetSize(input.GetPath());
    if (fileSize <= LeadSize) {
        throw InvalidFileStructureException("File is too small to have RPM format");
    }
    unsigned char bytes[LeadSize] = {};
    input.Read(reinterpret_cast<char*>(bytes), 0, LeadSize);
    ByteCursor lead(bytes, LeadSize, "RPM lead");
    lead.Skip(kSignatureTypeOffset);
    if (lead.ReadUInt16() != kHeaderStyleSignature) {
        throw InvalidFileStructureException("Unsupported signature type");
    }
    return fileSize;
}

uint64_t RpmSigner::ReadSignatureHeader(const HeaderStructureHeader& header, uint64_t fileSize) {
    FileHelper& input = Input();
    input.GetUInt32(SignatureIndexOffset);  // the first tag; checked below in the buffer

    const Section section{SignatureIndexOffset, IndexAndStoreSize(header)};
    RequireInFile("Signature section", section, header, fileSize);
    signatureHeader_.reset(new char[section.size]);
    signatureEntryCount_ = header.indexCount;
    if (input.Read(signatureHeader_.get(), section.start, section.size) != static_cast<int32_t>(section.size)) {
        throw InvalidFileStructureException("Signature section: the index and the store could not be read");
    }

    // With no index entry there is no first header; a buffer shorter than a tag cannot hold one.
    ByteCursor index(signatureHeader_.get(), section.size, "RPM signature index");
    if (!index.Has(sizeof(uint32_t)) || index.ReadUInt32() != kRegionTag) {
        throw DataFormatException("RPM signature is expected to be the first header");
    }
    return section.End();
}

// The main header's digests, then header and payload streamed through the package digests.
RpmSignature* RpmSigner::PassDigestsToSignature(RpmSignature* signature, unsigned int headerOffset,
                                                bool copyToOutput) const {
    HeaderStructureHeader header;
    if (!ReadStructureHeader(headerOffset, header)) {
        throw InvalidFileStructureException("Header section: RPM header magic number is not found.");
    }
    const soapWrap::HashAlgorithm hash = SignedHash(*signature);
    const Section main{headerOffset, sizeof header + IndexAndStoreSize(header)};
    RequireInFile("Header section", main, header, FileHelper::GetSize(Input().GetPath()));
    DigestMainHeader(*signature, main.start, main.size, hash);
    DigestPackage(*signature, main.start, main.End(), hash, copyToOutput);
    return signature;
}

// The main header alone (structure header, index and store, read whole) through digests 0 (SHA-1),
// 1 (the signature's hash) and 2 (SHA-1 as well, when the signature's hash is another).
void RpmSigner::DigestMainHeader(RpmSignature& signature, uint64_t headerOffset, uint64_t headerSize,
                                 soapWrap::HashAlgorithm hash) const {
    // The header lies inside the file, whose size FileHelper::GetSize keeps below 2^31: its size
    // fits in memory sizes and in one read's count.
    std::vector<char> buffer(static_cast<size_t>(headerSize));
    if (Input().Read(buffer.data(), headerOffset, headerSize) != static_cast<int32_t>(headerSize)) {
        throw InvalidFileStructureException("Header section: the header could not be read");
    }
    const bool extraSha1 = hash != soapWrap::Sha1;
    std::unique_ptr<DigestBase> sha1 = std::make_unique<Digest>(soapWrap::Sha1);
    std::unique_ptr<DigestBase> signed_ = std::make_unique<Digest>(hash);
    std::unique_ptr<DigestBase> sha1Extra = extraSha1 ? std::make_unique<Digest>(soapWrap::Sha1) : nullptr;
    for (DigestBase* digest : {sha1.get(), signed_.get(), sha1Extra.get()}) {
        if (digest != nullptr) digest->Update(buffer.data(), static_cast<unsigned int>(headerSize));
    }
    signature.SetDigest(0, sha1.release());
    signature.SetDigest(1, signed_.release());
    signature.SetDigest(2, sha1Extra.release());
}

// Header and payload, streamed once through digests 3 (MD5), 4 (the signature's hash) and 5 (SHA-1,
// when the signature's hash is another), in blocks of the file's buffer size; records how many
// bytes follow the main header.
void RpmSigner::DigestPackage(RpmSignature& signature, uint64_t headerOffset, uint64_t headerEnd,
                              soapWrap::HashAlgorithm hash, bool copyToOutput) const {
    FileHelper& input = Input();
    std::unique_ptr<DigestBase> md5 = std::make_unique<Digest>(soapWrap::Md5);
    std::unique_ptr<DigestBase> signed_ = std::make_unique<Digest>(hash);
    std::unique_ptr<DigestBase> sha1Extra = hash != soapWrap::Sha1 ? std::make_unique<Digest>(soapWrap::Sha1) : nullptr;
    input.AdviseSequential(headerOffset);
    const uint32_t blockSize = input.GetBufferSize();
    std::unique_ptr<char[]> block = std::make_unique<char[]>(blockSize);
    unsigned long long position = headerOffset;
    int32_t count = 0;
    do {
        count = input.Read(block.get(), position, blockSize);
        if (count < 0) {
            throw FileIoException("Cannot read file " + input.GetPath() + ": " + std::strerror(errno));
        }
        md5->Update(block.get(), count);
        signed_->Update(block.get(), count);
        if (sha1Extra) sha1Extra->Update(block.get(), count);
        if (copyToOutput) Output().WriteBlock(block.get(), count);
        position += count;
    } while (static_cast<uint32_t>(count) == blockSize);
    signature.SetPayloadLength(position > headerEnd ? position - headerEnd : 0);

    signature.SetDigest(3, md5.release());
    signature.SetDigest(4, signed_.release());
    signature.SetDigest(5, sha1Extra.release());
}
