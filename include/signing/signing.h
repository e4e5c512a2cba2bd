/* The names libsigning.so exports to the host installer that loads it, for C (C89 and later) and
 * C++ (C++11 and later) hosts.
 *
 * The module is a plug-in: a host dlopen()s it and looks these names up with dlsym() (their types
 * are the ones declared here); it does not link against it. The functions the module imports from
 * its host are declared in <signing/host.h>. */
#ifndef SIGNING_SIGNING_H
#define SIGNING_SIGNING_H

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#else
#include <stddef.h>
#include <stdint.h>
#endif

#if defined(__GNUC__)
#define SIGNING_EXPORT __attribute__((visibility("default")))
#else
#define SIGNING_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The outcome of rpm_verify. Note that 0 and 1 are the other way round from ProcessingResult.
 * A 32-bit signed value in both languages: C++ fixes the enumeration's underlying type, C holds it
 * in an int32_t, so that RpmVerifyResult has one layout on both sides of the call. */
#ifdef __cplusplus
enum RPM_STATUS : int32_t {
#else
typedef int32_t RPM_STATUS;
enum {
#endif
    RPM_STATUS_SIGNED = 0,
    RPM_STATUS_NOT_SIGNED = 1,
    RPM_STATUS_INVALID_SIGNATURE = 2,
    RPM_STATUS_INVALID_HASH = 3,
    RPM_STATUS_INVALID_STRUCTURE = 4,
    RPM_STATUS_ERROR = 5
};

/* message is malloc-ed and released by the caller with free(), except for the static text
 * "Internal error." that is returned when that allocation fails. */
/* NOLINTNEXTLINE(modernize-use-using): C has no alias declarations. */
typedef struct RpmVerifyResult {
    RPM_STATUS status;
    char* message;
} RpmVerifyResult;

/* The host's installation session; opaque to the module. */
/* NOLINTNEXTLINE(modernize-use-using): C has no alias declarations. */
typedef struct session_t session_t;

/* The prerequisite check the host installer runs: obtains and screens the publisher's key, verifies
 * the RPM package of every component of the session and reports the outcome through the session.
 * Returns 0 when every available RPM package is signed and valid, 1 otherwise. Never throws. Checks
 * of different sessions may overlap when their TEMP_FOLDERs differ (the key is downloaded there). */
SIGNING_EXPORT int signing_validate_package_list(session_t* session);

/* Verifies the signatures and digests of the package file against the OpenPGP public key in key.
 * Thread-safe: calls may overlap, on any threads, with the same or different packages and keys;
 * each call gives the answer it would give alone. A call reads its key file at most once, so a key
 * file replaced while a call runs cannot mix two keys in one verdict. The call keeps nothing once it
 * returns. */
SIGNING_EXPORT RpmVerifyResult rpm_verify(const char* file, const char* key);

/* The characters a file path may consist of, as a regular expression; published for the host. */
SIGNING_EXPORT extern const char* FILE_PATTERN;

/* ---------------------------------------------------------------------------------------------
 * The verification interface for hosts in C and C++ (interface version 1).
 *
 * rpm_verify judges a package the way the installer always has (the classic policy, one key file).
 * signing_verify lets the host choose the policy per call, takes a set of key files and says why a
 * package got its status, as a stable reason code.
 *
 * Compatibility: the names above and below keep their types and meanings for as long as the
 * module's major version stays the same. A new feature comes as a new function, a new enumerator
 * or a new reason code, and raises signing_api_version(); no structure changes its layout and no
 * code changes its meaning. A host checks signing_api_version() >= the version it was built
 * against (SIGNING_API_VERSION) and treats a reason code it does not know as a failure that
 * signing_reason_name() names. */

#define SIGNING_API_VERSION 1

/* How packages are judged. */
/* NOLINTNEXTLINE(modernize-use-using): C has no alias declarations. */
typedef int32_t SIGNING_POLICY;
enum {
    /* The installer's verdicts as they have always been (rpm_verify): RSA signatures over the header
     * and over header and payload, the header's SHA-1 and the MD5 digest, packages under 2 GiB. */
    SIGNING_POLICY_CLASSIC = 0,
    /* Today's rpm (rpm 6.1), read safely: every digest and signature it reads must pass, at least
     * one signature must verify, signatures it does not trust count for nothing; v4 and v6 keys,
     * subkeys, header-only signatures with the signed payload digests, packages of any size. */
    SIGNING_POLICY_CURRENT = 1
};

/* Why a package got its status. Each code has a name (signing_reason_name), the "reason" of
 * rpm-verify's JSON report. */
/* NOLINTNEXTLINE(modernize-use-using): C has no alias declarations. */
typedef int32_t SIGNING_REASON;
enum {
    SIGNING_REASON_SIGNED = 0,            /* "signed": status 0 */
    SIGNING_REASON_NOT_SIGNED = 1,        /* "not-signed": no signature to check */
    SIGNING_REASON_NOT_TRUSTED = 2,       /* "not-trusted": only signatures today's rpm does not trust */
    SIGNING_REASON_HEADER_ONLY = 3,       /* "header-only": signed over the header only (classic) */
    SIGNING_REASON_EDDSA_SIGNATURE = 4,   /* "eddsa-signature": an EdDSA signature, which classic does not read */
    SIGNING_REASON_WRONG_KEY = 5,         /* "wrong-key": signed by a key the key files do not hold */
    SIGNING_REASON_BAD_SIGNATURE = 6,     /* "bad-signature": a signature by the key given that does not verify */
    SIGNING_REASON_DIGEST_MISMATCH = 7,   /* "digest-mismatch": the content changed after it was signed */
    SIGNING_REASON_INVALID_STRUCTURE = 8, /* "invalid-structure": the package's headers are malformed */
    SIGNING_REASON_NOT_RPM = 9,           /* "not-rpm": the file is no RPM package */
    SIGNING_REASON_UNREADABLE_FILE = 10,  /* "unreadable-file": the package cannot be opened or read */
    SIGNING_REASON_TOO_LARGE = 11,        /* "too-large": 2 GiB or more, beyond the classic policy */
    SIGNING_REASON_DAMAGED = 12,          /* "damaged": the verification could not finish (see the message) */
    SIGNING_REASON_UNREADABLE_KEY = 13,   /* "unreadable-key": a key file cannot be opened or read */
    SIGNING_REASON_UNSUPPORTED_KEY = 14,  /* "unsupported-key": a key file holds no key the policy can use */
    SIGNING_REASON_DIGEST_REFUSED = 15,   /* "digest-refused": the crypto library refused a digest the
                                             package needs (a FIPS configuration, for one) */
    SIGNING_REASON_INVALID_ARGUMENT = 16  /* "invalid-argument": no file, no key file or an unknown policy */
};

/* The outcome of signing_verify. message is malloc-ed; release the result with
 * signing_result_free (or the message with free(), unless it is the static "Internal error."). */
/* NOLINTNEXTLINE(modernize-use-using): C has no alias declarations. */
typedef struct SigningVerifyResult {
    RPM_STATUS status;
    SIGNING_REASON reason;
    char* message;
} SigningVerifyResult;

/* Verifies the package file against the key files keys[0] .. keys[key_count - 1] (at most 64; each a
 * path, none null; the array must hold key_count entries) under policy.
 * Classic judges the package with each key file as rpm_verify would and takes the first that signs
 * it, else the outcome with the first key file. Current reads every key of every file as one
 * keyring; a key file it cannot use fails the call. Thread-safe like rpm_verify; never throws. */
SIGNING_EXPORT SigningVerifyResult signing_verify(const char* file, const char* const* keys, size_t key_count,
                                                  SIGNING_POLICY policy);

/* Releases the message of a result and empties it; a null result or message is left alone. */
SIGNING_EXPORT void signing_result_free(SigningVerifyResult* result);

/* The name of a reason code ("wrong-key"), or "unknown" for a code this module does not know. */
SIGNING_EXPORT const char* signing_reason_name(SIGNING_REASON reason);

/* The module's version ("0.1.0") and the version of this interface that it implements. */
SIGNING_EXPORT const char* signing_version(void);
SIGNING_EXPORT int32_t signing_api_version(void);

#ifdef __cplusplus
} /* extern "C" */

static_assert(sizeof(RPM_STATUS) == sizeof(int32_t), "RPM_STATUS is a 32-bit value");
static_assert(sizeof(RpmVerifyResult) == 2 * sizeof(void*), "RpmVerifyResult is a status and a pointer");
static_assert(sizeof(SigningVerifyResult) == 8 + sizeof(void*), "SigningVerifyResult is two codes and a pointer");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(RPM_STATUS) == sizeof(int32_t), "RPM_STATUS is a 32-bit value");
_Static_assert(sizeof(RpmVerifyResult) == 2 * sizeof(void*), "RpmVerifyResult is a status and a pointer");
_Static_assert(sizeof(SigningVerifyResult) == 8 + sizeof(void*), "SigningVerifyResult is two codes and a pointer");
#endif

#endif /* SIGNING_SIGNING_H */
