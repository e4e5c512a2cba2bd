/* A minimal C host: loads libsigning.so and verifies each package given against one key.
 *
 *   verify MODULE KEY PACKAGE...
 *
 * A host written in C calls rpm_verify only. The module also imports the C++ plug-in interface of
 * <signing/host.h> (print_log, the session functions, the product classes) for its prerequisite
 * check, which a C program cannot define: so it loads the module with RTLD_LAZY, which binds those
 * imports when they are first called, and never calls signing_validate_package_list. (With RTLD_NOW,
 * or LD_BIND_NOW set, the load fails with "undefined symbol: _Z9print_logPKcz".)
 *
 * Exit status: 0 when every package is signed and valid, 1 when one is not, 2 on a usage or load
 * error. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <signing/signing.h>

typedef RpmVerifyResult (*VerifyFunction)(const char* file, const char* key);

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s MODULE KEY PACKAGE...\n", argv[0]);
        return 2;
    }
    void* module = dlopen(argv[1], RTLD_LAZY | RTLD_LOCAL);
    if (module == NULL) {
        fprintf(stderr, "%s: %s\n", argv[0], dlerror());
        return 2;
    }
    /* POSIX's way to take a function from dlsym(): ISO C converts no object pointer to a function
     * pointer. */
    VerifyFunction verify = NULL;
    *(void**)&verify = dlsym(module, "rpm_verify");
    if (verify == NULL) {
        fprintf(stderr, "%s: %s\n", argv[0], dlerror());
        dlclose(module);
        return 2;
    }
    int failed = 0;
    for (int i = 3; i < argc; ++i) {
        RpmVerifyResult result = verify(argv[i], argv[2]);
        printf("%d %s\n", (int)result.status, result.message);
        failed = failed || result.status != RPM_STATUS_SIGNED;
        /* The one message that is not the caller's to free: the text of a failed allocation. */
        if (strcmp(result.message, "Internal error.") != 0) free(result.message);
    }
    dlclose(module);
    return failed;
}
