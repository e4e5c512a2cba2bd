#include "RpmSignerCreator.h"

#include "Exceptions.h"
#include "RpmPackage.h"
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
    // A read cut short leaves what the file's scratch held before.
    return file->GetUInt32(0) == 0xDBEEABED && file->GetUInt16(4) == 3;
}

const char* RpmSignerCreator::GetFileExtensions() {
    return _FileExtensions;
}

Signer* RpmSignerCreator::GetSigner(unsigned int creationArgument) {
    return new RpmSigner(creationArgument);
}
