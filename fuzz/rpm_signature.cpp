// RpmSignature over arbitrary signature-header buffers: the first 16 bytes are the structure header,
// the rest the index and the store (the index count is taken from the header, the data size is what
// remains). The object is then given digests and the input's size as its payload length (a package
// without payload is refused before its signatures are looked at), and asked for its verdict.
//
// The SHA-1 text and the MD5 value are compared with digests of no bytes at all: an input cannot
// hold the digest of itself, and with digests over the input the verdict would never get past them
// to the OpenPGP signatures. The seeds and the dictionary carry the two values. The digests that
// the signatures check are taken over the input.
#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "CertificateManager.h"
#include "Digest.h"
#include "FuzzSupport.h"
#include "RpmSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 16) return 0;
    HeaderStructureHeader header;
    std::memcpy(&header, data, sizeof header);
    header.indexCount = ntohl(header.indexCount);
    const uint64_t indexSize = 16ull * header.indexCount;
    if (indexSize > size - 16) return 0;
    header.dataSize = static_cast<uint32_t>(size - 16 - indexSize);
    // A buffer of exactly the announced size, so that any read beyond it is caught.
    std::vector<unsigned char> buffer(data + 16, data + size);
    static const std::string key = fuzz::Fixture("keys/publisher-2048.asc");
    CertificateManager::Instance()->SetPgpPublicKeyFilePath(key);
    try {
        RpmSignature signature(buffer.empty() ? nullptr : buffer.data(), header);
        const soapWrap::HashAlgorithm types[] = {soapWrap::Sha1, soapWrap::Sha256, soapWrap::Sha1,
                                                 soapWrap::Md5,  soapWrap::Sha256, soapWrap::Sha1};
        for (int index = 0; index < 6; ++index) {
            Digest* digest = new Digest(types[index]);
            if (index != 0 && index != 3) digest->Update(data, static_cast<unsigned int>(size));
            signature.SetDigest(index, digest);
        }
        signature.SetPayloadLength(size);
        std::string message;
        signature.Verify(message);
    } catch (const std::exception&) {
    }
    fuzz::ReleaseCertificates();
    return 0;
}
