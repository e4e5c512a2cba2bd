#include "RpmPackage.h"

#include "Digest.h"
#include "DigestPipeline.h"
#include "Exceptions.h"
#include "OpenPgpAlgorithms.h"
#include "ProcessingResult.h"

const ReaderStyle& ClassicReader() {
    return PolicyOf(SigningPolicy::Classic).reader;
}

HeaderStructure ReadMainHeader(const PackageFile& file, uint64_t start) {
    return ReadStructureHeader(file, start, "Header section", ClassicReader());
}

PackageDigests DigestPackage(const PackageFile& file, HeaderStructure main, soapWrap::HashAlgorithm hash,
                             const std::function<void(const char*, size_t)>& copy, bool signingDigests) {
    ReadStructureIndex(file, main, kMainHeaderBounds, "Header section", ClassicReader());
    PackageDigests digests;
    digests.headerSha1 = std::make_unique<Digest>(soapWrap::Sha1);
    digests.headerSigned = std::make_unique<Digest>(hash);
    digests.packageMd5 = std::make_unique<Digest>(soapWrap::Md5);
    digests.packageSigned = std::make_unique<Digest>(hash);
    if (signingDigests && hash != soapWrap::Sha1) {
        digests.headerSha1Extra = std::make_unique<Digest>(soapWrap::Sha1);
        digests.packageSha1Extra = std::make_unique<Digest>(soapWrap::Sha1);
    }
    const auto stream = [](DigestBase* digest, soapWrap::HashAlgorithm type) {
        return DigestStream{
            [digest](const char* data, size_t size) { digest->Update(data, static_cast<unsigned int>(size)); },
            DigestPipeline::Cost(OpenPgpHashIdOf(type))};
    };
    // Over the main header: SHA-1, the signed hash and (signing path) SHA-1 again; over header and
    // payload: MD5, the signed hash and (signing path) SHA-1.
    DigestStreams streams;
    for (DigestBase* digest : {digests.headerSha1.get(), digests.headerSigned.get(), digests.headerSha1Extra.get()}) {
        if (digest != nullptr) streams.header.push_back(stream(digest, digest->GetType()));
    }
    for (DigestBase* digest : {digests.packageMd5.get(), digests.packageSigned.get(), digests.packageSha1Extra.get()}) {
        if (digest != nullptr) streams.package.push_back(stream(digest, digest->GetType()));
    }
    digests.payloadLength = DigestPass(file, main, streams, copy);
    return digests;
}

int VerifyPackageClassic(const PackageFile& input, KeyFileBytes& keyFile, std::string& message,
                         std::vector<RpmCheck>* checks) {
    KeyFromFile key(keyFile);
    return VerifyPackage(input, key, message, checks);
}

int VerifyPackage(const PackageFile& input, KeySource& keys, std::string& message, std::vector<RpmCheck>* checks) {
    try {
        input.CheckLead(ClassicReader());
        SignatureHeaderData data = ReadSignatureHeaderData(input, ClassicReader());
        const uint64_t mainStart = data.MainHeaderStart();
        const SignatureHeader signatureHeader(std::move(data));
        const HeaderStructure main = ReadMainHeader(input, mainStart);
        const PackageDigests digests = DigestPackage(input, main, signatureHeader.DigestHash(), nullptr, false);
        return signatureHeader.Evaluate(keys, digests, message, checks);
    } catch (const std::exception& e) {
        message = e.what();
        return ResultInternalError;
    }
}
