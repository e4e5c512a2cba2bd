#pragma once
// The signer of RPM packages. It verifies only: Process reads the lead and the signature header,
// hashes the main header and the payload in one pass and asks the signature header for its verdict.
//
// Layout of a package (all integers big-endian):
//   lead               96 bytes at offset 0; the signature type at offset 78 must be 5
//   signature header   16-byte structure header, 16 bytes per index entry, then the data store
//   padding            up to the next multiple of 8
//   main header        a header structure like the signature header
//   payload            to the end of the file
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RpmSignature.h"
#include "Signer.h"

class RpmSigner : public Signer {
public:
    // Where the signature header starts, and its index.
    static const uint32_t LeadSize = 96;
    static const uint32_t SignatureIndexOffset = LeadSize + sizeof(HeaderStructureHeader);

    explicit RpmSigner(unsigned int creationArgument);
    ~RpmSigner() override;

    // Returns the ProcessingResult of the package in the input file; any error becomes 5 with its
    // text in errorText. Only copyToOutput is consulted.
    int Process(bool first, bool copyToOutput, bool third, std::string& errorText) override;
    ContentInfo* BuildContentInfo(bool detached) override;
    using Signer::BuildContentInfo;

    // Checks the lead and reads the signature header into a buffer this signer keeps; returns a new
    // RpmSignature over it (caller owns) and the offset of the main header, rounded up to 8.
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
    // Reads a header structure header at pos and converts its counts to host order; false when its
    // magic is not 8E AD E8 01.
    bool ReadStructureHeader(unsigned long long pos, HeaderStructureHeader& header) const;
    // The steps of ParseSignature: the lead (returns the file size), then the index and store of the
    // signature header (returns where they end in the file).
    uint64_t CheckLead() const;
    uint64_t ReadSignatureHeader(const HeaderStructureHeader& header, uint64_t fileSize);
    // The steps of PassDigestsToSignature: the main header alone (digests 0-2), then header and
    // payload streamed together (digests 3-5).
    void DigestMainHeader(RpmSignature& signature, uint64_t headerOffset, uint64_t headerSize,
                          soapWrap::HashAlgorithm hash) const;
    void DigestPackage(RpmSignature& signature, uint64_t headerOffset, uint64_t headerEnd, soapWrap::HashAlgorithm hash,
                       bool copyToOutput) const;

    // Index and store of the signature header, shared with the RpmSignature made over it: a
    // second parse replaces the signer's share without pulling the first object's buffer away.
    std::shared_ptr<char[]> signatureHeader_;
    uint32_t signatureEntryCount_;
    int32_t settingC_;
    std::vector<RpmCheck>* checks_;
};
