#pragma once
// The "current" verification policy: today's rpm (rpm 6.1) read safely. A package is signed when
// every digest and signature that rpm 6.1's `rpmkeys --checksig` reads passes (a signature that is
// not trusted counts for nothing, as rpm ignores it), at least one signature verifies, and every
// digest the package carries matches. What it reads:
//   - the lead by its magic alone (rpm 6 packages say major version 4), both headers held to rpm's
//     header checks (HeaderStore.h), the first entry of a tag where it is repeated;
//   - signatures in 278 (Base64 packets, each of which must verify); when 278 holds one that can be
//     read, 267 and 268 over the header and 1002 and 1005 over header and payload are not read, nor
//     the tags from 1000 on of a package that holds 999 and 279 (rpm 6's own); each signature is
//     the packet alone in its entry, hashed in its own algorithm (a salted one in its own hash);
//   - every digest the package carries: 269 (SHA-1), 273 (SHA-256) and 279 (SHA3-256) of the main
//     header, 1004 (MD5) of header and payload, and the payload digests of the main header (5092
//     SHA-256, 5121 SHA-512, 5123 SHA3-256, and their alternatives 5097, 5122, 5124, whose failure
//     is excused when the other of the pair passes, as rpm excuses it);
//   - a header-only signature covers the payload through the main header's payload digest; without
//     one, a signature over header and payload is still needed;
//   - every key of the key file (OpenPgpKeyring);
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
