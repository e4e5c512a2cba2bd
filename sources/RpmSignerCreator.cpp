#include "RpmSignerCreator.h"

#include "Exceptions.h"
#include "RpmSigner.h"

const char* RpmSignerCreator::_FileExtensions = "rpm;srpm";

bool RpmSignerCreator::IsMe(FileHelper* file) {
    if (file == nullptr) {
        throw ArgumentException("no file to recognise");
    }
    if (file->IsFolder()) {
        return false;
    }
    // Both values are read in host (little-endian) order: ED AB EE DB, then major 3 and minor 0.
    // A lead with another minor version is not taken.
    if (file->GetUInt32(0) != 0xDBEEABED) {
        return false;
    }
    return file->GetUInt16(4) == 3;
}

const char* RpmSignerCreator::GetFileExtensions() {
    return _FileExtensions;
}

Signer* RpmSignerCreator::GetSigner(unsigned int creationArgument) {
    return new RpmSigner(creationArgument);
}
