#include "RpmSignerCreator.h"

#include "Exceptions.h"
#include "RpmPackage.h"
#include "RpmSigner.h"

const char* RpmSignerCreator::_FileExtensions = "rpm;srpm";

bool RpmSignerCreator::IsMe(FileHelper* file) {
    if (file == nullptr) {
        throw ArgumentException("no file to recognise");
    }
    return PackageReader::IsRpm(*file);
}

const char* RpmSignerCreator::GetFileExtensions() {
    return _FileExtensions;
}

Signer* RpmSignerCreator::GetSigner(unsigned int creationArgument) {
    return new RpmSigner(creationArgument);
}
