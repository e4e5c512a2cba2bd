#include "Signer.h"

#include "Exceptions.h"

Signer::Signer(int32_t settingA, uint32_t creationArgument, bool settingB)
    : inputFile_(nullptr),
      outputFile_(nullptr),
      settingA_(settingA),
      creationArgument_(creationArgument),
      settingB_(settingB) {}

Signer::~Signer() {
    // A destructor must not throw: a file that cannot be removed or closed is left as it is.
    try {
        if (outputFile_ != nullptr) {
            outputFile_->Remove();
        }
    } catch (...) {
    }
    try {
        delete outputFile_;
    } catch (...) {
    }
    outputFile_ = nullptr;
    try {
        delete inputFile_;
    } catch (...) {
    }
    inputFile_ = nullptr;
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
