/* A minimal C host: loads libsigning.so and verifies each package given.
 *
 *   verify MODULE KEY PACKAGE...
 *   verify --policy=classic|current MODULE KEY[:KEY...] PACKAGE...
 *
 * The first form calls rpm_verify, the installer's check, and prints "STATUS MESSAGE" per package.
 * The second calls signing_verify with the policy and the key files given (separated by ':', which
 * no path the module accepts holds) and prints "STATUS REASON MESSAGE", the reason by its name. It
 * first checks that the module implements the interface version this program was built against.
 *
 * The module also imports the C++ plug-in interface of <signing/host.h> (print_log, the session
 * functions, the product classes) for its prerequisite check, which a C program cannot define: so it
 * loads the module with RTLD_LAZY, which binds those imports when they are first called, and never
 * calls signing_validate_package_list. (With RTLD_NOW, or LD_BIND_NOW set, the load fails with
 * "undefined symbol: _Z9print_logPKcz".)
 *
 * Exit status: 0 when every package is signed and valid, 1 when one is not, 2 on a usage or load
 * error. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <signing/signing.h>

typedef RpmVerifyResult (*VerifyFunction)(const char* file, const char* key);
typedef SigningVerifyResult (*PolicyVerifyFunction)(const char* file, const char* const* keys, size_t key_count,
                                                    SIGNING_POLICY policy);
typedef void (*ResultFreeFunction)(SigningVerifyResult* result);
typedef const char* (*ReasonNameFunction)(SIGNING_REASON reason);
typedef int32_t (*ApiVersionFunction)(void);

/* A name of the module as a function pointer: POSIX's way, as ISO C converts no object pointer to a
 * function pointer. */
static void* Lookup(void* module, const char* name) {
    void* function = dlsym(module, name);
    if (function == NULL) fprintf(stderr, "verify: %s\n", dlerror());
    return function;
}

/* rpm_verify on each package with the one key file. */
static int VerifyClassic(void* module, const char* key, char** packages, int count) {
    VerifyFunction verify = NULL;
    *(void**)&verify = Lookup(module, "rpm_verify");
    if (verify == NULL) return 2;
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        RpmVerifyResult result = verify(packages[i], key);
        printf("%d %s\n", (int)result.status, result.message);
        failed = failed || result.status != RPM_STATUS_SIGNED;
        /* The one message that is not the caller's to free: the text of a failed allocation. */
        if (strcmp(result.message, "Internal error.") != 0) free(result.message);
    }
    return failed;
}

/* signing_verify on each package with the key files of keys (split at ':') under policy. */
static int VerifyWithPolicy(void* module, SIGNING_POLICY policy, char* keys, char** packages, int count) {
    ApiVersionFunction version = NULL;
    PolicyVerifyFunction verify = NULL;
    ResultFreeFunction release = NULL;
    ReasonNameFunction name = NULL;
    *(void**)&version = Lookup(module, "signing_api_version");
    *(void**)&verify = Lookup(module, "signing_verify");
    *(void**)&release = Lookup(module, "signing_result_free");
    *(void**)&name = Lookup(module, "signing_reason_name");
    if (version == NULL || verify == NULL || release == NULL || name == NULL) return 2;
    if (version() < SIGNING_API_VERSION) {
        fprintf(stderr, "verify: the module implements interface version %d, this host needs %d\n", (int)version(),
                SIGNING_API_VERSION);
        return 2;
    }
    const char* files[16];
    size_t files_count = 0;
    for (char* key = strtok(keys, ":"); key != NULL; key = strtok(NULL, ":")) {
        if (files_count == sizeof files / sizeof files[0]) {
            fprintf(stderr, "verify: at most %d key files\n", (int)(sizeof files / sizeof files[0]));
            return 2;
        }
        files[files_count++] = key;
    }
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        SigningVerifyResult result = verify(packages[i], files, files_count, policy);
        printf("%d %s %s\n", (int)result.status, name(result.reason), result.message);
        failed = failed || result.status != RPM_STATUS_SIGNED;
        release(&result);
    }
    return failed;
}

int main(int argc, char** argv) {
    int first = 1;
    SIGNING_POLICY policy = -1; /* none: rpm_verify */
    if (argc > 1 && strncmp(argv[1], "--policy=", 9) == 0) {
        if (strcmp(argv[1] + 9, "classic") == 0) {
            policy = SIGNING_POLICY_CLASSIC;
        } else if (strcmp(argv[1] + 9, "current") == 0) {
            policy = SIGNING_POLICY_CURRENT;
        } else {
            fprintf(stderr, "verify: --policy wants classic or current\n");
            return 2;
        }
        first = 2;
    }
    if (argc - first < 3) {
        fprintf(stderr, "usage: %s [--policy=classic|current] MODULE KEY[:KEY...] PACKAGE...\n", argv[0]);
        return 2;
    }
    void* module = dlopen(argv[first], RTLD_LAZY | RTLD_LOCAL);
    if (module == NULL) {
        fprintf(stderr, "%s: %s\n", argv[0], dlerror());
        return 2;
    }
    char** packages = argv + first + 2;
    const int count = argc - first - 2;
    const int status = policy < 0 ? VerifyClassic(module, argv[first + 1], packages, count)
                                  : VerifyWithPolicy(module, policy, argv[first + 1], packages, count);
    dlclose(module);
    return status;
}
