#include "RpmSigner.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Digest.h"
#include "Exceptions.h"

namespace {

const unsigned char kHeaderMagic[4] = {0x8E, 0xAD, 0xE8, 0x01};
const uint16_t kHeaderStyleSignature = 5;
const uint32_t kRegionTag = 62;  // the first entry of a signature header: header-signatures region

// Bytes of a header structure after its 16-byte structure header: the index, then the store.
uint64_t IndexAndStoreSize(const HeaderStructureHeader& header) {
    return 16ull * header.indexCount + header.dataSize;
}

std::string SizeText(const HeaderStructureHeader& header) {
    return std::to_string(header.indexCount) + " index entries and " + std::to_string(header.dataSize) +
           " bytes of data";
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
    std::memset(&header, 0, sizeof header);
    Input().Read(reinterpret_cast<char*>(&header), pos, sizeof header);
    if (std::memcmp(header.magic, kHeaderMagic, sizeof kHeaderMagic) != 0) {
        return false;
    }
    header.indexCount = ntohl(header.indexCount);
    header.dataSize = ntohl(header.dataSize);
    return true;
}

RpmSignature* RpmSigner::ParseSignature(unsigned int& headerOffset, bool copyToOutput) {
    FileHelper& input = Input();
    const uint64_t fileSize = FileHelper::GetSize(input.GetPath());
    if (fileSize <= LeadSize) {
        throw InvalidFileStructureException("File is too small to have RPM format");
    }

    unsigned char lead[LeadSize] = {};
    input.Read(reinterpret_cast<char*>(lead), 0, LeadSize);
    if ((lead[78] << 8 | lead[79]) != kHeaderStyleSignature) {
        throw InvalidFileStructureException("Unsupported signature type");
    }

    HeaderStructureHeader header;
    if (!ReadStructureHeader(LeadSize, header)) {
        throw InvalidFileStructureException("Signature section: RPM header magic number is not found.");
    }
    if (copyToOutput) {
        input.CopyData(&Output(), 0, LeadSize);
    }
    input.GetUInt32(SignatureIndexOffset);  // the first tag; checked below in the buffer

    const uint64_t size = IndexAndStoreSize(header);
    if (SignatureIndexOffset + size > fileSize) {
        throw InvalidFileStructureException("Signature section: " + SizeText(header) +
                                            " do not fit in the file of " + std::to_string(fileSize) + " bytes");
    }
    signatureHeader_.reset(new char[size]);
    signatureEntryCount_ = header.indexCount;
    if (input.Read(signatureHeader_.get(), SignatureIndexOffset, size) != static_cast<int32_t>(size)) {
        throw InvalidFileStructureException("Signature section: the index and the store could not be read");
    }

    // With no index entry there is no first header; a buffer shorter than a tag cannot hold one.
    uint32_t firstTag = 0;
    if (size >= sizeof firstTag) {
        std::memcpy(&firstTag, signatureHeader_.get(), sizeof firstTag);
    }
    if (size < sizeof firstTag || ntohl(firstTag) != kRegionTag) {
        throw DataFormatException("RPM signature is expected to be the first header");
    }

    RpmSignature* signature = new RpmSignature(signatureHeader_, header);
    // The main header starts at the next multiple of 8; the file size bounds this below 2^32.
    headerOffset = static_cast<unsigned int>((SignatureIndexOffset + size + 7) & ~uint64_t(7));
    return signature;
}

RpmSignature* RpmSigner::PassDigestsToSignature(RpmSignature* signature, unsigned int headerOffset,
                                                bool copyToOutput) const {
    FileHelper& input = Input();
    HeaderStructureHeader header;
    if (!ReadStructureHeader(headerOffset, header)) {
        throw InvalidFileStructureException("Header section: RPM header magic number is not found.");
    }

    // The hash of the header signature; SHA-1 when the package has none.
    soapWrap::HashAlgorithm hash = soapWrap::Sha1;
    try {
        hash = signature->GetHashAlgorithm();
    } catch (const NotDefinedException&) {
    }
    const bool extraSha1 = hash != soapWrap::Sha1;

    // The main header alone: structure header, index and store, read whole.
    const uint64_t headerSize = sizeof header + IndexAndStoreSize(header);
    const uint64_t fileSize = FileHelper::GetSize(input.GetPath());
    if (headerOffset + headerSize > fileSize) {
        throw InvalidFileStructureException("Header section: " + SizeText(header) + " do not fit in the file of " +
                                            std::to_string(fileSize) + " bytes");
    }
    {
        std::vector<char> buffer(headerSize);
        if (input.Read(buffer.data(), headerOffset, headerSize) != static_cast<int32_t>(headerSize)) {
            throw InvalidFileStructureException("Header section: the header could not be read");
        }
        std::unique_ptr<DigestBase> sha1 = std::make_unique<Digest>(soapWrap::Sha1);
        std::unique_ptr<DigestBase> signed_ = std::make_unique<Digest>(hash);
        std::unique_ptr<DigestBase> sha1Extra = extraSha1 ? std::make_unique<Digest>(soapWrap::Sha1) : nullptr;
        for (DigestBase* digest : {sha1.get(), signed_.get(), sha1Extra.get()}) {
            if (digest != nullptr) digest->Update(buffer.data(), static_cast<unsigned int>(headerSize));
        }
        signature->SetDigest(0, sha1.release());
        signature->SetDigest(1, signed_.release());
        signature->SetDigest(2, sha1Extra.release());
    }

    // Header and payload, streamed once through every digest in blocks of the file's buffer size.
    std::unique_ptr<DigestBase> md5 = std::make_unique<Digest>(soapWrap::Md5);
    std::unique_ptr<DigestBase> signed_ = std::make_unique<Digest>(hash);
    std::unique_ptr<DigestBase> sha1Extra = extraSha1 ? std::make_unique<Digest>(soapWrap::Sha1) : nullptr;
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
    const uint64_t headerEnd = headerOffset + headerSize;
    signature->SetPayloadLength(position > headerEnd ? position - headerEnd : 0);

    signature->SetDigest(3, md5.release());
    signature->SetDigest(4, signed_.release());
    signature->SetDigest(5, sha1Extra.release());
    return signature;
}
