#include "RpmSigner.h"

#include "Exceptions.h"
#include "RpmPackage.h"

namespace {

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

RpmSigner::~RpmSigner() = default;

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

// The lead, the signature header's structure header, then its index and store.
RpmSignature* RpmSigner::ParseSignature(unsigned int& headerOffset, bool copyToOutput) {
    const PackageFile file(Input().GetPath());
    file.CheckLead(ClassicReader());
    SignatureHeaderData data = ReadSignatureHeaderData(file, ClassicReader());
    if (copyToOutput) {
        Input().CopyData(&Output(), 0, LeadSize);
    }
    signatureEntryCount_ = data.structure.indexCount;
    // The main header starts at the next multiple of 8; the file size bounds this below 2^32.
    headerOffset = static_cast<unsigned int>(data.MainHeaderStart());
    return new RpmSignature(std::move(data));
}

// The package digests, computed in one pass, handed to signature's numbered store.
RpmSignature* RpmSigner::PassDigestsToSignature(RpmSignature* signature, unsigned int headerOffset,
                                                bool copyToOutput) const {
    const PackageFile file(Input().GetPath());
    const HeaderStructure main = ReadMainHeader(file, headerOffset);
    const soapWrap::HashAlgorithm hash = SignedHash(*signature);
    // The SHA-1 digests 2 and 5 serve the signing path only: they are made when the package is copied.
    std::function<void(const char*, size_t)> copy;
    if (copyToOutput) {
        FileHelper& output = Output();
        copy = [&output](const char* block, size_t size) { output.WriteBlock(block, static_cast<uint32_t>(size)); };
    }
    PackageDigests digests = DigestPackage(file, main, hash, copy, copyToOutput);
    signature->SetPayloadLength(digests.payloadLength);
    signature->SetDigest(0, digests.headerSha1.release());
    signature->SetDigest(1, digests.headerSigned.release());
    signature->SetDigest(2, digests.headerSha1Extra.release());
    signature->SetDigest(3, digests.packageMd5.release());
    signature->SetDigest(4, digests.packageSigned.release());
    signature->SetDigest(5, digests.packageSha1Extra.release());
    return signature;
}
