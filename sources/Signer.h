#pragma once
// The signer framework: a SignerCreator recognises one file format from its first bytes and makes
// the Signer that processes files of that format. Only verification is implemented; the operations
// that would build signing structures report "Not implemented".
#include <cstdint>
#include <memory>
#include <string>

#include "Base.h"
#include "DigestBase.h"
#include "FileHelper.h"
#include "soapWrap.h"

// The structure a signer would embed into a signed file. No signer of this module builds one.
struct ContentInfo;

class Signer : public Base {
public:
    Signer(int32_t settingA, uint32_t creationArgument, bool settingB);
    // Deletes the output file from disk and then the object, then the input file object.
    ~Signer() override;
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    // Returns a ProcessingResult; errorText receives the reason of an internal error.
    virtual int Process(bool first, bool copyToOutput, bool third, std::string& errorText) = 0;
    virtual ContentInfo* BuildContentInfo(bool detached) = 0;
    virtual ContentInfo* BuildContentInfo(soapWrap::HashAlgorithm algorithm, bool detached);
    virtual bool IsCatSpecificContentInfo();
    virtual DigestBase* GetDigest();
    virtual int GetFileType();

    // The signer owns the files it is given. Setting a file lets go of the one set before without
    // deleting it: passing null gives up the reference without deleting.
    void SetInputFile(FileHelper* file) {
        static_cast<void>(inputFile_.release());
        inputFile_.reset(file);
    }
    void SetOutputFile(FileHelper* file) {
        static_cast<void>(outputFile_.release());
        outputFile_.reset(file);
    }
    FileHelper* GetInputFile() const { return inputFile_.get(); }
    FileHelper* GetOutputFile() const { return outputFile_.get(); }

    int32_t GetSettingA() const { return settingA_; }
    uint32_t GetCreationArgument() const { return creationArgument_; }
    bool GetSettingB() const { return settingB_; }

protected:
    std::unique_ptr<FileHelper, FileHelperRelease> inputFile_;
    std::unique_ptr<FileHelper, FileHelperRelease> outputFile_;

private:
    int32_t settingA_;
    uint32_t creationArgument_;
    bool settingB_;
};

class SignerCreator {
public:
    SignerCreator() = default;
    virtual ~SignerCreator();
    SignerCreator(const SignerCreator&) = delete;
    SignerCreator& operator=(const SignerCreator&) = delete;

    virtual bool IsMe(FileHelper* file) = 0;
    // A semicolon-separated list of file-name extensions without dots; null when there is none.
    virtual const char* GetFileExtensions();
    // A new signer owned by the caller.
    virtual Signer* GetSigner(unsigned int creationArgument) = 0;
};
