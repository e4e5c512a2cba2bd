/* The hashing floor of a package: reads FILE once in blocks of 64 KiB (the verifier's block size)
 * and feeds every block to the given digests in turn, through OpenSSL's EVP interface. Prints each
 * digest in hex, so that they can be checked against openssl dgst.
 *
 *   floor FILE                       MD5, SHA-512 and SHA-1: the serial one-pass floor of a package
 *                                    signed with SHA-512 as the verifier once computed it (it also
 *                                    hashes the header alone, a few KiB, left out here)
 *   floor --digests NAME[,NAME] FILE the digests named (md5, sha1, sha256, sha512): with one name,
 *                                    one digest alone; the slowest of the verifier's digests alone
 *                                    is the floor of a verifier that hashes on two cores
 *
 * bench/run builds it with the compiler directly, once for the native libcrypto and once with -m32
 * against the i386 one. Exit status 0, 1 with a message when the file cannot be read, 2 on a usage
 * error. */
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { kBlock = 64 * 1024, kMost = 4 };

int main(int argc, char** argv) {
    static unsigned char block[kBlock];
    const EVP_MD* kinds[kMost];
    EVP_MD_CTX* contexts[kMost];
    char names[256] = "md5,sha512,sha1";
    const char* file;
    char* name;
    ssize_t got;
    int fd, i, count = 0;
    if (argc == 4 && strcmp(argv[1], "--digests") == 0 && strlen(argv[2]) < sizeof names) {
        strcpy(names, argv[2]);
        file = argv[3];
    } else if (argc == 2) {
        file = argv[1];
    } else {
        fprintf(stderr, "usage: floor [--digests NAME[,NAME...]] FILE\n");
        return 2;
    }
    for (name = strtok(names, ","); name != NULL; name = strtok(NULL, ",")) {
        if (count == kMost || (kinds[count] = EVP_get_digestbyname(name)) == NULL) {
            fprintf(stderr, "floor: unknown digest or too many: %s\n", name);
            return 2;
        }
        contexts[count] = EVP_MD_CTX_new();
        if (contexts[count] == NULL || EVP_DigestInit_ex(contexts[count], kinds[count], NULL) != 1) {
            fprintf(stderr, "floor: cannot set up %s\n", name);
            return 1;
        }
        ++count;
    }
    fd = open(file, O_RDONLY);
    if (fd < 0) {
        perror(file);
        return 1;
    }
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    while ((got = read(fd, block, sizeof block)) > 0) {
        for (i = 0; i < count; ++i) EVP_DigestUpdate(contexts[i], block, (size_t)got);
    }
    if (got < 0) {
        perror(file);
        return 1;
    }
    close(fd);
    for (i = 0; i < count; ++i) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0, j;
        EVP_DigestFinal_ex(contexts[i], digest, &size);
        printf("%s ", EVP_MD_get0_name(kinds[i]));
        for (j = 0; j < size; ++j) printf("%02x", digest[j]);
        printf("\n");
        EVP_MD_CTX_free(contexts[i]);
    }
    return 0;
}
