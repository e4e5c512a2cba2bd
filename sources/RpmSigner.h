#pragma once
// The signer of RPM packages, as the framework knows it. It verifies only: Process reads the lead
// and the signature header, hashes the main header and the payload in one pass (RpmPackage.h) and
// asks the signature header for its verdict, with the key the certificate manager loads.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RpmPackage.h"
#include "RpmSignature.h"
#include "Signer.h"

class RpmSigner : public Signer {
public:
    // Where the signature header starts, and its index.
    static const uint32_t LeadSize = PackageFile::LeadSize;
    static const uint32_t SignatureIndexOffset = PackageFile::LeadSize + sizeof(HeaderStructureHeader);

    explicit RpmSigner(unsigned int creationArgument);
    ~RpmSigner() override;

    // Returns the ProcessingResult of the package in the input file; any error becomes 5 with its
    // text in errorText. Only copyToOutput is consulted.
    int Process(bool first, bool copyToOutput, bool third, std::string& errorText) override;
    ContentInfo* BuildContentInfo(bool detached) override;
    using Signer::BuildContentInfo;

    // Checks the lead and reads the signature header; returns a new RpmSignature over it (caller owns) and the offset
    // of the main header, rounded up to 8.
    RpmSignature* ParseSignature(unsigned int& headerOffset, bool copyToOutput);
    // Computes the header digests (0-2) and the header-and-payload digests (3-5) and hands them to
    // signature; returns signature.
    RpmSignature* PassDigestsToSignature(RpmSignature* signature, unsigned int headerOffset, bool copyToOutput) const;

    // Where Process records every check it makes (null: nowhere, the default).
    void SetCheckRecord(std::vector<RpmCheck>* checks) { checks_ = checks; }

    uint32_t GetSignatureEntryCount() const { return signatureEntryCount_; }
    int32_t GetSettingC() const { return settingC_; }

private:
    FileHelper& Input() const;
    FileHelper& Output() const;

    uint32_t signatureEntryCount_;
    int32_t settingC_;
    std::vector<RpmCheck>* checks_;
};
