/* The hashing floor of a package in one pass: reads FILE once in blocks of 64 KiB (the verifier's
 * block size) and feeds every block to MD5, SHA-512 and SHA-1 through OpenSSL's EVP interface: the
 * digests the verifier computes over header and payload for a package signed with SHA-512 (it also
 * hashes the header alone with SHA-1 and SHA-512, a few KiB, left out here), over the whole file as
 * the openssl dgst floor of bench/run takes them. Prints the three digests in hex, so that they can
 * be checked against openssl dgst.
 *
 *   floor FILE
 *
 * bench/run builds it with the compiler directly, once for the native libcrypto and once with -m32
 * against the i386 one. Exit status 0, or 1 with a message when the file cannot be read. */
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { kBlock = 64 * 1024 };

int main(int argc, char** argv) {
    static unsigned char block[kBlock];
    const EVP_MD* kinds[3];
    EVP_MD_CTX* contexts[3];
    const char* names[3] = {"MD5", "SHA512", "SHA1"};
    ssize_t got;
    int fd, i;
    if (argc != 2) {
        fprintf(stderr, "usage: floor FILE\n");
        return 2;
    }
    kinds[0] = EVP_md5();
    kinds[1] = EVP_sha512();
    kinds[2] = EVP_sha1();
    for (i = 0; i < 3; ++i) {
        contexts[i] = EVP_MD_CTX_new();
        if (contexts[i] == NULL || EVP_DigestInit_ex(contexts[i], kinds[i], NULL) != 1) {
            fprintf(stderr, "floor: cannot set up %s\n", names[i]);
            return 1;
        }
    }
    fd = open(argv[1], O_RDONLY);
    if (fd < 0) {
        perror(argv[1]);
        return 1;
    }
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    while ((got = read(fd, block, sizeof block)) > 0) {
        for (i = 0; i < 3; ++i) EVP_DigestUpdate(contexts[i], block, (size_t)got);
    }
    if (got < 0) {
        perror(argv[1]);
        return 1;
    }
    close(fd);
    for (i = 0; i < 3; ++i) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0, j;
        EVP_DigestFinal_ex(contexts[i], digest, &size);
        EVP_MD_CTX_free(contexts[i]);
        printf("%s ", names[i]);
        for (j = 0; j < size; ++j) printf("%02x", digest[j]);
        printf("\n");
    }
    return 0;
}
