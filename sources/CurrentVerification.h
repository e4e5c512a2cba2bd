#pragma once
// The "current" verification policy: a package is signed exactly when rpm 4.18's
// `rpmkeys --checksig` would say "digests signatures OK" with the same key file, and refused
// whenever it would not. What it reads beyond the classic verifier:
//   - header signatures in tags 268 (RSA) and 267 (EdDSA, DSA), package signatures in 1002 and 1005,
//     and rpm 6's tag 278 (Base64 signatures, any of which counts); each signature hashed in its
//     own algorithm, so header and package signatures may use different ones;
//   - every digest the package carries: 269 (SHA-1), 273 (SHA-256) and 279 (SHA3-256) of the main
//     header, 1004 (MD5) of header and payload, and the payload digests that the main header
//     holds (5092 in the algorithm of 5093, 5121 SHA-512, 5123 SHA3-256);
//   - a header-only signature covers the payload through the main header's payload digest; without
//     one, a signature over header and payload is still needed;
//   - every key of the key file (OpenPgpKeyring): primary keys and bound subkeys, RSA and Ed25519;
//   - sizes and positions in 64 bits, read in blocks: packages of any size, memory bounded.
#include <string>
#include <vector>

#include "PackageFile.h"
#include "PgpKey.h"
#include "RpmCheck.h"

// The ProcessingResult of the package in file checked with the keys of keyFile, with the reason in
// message; with checks, every check made is recorded. The key file is read at the first signature
// check. Any error becomes 5 (ResultInternalError) with its text in message.
int VerifyPackageCurrent(const PackageFile& file, KeyFileBytes& keyFile, std::string& message,
                         std::vector<RpmCheck>* checks);
