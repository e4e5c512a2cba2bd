#pragma once
// Recognises RPM packages by their lead and makes their signer.
#include "Signer.h"

class RpmSignerCreator : public SignerCreator {
public:
    // "rpm;srpm"
    static const char* _FileExtensions;

    // True for a regular file that starts with the lead magic ED AB EE DB and version 03 00.
    bool IsMe(FileHelper* file) override;
    const char* GetFileExtensions() override;
    Signer* GetSigner(unsigned int creationArgument) override;
};
