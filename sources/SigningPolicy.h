#pragma once
// How packages are judged.
#include <string>

// How packages are judged. Classic: the verdicts rpm_verify has always given (the exports keep it).
// Current: a package is signed exactly when rpm 4.18's rpmkeys --checksig would say "digests
// signatures OK" with that key file (CurrentVerification.h).
enum class SigningPolicy { Classic, Current };
// The policy a name gives ("classic" or "current"); false for any other name.
bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy);
