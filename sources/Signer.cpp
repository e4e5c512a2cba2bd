#include "Signer.h"

#include "Exceptions.h"

Signer::Signer(int32_t settingA, uint32_t creationArgument, bool settingB)
    : settingA_(settingA), creationArgument_(creationArgument), settingB_(settingB) {}

Signer::~Signer() {
    // A destructor must not throw: a file that cannot be removed is left on disk, and a file object
    // that cannot close its file is freed all the same (FileHelperRelease).
    try {
        if (outputFile_ != nullptr) {
            outputFile_->Remove();
        }
    } catch (...) {
    }
    outputFile_.reset();
    inputFile_.reset();
}

ContentInfo* Signer::BuildContentInfo(soapWrap::HashAlgorithm, bool) {
    throw NotImplementedException("BuildContentInfo method with hash algorithm specification");
}

bool Signer::IsCatSpecificContentInfo() {
    return false;
}

DigestBase* Signer::GetDigest() {
    return nullptr;
}

int Signer::GetFileType() {
    return 4;
}

SignerCreator::~SignerCreator() {}

const char* SignerCreator::GetFileExtensions() {
    return nullptr;
}
