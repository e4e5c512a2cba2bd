#pragma once
// The module's exported entry points (declared in the public header the hosts include) and the
// internal steps behind them, for the module's own code, tools and tests.
#include <string>

#include "KeyAcquisition.h"
#include "LogText.h"
#include "RunCommand.h"
#include "SigningPolicy.h"
#include "signing/signing.h"

// rpm_verify, also handing back the signer's own reason (empty when the signer was not reached or
// gave none), under policy. For the module's tools; not exported.
RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail,
                                    SigningPolicy policy = SigningPolicy::Classic);

// The steps of the prerequisite check (not exported): the key (KeyAcquisition.h), the download
// (RunCommand.h), the log lines (LogText.h), and the prerequisite lists.

// Adds a warning entry about the key to the session's prerequisite lists: code 4 selects the
// "download" message keys, every other code the "validate" keys.
void _signing_set_optional_prerequisite_status(session_t* session, int code);

// Frees a message of rpm_verify or signing_verify (the static text of a failed allocation is left).
void rpm_free_message(char* message);

// status with a malloc-ed copy of text.
RpmVerifyResult response(RPM_STATUS status, const std::string& text);
// The status and message of a signer's result for file (0 not signed, 1 signed, 2 invalid signature,
// 3 invalid hash, 4 invalid structure, 5 internal error; any other result is "Unknown error").
RpmVerifyResult rpm_result_response(int processingResult, const std::string& file);
