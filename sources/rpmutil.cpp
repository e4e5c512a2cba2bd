#include "rpmutil.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "CertificateManager.h"
#include "FileHelper.h"
#include "RpmSignerCreator.h"
#include "Signature.h"

const char* FILE_PATTERN = "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$";

namespace {

// The text returned when even the message cannot be allocated; static, never freed.
char kInternalError[] = "Internal error.";

RpmVerifyResult ResultOf(int processingResult, const std::string& file) {
    switch (processingResult) {
        case ResultNotSigned: return response(RPM_STATUS_NOT_SIGNED, file + " is not signed.");
        case ResultSigned: return response(RPM_STATUS_SIGNED, file + " is signed.");
        case ResultInvalidSignature: return response(RPM_STATUS_INVALID_SIGNATURE, file + " has invalid signature.");
        case ResultInvalidHash: return response(RPM_STATUS_INVALID_HASH, file + " has invalid hash.");
        case ResultInvalidStructure: return response(RPM_STATUS_INVALID_STRUCTURE, file + " has invalid structure.");
        case ResultInternalError:
            return response(RPM_STATUS_ERROR, "Internal error occured while verifying " + file);
        default: return response(RPM_STATUS_ERROR, "Unknown error");
    }
}

// Closing a file opened for reading does not fail in practice; if it does, the object is released
// all the same and the verdict stands.
struct FileRelease {
    void operator()(FileHelper* file) const {
        try {
            delete file;
        } catch (...) {
        }
    }
};

// Releases the signer without touching the file object, which its caller owns.
struct SignerRelease {
    void operator()(Signer* signer) const {
        signer->SetInputFile(nullptr);
        delete signer;
    }
};

RpmVerifyResult Verify(const std::string& file, const std::string& key, std::string& detail) {
    std::unique_ptr<FileHelper, FileRelease> package;
    try {
        CertificateManager::Instance()->SetPgpPublicKeyFilePath(key);
        package.reset(new FileHelper(file));
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, e.what());
    }

    std::unique_ptr<Signer, SignerRelease> signer;
    {
        RpmSignerCreator creator;
        if (!creator.IsMe(package.get())) {
            return response(RPM_STATUS_ERROR, file + " is not an RPM file.");
        }
        signer.reset(creator.GetSigner(0));
    }
    signer->SetInputFile(package.get());
    int result = ResultInternalError;
    try {
        result = signer->Process(true, false, false, detail);
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, "Could not verify " + file + " with key " + key + " - " + e.what());
    }
    signer.reset();
    package.reset();
    return ResultOf(result, file);
}

}  // namespace

RpmVerifyResult response(RPM_STATUS status, const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
        return RpmVerifyResult{RPM_STATUS_ERROR, kInternalError};
    }
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return RpmVerifyResult{status, copy};
}

RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail) {
    detail.clear();
    // Nothing may leave towards the host: every failure becomes status 5 with its reason.
    try {
        if (file == nullptr || key == nullptr) {
            return response(RPM_STATUS_ERROR, file == nullptr ? "rpm_verify: no package file was given"
                                                              : "rpm_verify: no key file was given");
        }
        try {
            return Verify(file, key, detail);
        } catch (const std::exception& e) {
            return response(RPM_STATUS_ERROR, std::string("Could not recognise ") + file + " - " + e.what());
        } catch (...) {
            return response(RPM_STATUS_ERROR, std::string("Internal error occured while verifying ") + file);
        }
    } catch (...) {
        return RpmVerifyResult{RPM_STATUS_ERROR, kInternalError};
    }
}

RpmVerifyResult rpm_verify(const char* file, const char* key) {
    std::string detail;
    return rpm_verify_detailed(file, key, detail);
}
