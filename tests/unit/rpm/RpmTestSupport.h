#pragma once
// Packages written by the test writer, run through the signer and through rpm_verify.

#include <cstdlib>
#include <memory>
#include <string>

#include "RpmSigner.h"
#include "RpmWriter.h"
#include "TestSupport.h"
#include "rpmutil.h"

// The signatures of the test packages name this issuer; the key block's self-signature does too.
inline const Bytes& TestIssuer() {
    static const Bytes issuer{0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x03, 0x04};
    return issuer;
}

inline rpm::PackageOptions SignedOptions() {
    rpm::PackageOptions o;
    o.key = TestKey(2048);
    o.header.issuer = TestIssuer();
    o.packages = {o.header};
    return o;
}

struct Verdict {
    int status = -1;
    std::string message;
    std::string detail;
};

// rpm_verify on the bytes written to a file, with the message freed.
inline Verdict VerifyBytes(const TempFolder& temp, const std::string& package, const std::string& keyPath) {
    const std::string path = temp.Write("package.rpm", package);
    Verdict verdict;
    RpmVerifyResult result = rpm_verify_detailed(path.c_str(), keyPath.c_str(), verdict.detail);
    verdict.status = result.status;
    verdict.message = result.message;
    std::free(result.message);
    return verdict;
}

// A signer over a file, ready for ParseSignature or Process.
inline std::unique_ptr<RpmSigner> SignerFor(const std::string& path) {
    std::unique_ptr<RpmSigner> signer(new RpmSigner(0));
    signer->SetInputFile(new FileHelper(path));
    return signer;
}
