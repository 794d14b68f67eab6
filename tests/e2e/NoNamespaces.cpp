// Runs a program that gets no namespace, as on a machine that lets nobody make one.
//
//   no-namespaces PROGRAM [ARGUMENT...]

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

int main(int argumentCount, char** arguments)
{
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_unshare, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof(steps) / sizeof(steps[0]), steps};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); // without which only root may have a filter
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0) == 0 && argumentCount > 1) {
        execvp(arguments[1], arguments + 1);
    }
    std::perror("no-namespaces");
    return 127;
}
