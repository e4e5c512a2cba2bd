/* Linked only into the self-contained module of the vendor bundle (SIGNING_SELF_CONTAINED).
 *
 * The bundle's module carries libcrypto, libstdc++ and libgcc inside it, and must load on the
 * distributions installers run on, whose glibc may be as old as 2.28. The archives it is linked
 * from, and the module's own code, were built against this machine's glibc and name newer symbol
 * versions: stat at 2.33, the pthread and dl functions at 2.34 (when libpthread and libdl moved into libc),
 * __libc_single_threaded at 2.32, _dl_find_object at 2.35, arc4random at 2.36.
 *
 * Each such name is defined here, hidden, so that every reference inside the module binds to this
 * definition at link time instead of to the newer version in libc. The definitions call the same
 * functions under the version they have had since glibc 2.0/2.2.5 (bound with .symver; glibc still
 * carries those versions), or do the same work with older functions. Old glibc keeps the pthread
 * and dl functions in libpthread.so.0 and libdl.so.2: the module names both as NEEDED, so that they
 * are in its lookup scope there (on newer glibc they are empty and libc answers).
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/types.h>
#include <unistd.h>

#define HIDDEN __attribute__((visibility("hidden")))

#if defined(__x86_64__)
#define OLD_PTHREAD "GLIBC_2.2.5"
#define OLD_PTHREAD_CREATE "GLIBC_2.2.5"
#define OLD_PTHREAD_RWLOCK "GLIBC_2.2.5"
#define OLD_DL "GLIBC_2.2.5"
#define OLD_DLOPEN "GLIBC_2.2.5"
#define OLD_STAT "GLIBC_2.2.5"
#define OLD_STAT64 "GLIBC_2.2.5"
/* The version of the stat structure that __xstat and its siblings are asked for. */
#define STAT_VERSION 1
#define STAT64_VERSION 1
#elif defined(__i386__)
#define OLD_PTHREAD "GLIBC_2.0"
#define OLD_PTHREAD_CREATE "GLIBC_2.1"
#define OLD_PTHREAD_RWLOCK "GLIBC_2.1"
#define OLD_DL "GLIBC_2.0"
#define OLD_DLOPEN "GLIBC_2.1"
#define OLD_STAT "GLIBC_2.0"
#define OLD_STAT64 "GLIBC_2.2"
#define STAT_VERSION 3
#define STAT64_VERSION 3
#else
#error "the glibc floor is set for x86-64 and i386 only"
#endif

/* An old versioned function under a local name: OLD(name, version) binds old_name to name@version. */
#define OLD(name, version) __asm__(".symver old_" #name "," #name "@" version)

/* libstdc++ reads this to skip atomic reference counts while a process has one thread. Zero means
 * "maybe several threads", which is always correct. */
HIDDEN char __libc_single_threaded = 0;

/* stat and its siblings: functions of their own since glibc 2.33, before that macros over __xstat.
 * The buffer is passed through untouched, so its type does not matter here. */
int old___xstat(int, const char*, void*);
int old___fxstat(int, int, void*);
int old___xstat64(int, const char*, void*);
int old___fxstat64(int, int, void*);
int old___lxstat64(int, const char*, void*);
OLD(__xstat, OLD_STAT);
OLD(__fxstat, OLD_STAT);
OLD(__xstat64, OLD_STAT64);
OLD(__fxstat64, OLD_STAT64);
OLD(__lxstat64, OLD_STAT64);
HIDDEN int stat(const char* path, void* buffer) {
    return old___xstat(STAT_VERSION, path, buffer);
}
HIDDEN int fstat(int file, void* buffer) {
    return old___fxstat(STAT_VERSION, file, buffer);
}
HIDDEN int stat64(const char* path, void* buffer) {
    return old___xstat64(STAT64_VERSION, path, buffer);
}
HIDDEN int fstat64(int file, void* buffer) {
    return old___fxstat64(STAT64_VERSION, file, buffer);
}
HIDDEN int lstat64(const char* path, void* buffer) {
    return old___lxstat64(STAT64_VERSION, path, buffer);
}

/* The pthread functions that the module (its digest thread), libstdc++, libgcc and libcrypto call
 * and that glibc 2.34 moved. */
int old_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int old_pthread_join(pthread_t, void**);
int old_pthread_detach(pthread_t);
OLD(pthread_create, OLD_PTHREAD_CREATE);
OLD(pthread_join, OLD_PTHREAD);
OLD(pthread_detach, OLD_PTHREAD);
HIDDEN int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
    return old_pthread_create(thread, attributes, start, argument);
}
HIDDEN int pthread_join(pthread_t thread, void** result) {
    return old_pthread_join(thread, result);
}
HIDDEN int pthread_detach(pthread_t thread) {
    return old_pthread_detach(thread);
}
/* pthread_sigmask: in libc since glibc 2.32. */
int old_pthread_sigmask(int, const sigset_t*, sigset_t*);
OLD(pthread_sigmask, OLD_PTHREAD);
HIDDEN int pthread_sigmask(int how, const sigset_t* set, sigset_t* before) {
    return old_pthread_sigmask(how, set, before);
}
int old_pthread_once(pthread_once_t*, void (*)(void));
int old_pthread_key_create(pthread_key_t*, void (*)(void*));
int old___pthread_key_create(pthread_key_t*, void (*)(void*));
int old_pthread_key_delete(pthread_key_t);
void* old_pthread_getspecific(pthread_key_t);
/* Like glibc's own declaration: the value is stored, never read through. */
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((access(none, 2)))
#endif
int old_pthread_setspecific(pthread_key_t, const void *);
int old_pthread_rwlock_init(pthread_rwlock_t*, const pthread_rwlockattr_t*);
int old_pthread_rwlock_destroy(pthread_rwlock_t*);
int old_pthread_rwlock_rdlock(pthread_rwlock_t*);
int old_pthread_rwlock_wrlock(pthread_rwlock_t*);
int old_pthread_rwlock_unlock(pthread_rwlock_t*);
OLD(pthread_once, OLD_PTHREAD);
OLD(pthread_key_create, OLD_PTHREAD);
OLD(__pthread_key_create, OLD_PTHREAD);
OLD(pthread_key_delete, OLD_PTHREAD);
OLD(pthread_getspecific, OLD_PTHREAD);
OLD(pthread_setspecific, OLD_PTHREAD);
OLD(pthread_rwlock_init, OLD_PTHREAD_RWLOCK);
OLD(pthread_rwlock_destroy, OLD_PTHREAD_RWLOCK);
OLD(pthread_rwlock_rdlock, OLD_PTHREAD_RWLOCK);
OLD(pthread_rwlock_wrlock, OLD_PTHREAD_RWLOCK);
OLD(pthread_rwlock_unlock, OLD_PTHREAD_RWLOCK);
HIDDEN int pthread_once(pthread_once_t* once, void (*function)(void)) {
    return old_pthread_once(once, function);
}
HIDDEN int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
    return old_pthread_key_create(key, destructor);
}
/* libstdc++ and libgcc take the presence of this name as "the process may have threads". */
HIDDEN int __pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
    return old___pthread_key_create(key, destructor);
}
HIDDEN int pthread_key_delete(pthread_key_t key) {
    return old_pthread_key_delete(key);
}
HIDDEN void* pthread_getspecific(pthread_key_t key) {
    return old_pthread_getspecific(key);
}
HIDDEN int pthread_setspecific(pthread_key_t key, const void* value) {
    return old_pthread_setspecific(key, value);
}
HIDDEN int pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attributes) {
    return old_pthread_rwlock_init(lock, attributes);
}
HIDDEN int pthread_rwlock_destroy(pthread_rwlock_t* lock) {
    return old_pthread_rwlock_destroy(lock);
}
HIDDEN int pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
    return old_pthread_rwlock_rdlock(lock);
}
HIDDEN int pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
    return old_pthread_rwlock_wrlock(lock);
}
HIDDEN int pthread_rwlock_unlock(pthread_rwlock_t* lock) {
    return old_pthread_rwlock_unlock(lock);
}

/* The dl functions of libcrypto's shared-object loader. */
void* old_dlopen(const char*, int);
void* old_dlsym(void*, const char*);
int old_dlclose(void*);
char* old_dlerror(void);
int old_dladdr(const void*, Dl_info*);
OLD(dlopen, OLD_DLOPEN);
OLD(dlsym, OLD_DL);
OLD(dlclose, OLD_DL);
OLD(dlerror, OLD_DL);
OLD(dladdr, OLD_DL);
HIDDEN void* dlopen(const char* file, int mode) {
    return old_dlopen(file, mode);
}
HIDDEN void* dlsym(void* handle, const char* name) {
    return old_dlsym(handle, name);
}
HIDDEN int dlclose(void* handle) {
    return old_dlclose(handle);
}
HIDDEN char* dlerror(void) {
    return old_dlerror();
}
HIDDEN int dladdr(const void* address, Dl_info* info) {
    return old_dladdr(address, info);
}

/* A random 32-bit number from the kernel (getrandom: glibc 2.25), or from /dev/urandom where the
 * system call is missing or filtered, as glibc's own does. Like glibc's, it cannot fail: without
 * entropy the process stops. */
HIDDEN uint32_t arc4random(void) {
    uint32_t value = 0;
    unsigned char* out = (unsigned char*)&value;
    size_t have = 0;
    int urandom = -1;
    while (have < sizeof value) {
        ssize_t got = urandom < 0 ? getrandom(out + have, sizeof value - have, 0)
                                  : read(urandom, out + have, sizeof value - have);
        if (got > 0) {
            have += (size_t)got;
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else if (urandom < 0 && got < 0 && (errno == ENOSYS || errno == EPERM)) {
            urandom = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
            if (urandom < 0) abort();
        } else {
            abort();
        }
    }
    if (urandom >= 0) close(urandom);
    return value;
}

/* _dl_find_object (glibc 2.35), which libgcc's unwinder asks for the exception tables of the object
 * that holds a return address, answered from the program headers that dl_iterate_phdr reports: the
 * object whose PT_LOAD segments hold the address, its PT_GNU_EH_FRAME, and on i386 the data base
 * that DW_EH_PE_datarel pointers count from (DT_PLTGOT, which the loader has relocated in place). */
struct FindRequest {
    uintptr_t address;
    struct dl_find_object* result;
    int found;
};

static int FindObject(struct dl_phdr_info* info, size_t size, void* data) {
    struct FindRequest* request = data;
    (void)size;
    uintptr_t start = UINTPTR_MAX, end = 0;
    int holds = 0;
    const ElfW(Phdr)* frames = NULL;
    const ElfW(Phdr)* dynamic = NULL;
    for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)* header = &info->dlpi_phdr[i];
        if (header->p_type == PT_LOAD) {
            uintptr_t from = info->dlpi_addr + header->p_vaddr;
            uintptr_t to = from + header->p_memsz;
            if (request->address >= from && request->address < to) holds = 1;
            if (from < start) start = from;
            if (to > end) end = to;
        } else if (header->p_type == PT_GNU_EH_FRAME) {
            frames = header;
        } else if (header->p_type == PT_DYNAMIC) {
            dynamic = header;
        }
    }
    if (!holds) return 0;
    struct dl_find_object* result = request->result;
    result->dlfo_flags = 0;
    result->dlfo_map_start = (void*)start;
    result->dlfo_map_end = (void*)end;
    result->dlfo_link_map = NULL;
    result->dlfo_eh_frame = frames ? (void*)(info->dlpi_addr + frames->p_vaddr) : NULL;
#if DLFO_STRUCT_HAS_EH_DBASE
    result->dlfo_eh_dbase = NULL;
    if (dynamic) {
        const ElfW(Dyn)* entry = (const ElfW(Dyn)*)(info->dlpi_addr + dynamic->p_vaddr);
        for (; entry->d_tag != DT_NULL; ++entry)
            if (entry->d_tag == DT_PLTGOT) {
                result->dlfo_eh_dbase = (void*)entry->d_un.d_ptr;
                break;
            }
    }
#else
    (void)dynamic;
#endif
    request->found = 1;
    return 1;
}

HIDDEN int _dl_find_object(void* address, struct dl_find_object* result) {
    struct FindRequest request = {(uintptr_t)address, result, 0};
    dl_iterate_phdr(FindObject, &request);
    return request.found ? 0 : -1;
}
