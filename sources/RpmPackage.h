#pragma once
// The classic verification of an RPM package: the lead, the signature header, and one pass over the
// main header and the payload that computes the package digests (PackageFile.h), put together with
// a key. It keeps no state between calls, so calls on other packages may run on other threads.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "PackageFile.h"
#include "PgpKey.h"
#include "RpmCheck.h"
#include "SignatureHeader.h"
#include "SigningPolicy.h"
#include "soapWrap.h"

// How the classic verification reads a package (SigningPolicy.h).
const ReaderStyle& ClassicReader();

// The structure header of the main header that starts at start (its magic and counts).
HeaderStructure ReadMainHeader(const PackageFile& file, uint64_t start);
// The main header (its counts checked against its bounds and the file) and the payload, read once
// in blocks: the header through the header digests, header and payload through the package digests
// in hash, each block handed to copy when given. signingDigests adds the SHA-1 digests only the
// signing path reads.
PackageDigests DigestPackage(const PackageFile& file, HeaderStructure main, soapWrap::HashAlgorithm hash,
                             const std::function<void(const char*, size_t)>& copy, bool signingDigests);

// The ProcessingResult of the package in input checked with the key of keys; any error becomes 5
// (ResultInternalError) with its text in message. With checks, every check is made and recorded.
int VerifyPackage(const PackageFile& input, KeySource& keys, std::string& message, std::vector<RpmCheck>* checks);
// The same with the key of a key file under the classic key rule (PgpKey.h): the classic policy's
// verification.
int VerifyPackageClassic(const PackageFile& input, KeyFileBytes& keyFile, std::string& message,
                         std::vector<RpmCheck>* checks);
