/* no-native-i386 COMMAND [ARGUMENT]...
 *
 * Runs COMMAND as it would run on a machine whose kernel starts no 32-bit x86 program: any process
 * below it that makes a 32-bit system call (a 32-bit program started directly, not through the
 * user-mode emulator, which makes 64-bit calls for it) is killed with SIGSYS ("Bad system call").
 * With SIGNING_I386_EMULATE=1, .ci/run runs the 32-bit suite and packages under it, so a program
 * that escapes the emulator fails there as it would on such a machine. A seccomp filter on the
 * architecture of each system call; it is inherited by every child and cannot be lifted.
 */
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_I386, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {sizeof filter / sizeof filter[0], filter};
    if (argc < 2) {
        fputs("usage: no-native-i386 COMMAND [ARGUMENT]...\n", stderr);
        return 2;
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        perror("no-native-i386: seccomp");
        return 125;
    }
    execvp(argv[1], argv + 1);
    perror(argv[1]);
    return 127;
}
