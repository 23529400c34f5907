#include "process_limits.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <vector>

namespace ProcessLimits {

void apply()
{
    const rlimit data{dataBytes, dataBytes};
    setrlimit(RLIMIT_DATA, &data);
    // A memory bomb ends in a signal; a core file of it would only cost time and disk.
    const rlimit core{0, 0};
    setrlimit(RLIMIT_CORE, &core);
    alarm(wallSeconds);
}

void forbidSystemAccess()
{
#if defined(__x86_64__)
    constexpr unsigned architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
    constexpr unsigned architecture = AUDIT_ARCH_AARCH64;
#else
    constexpr unsigned architecture = 0;
#endif
    if constexpr (architecture == 0)
        return;
    // The C library reads the local time zone when first asked; it must be read while it can.
    tzset();

    static const int denied[] = {
#ifdef __NR_open
        __NR_open, __NR_creat, __NR_unlink, __NR_rename, __NR_mkdir, __NR_rmdir, __NR_link,
        __NR_symlink, __NR_chmod, __NR_chown, __NR_lchown, __NR_mknod,
#endif
        __NR_openat, __NR_openat2, __NR_open_by_handle_at, __NR_truncate, __NR_unlinkat,
        __NR_renameat, __NR_renameat2, __NR_mkdirat, __NR_linkat, __NR_symlinkat, __NR_fchmodat,
        __NR_fchownat, __NR_mknodat, __NR_io_uring_setup,
        __NR_socket, __NR_socketpair, __NR_connect, __NR_bind, __NR_listen, __NR_accept,
        __NR_accept4,
        __NR_execve, __NR_execveat, __NR_ptrace, __NR_process_vm_readv, __NR_process_vm_writev,
    };
    const sock_filter refuse = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA));

    std::vector<sock_filter> program;
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)));
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, architecture, 1, 0));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
#if defined(__x86_64__)
    // The x32 numbering would reach the same calls under other numbers.
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 0x40000000, 0, 1));
    program.push_back(refuse);
#endif
    for (const int call : denied) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, unsigned(call), 0, 1));
        program.push_back(refuse);
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));

    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    // TSYNC: the engine's helper threads are already running and must be covered too.
    syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &filter);
}

std::size_t scriptStackBytes()
{
    constexpr std::size_t preferred = std::size_t(4) << 20;
    constexpr std::size_t margin = std::size_t(256) << 10;
    rlimit stack{};
    if (getrlimit(RLIMIT_STACK, &stack) != 0 || stack.rlim_cur == RLIM_INFINITY)
        return preferred;
    const std::size_t limit = stack.rlim_cur;
    return limit > 2 * margin ? std::min(preferred, limit - margin) : limit / 2;
}

} // namespace ProcessLimits
