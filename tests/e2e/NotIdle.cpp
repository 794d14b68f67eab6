// Runs a program whose threads stay out of the idle scheduling class: in there, they make no
// headway on a machine that is busy with tests.
//
//   not-idle PROGRAM [ARGUMENT...]

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>

int main(int argumentCount, char** arguments)
{
    // The call succeeds, and does nothing. Where there are no filters, the program is just slow.
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setscheduler, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof(steps) / sizeof(steps[0]), steps};
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0);

    if (argumentCount > 1) {
        execvp(arguments[1], arguments + 1);
    }
    std::perror("not-idle");
    return 127;
}
