/* The names libsigning.so exports to the host installer that loads it, for C and C++ hosts.
 *
 * The module is a plug-in: a host dlopen()s it and looks these names up with dlsym() (their types
 * are the ones declared here); it does not link against it. The functions the module imports from
 * its host are declared in <signing/host.h>. */
#ifndef SIGNING_SIGNING_H
#define SIGNING_SIGNING_H

#ifdef __cplusplus
#include <cstdint>
#else
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

#ifdef __cplusplus
} /* extern "C" */

static_assert(sizeof(RPM_STATUS) == sizeof(int32_t), "RPM_STATUS is a 32-bit value");
static_assert(sizeof(RpmVerifyResult) == 2 * sizeof(void*), "RpmVerifyResult is a status and a pointer");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(RPM_STATUS) == sizeof(int32_t), "RPM_STATUS is a 32-bit value");
_Static_assert(sizeof(RpmVerifyResult) == 2 * sizeof(void*), "RpmVerifyResult is a status and a pointer");
#endif

#endif /* SIGNING_SIGNING_H */
