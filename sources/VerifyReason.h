#pragma once
// Why a package got its status: the stable reason codes that the C interface returns and that
// rpm-verify's report names, worked out from how far the verification got and what it found.
#include <string>

#include "RpmReport.h"
#include "SigningPolicy.h"
#include "signing/signing.h"

class KeyFileBytes;

// The name of a reason code ("wrong-key"); "unknown" for a code outside the table.
const char* ReasonName(SIGNING_REASON reason);

// The reason for the verdict that report holds, of file verified with key under policy. The key is
// read only where the report cannot tell (whose key it is, whether it can be used); a classic verdict
// of "not signed" is checked once more under the current policy for an EdDSA signature, which the
// classic policy does not read (current: the package's checks under that policy, when the caller made
// them already).
SIGNING_REASON ReasonOf(const std::string& file, const RpmReport& report, KeyFileBytes& key, SigningPolicy policy,
                        const RpmReport* current = nullptr);
