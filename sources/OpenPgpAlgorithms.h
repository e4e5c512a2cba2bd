#pragma once
// The OpenPGP algorithm ids the module meets (RFC 4880, 9.1 and 9.4; RFC 9580, 9.1 and 9.5), one row
// each: how reports name them, how they are computed, and which verification knows them. The
// classic verification knows the hashes and key algorithms of its time; the current one also knows
// SHA-3 and EdDSA. An id a verification does not know is named by its number.
#include <openssl/types.h>

#include <string>

#include "soapWrap.h"

struct OpenPgpHashRow {
    const char* name;  // as rpmkeys names it: "SHA256"
    const EVP_MD* (*md)();
    double cost;    // rough time per byte of a hash against MD5's (DigestPipeline::Cost), 64-bit
    double cost32;  // the same in a 32-bit build
    unsigned int id;
    int algorithm;  // the module's soapWrap::HashAlgorithm, -1 for none
    bool signs;     // taken as a signature's hash by the current verification
    bool classic;   // known to the classic verification
};

struct OpenPgpKeyAlgorithmRow {
    const char* name;  // "RSA"
    unsigned int id;
    bool classic;  // named by the classic verification
    bool current;  // named by the current verification (the others only by key diagnosis)
};

// The row of a hash id or a key algorithm id; null for an id the module does not know.
const OpenPgpHashRow* FindOpenPgpHash(unsigned int id);
const OpenPgpKeyAlgorithmRow* FindOpenPgpKeyAlgorithm(unsigned int id);
// The OpenPGP id of one of the module's hash algorithms; 0 for none.
unsigned int OpenPgpHashIdOf(soapWrap::HashAlgorithm algorithm);
// The name of a hash id or key algorithm id ("SHA256", "RSA"), or "hash N" / "algorithm N" for an
// id the verification (classic or current) does not know.
std::string OpenPgpHashName(unsigned int id, bool classic = false);
std::string OpenPgpAlgorithmName(unsigned int id, bool classic = false);
