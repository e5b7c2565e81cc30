/// Runs a command and, at one of its system calls, kills it or lets the call fail.
///
///     call_probe REPORT SECONDS count CLASS... -- COMMAND [ARGUMENT...]
///     call_probe REPORT SECONDS kill-all|kill-caller|fail N CLASS... -- COMMAND [ARGUMENT...]
///
/// CLASS is "change" (calls that change files, processes or the kernel), "file", "process",
/// "kernel" or "memory". The calls of these classes are counted over the command and all that it
/// starts, from 1; those with which a program's libraries are loaded do not count. "kill-all" kills
/// every process before call N, "kill-caller" the one that makes it, and "fail" lets it fail with
/// its error in the table below. A command that is not done after SECONDS is killed. Waits for all
/// processes of the command, also those that it leaves running.
///
/// REPORT then has one line for each call that was counted or hit, "N NAME PROGRAM", and a last
/// one: "exit STATUS", "signal NUMBER", or "hang". The exit status is 0 once that is written,
/// else 2.
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kUsage = 2;

// ---- The calls ----------------------------------------------------------------------------------

enum Class : unsigned {
    kChange = 1,  // of files, processes or the kernel
    kFile = 2,
    kProcess = 4,
    kKernel = 8,
    kMemory = 16,
};

struct ClassName {
    const char* name;
    Class value;
};

constexpr ClassName kClasses[] = {{"change", kChange},
                                  {"file", kFile},
                                  {"process", kProcess},
                                  {"kernel", kKernel},
                                  {"memory", kMemory}};

struct Call {
    const char* name;
    long number;
    unsigned classes;
    int error;  // with which it fails
};

constexpr Call kCalls[] = {
    {"open", SYS_open, kFile, EMFILE},
    {"openat", SYS_openat, kFile, EMFILE},
    {"creat", SYS_creat, kChange | kFile, ENOSPC},
    {"read", SYS_read, kFile, EIO},
    {"pread64", SYS_pread64, kFile, EIO},
    {"getdents64", SYS_getdents64, kFile, EIO},
    {"newfstatat", SYS_newfstatat, kFile, EIO},
    {"statx", SYS_statx, kFile, EIO},
    {"fstat", SYS_fstat, kFile, EIO},
    {"access", SYS_access, kFile, EIO},
    {"faccessat", SYS_faccessat, kFile, EIO},
    {"faccessat2", SYS_faccessat2, kFile, EIO},
    {"readlink", SYS_readlink, kFile, EIO},
    {"readlinkat", SYS_readlinkat, kFile, EIO},
    {"write", SYS_write, kChange | kFile, ENOSPC},
    {"writev", SYS_writev, kChange | kFile, ENOSPC},
    {"pwrite64", SYS_pwrite64, kChange | kFile, ENOSPC},
    {"ftruncate", SYS_ftruncate, kChange | kFile, EIO},
    {"truncate", SYS_truncate, kChange | kFile, EIO},
    {"fsync", SYS_fsync, kChange | kFile, EIO},
    {"fdatasync", SYS_fdatasync, kChange | kFile, EIO},
    {"rename", SYS_rename, kChange | kFile, EIO},
    {"renameat", SYS_renameat, kChange | kFile, EIO},
    {"renameat2", SYS_renameat2, kChange | kFile, EIO},
    {"link", SYS_link, kChange | kFile, EIO},
    {"linkat", SYS_linkat, kChange | kFile, EIO},
    {"symlink", SYS_symlink, kChange | kFile, EIO},
    {"symlinkat", SYS_symlinkat, kChange | kFile, EIO},
    {"unlink", SYS_unlink, kChange | kFile, EROFS},
    {"unlinkat", SYS_unlinkat, kChange | kFile, EROFS},
    {"rmdir", SYS_rmdir, kChange | kFile, EROFS},
    {"mkdir", SYS_mkdir, kChange | kFile, ENOSPC},
    {"mkdirat", SYS_mkdirat, kChange | kFile, ENOSPC},
    {"mknod", SYS_mknod, kChange | kFile, ENOSPC},
    {"mknodat", SYS_mknodat, kChange | kFile, ENOSPC},
    {"chmod", SYS_chmod, kChange | kFile, EPERM},
    {"fchmod", SYS_fchmod, kChange | kFile, EPERM},
    {"fchmodat", SYS_fchmodat, kChange | kFile, EPERM},
    {"chown", SYS_chown, kChange | kFile, EPERM},
    {"fchown", SYS_fchown, kChange | kFile, EPERM},
    {"fchownat", SYS_fchownat, kChange | kFile, EPERM},
    {"flock", SYS_flock, kChange | kFile, ENOLCK},
    {"fcntl", SYS_fcntl, kFile, ENOLCK},
    {"memfd_create", SYS_memfd_create, kChange | kFile, EMFILE},
    {"sendfile", SYS_sendfile, kChange | kFile, ENOSPC},
    {"copy_file_range", SYS_copy_file_range, kChange | kFile, ENOSPC},
    {"fork", SYS_fork, kChange | kProcess, EAGAIN},
    {"vfork", SYS_vfork, kChange | kProcess, EAGAIN},
    {"clone", SYS_clone, kChange | kProcess, EAGAIN},
    {"clone3", SYS_clone3, kChange | kProcess, EAGAIN},
    {"execve", SYS_execve, kChange | kProcess, ENOMEM},
    {"exit_group", SYS_exit_group, kChange, 0},
    {"wait4", SYS_wait4, kChange | kProcess, EINTR},
    {"waitid", SYS_waitid, kChange | kProcess, EINTR},
    {"poll", SYS_poll, kProcess, EINTR},
    {"pipe2", SYS_pipe2, kProcess, EMFILE},
    {"dup2", SYS_dup2, kProcess, EBUSY},
    {"dup3", SYS_dup3, kProcess, EBUSY},
    {"kill", SYS_kill, kChange | kProcess, EPERM},
    {"unshare", SYS_unshare, kChange | kProcess, EPERM},
    {"setns", SYS_setns, kChange | kProcess, EPERM},
    {"socket", SYS_socket, kKernel, EMFILE},
    {"socketpair", SYS_socketpair, kKernel, EMFILE},
    {"bind", SYS_bind, kChange | kKernel, EADDRINUSE},
    {"connect", SYS_connect, kKernel, ECONNREFUSED},
    {"sendto", SYS_sendto, kChange | kKernel, ENOBUFS},
    {"sendmsg", SYS_sendmsg, kChange | kKernel, ENOBUFS},
    {"recvfrom", SYS_recvfrom, kKernel, ENOBUFS},
    {"recvmsg", SYS_recvmsg, kKernel, ENOBUFS},
    {"setsockopt", SYS_setsockopt, kChange | kKernel, ENOMEM},
    {"getsockopt", SYS_getsockopt, kKernel, ENOMEM},
    {"ioctl", SYS_ioctl, kKernel, EIO},
    {"mount", SYS_mount, kChange | kKernel, ENOMEM},
    {"umount2", SYS_umount2, kChange | kKernel, EBUSY},
    {"init_module", SYS_init_module, kChange | kKernel, ENOMEM},
    {"finit_module", SYS_finit_module, kChange | kKernel, ENOMEM},
    {"delete_module", SYS_delete_module, kChange | kKernel, EBUSY},
    {"mmap", SYS_mmap, kMemory, ENOMEM},
    {"mremap", SYS_mremap, kMemory, ENOMEM},
    {"brk", SYS_brk, kMemory, ENOMEM},
};

const Call* callOf(long number) {
    const auto* const found =
        std::find_if(std::begin(kCalls), std::end(kCalls),
                     [number](const Call& call) { return call.number == number; });
    return found == std::end(kCalls) ? nullptr : found;
}

// ---- The task -----------------------------------------------------------------------------------

struct Task {
    std::string report;
    unsigned seconds = 0;
    std::string action;
    std::size_t at = 0;  // 0: only count
    unsigned classes = 0;
    char** command = nullptr;
};

[[noreturn]] void usage() {
    (void)std::fputs(
        "usage: call_probe REPORT SECONDS count|kill-all|kill-caller|fail [N] "
        "CLASS... -- COMMAND...\n",
        stderr);
    std::exit(kUsage);
}

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(kUsage);
}

unsigned classOf(const std::string& name) {
    for (const ClassName& known : kClasses) {
        if (name == known.name) {
            return known.value;
        }
    }
    usage();
}

Task taskFrom(int argc, char** argv) {
    Task task;
    if (argc < 6) {
        usage();
    }
    task.report = argv[1];
    task.seconds = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    task.action = argv[3];
    int next = 4;
    if (task.action != "count") {
        task.at = std::strtoul(argv[next++], nullptr, 10);
    }
    for (; next < argc && std::strcmp(argv[next], "--") != 0; ++next) {
        task.classes |= classOf(argv[next]);
    }
    if (next + 1 >= argc || task.classes == 0) {
        usage();
    }
    task.command = argv + next + 1;
    return task;
}

// ---- Inside the command -------------------------------------------------------------------------

/// Stops every process from here on at each of the calls, before it is made.
void trapCalls(unsigned classes) {
    std::vector<sock_filter> program;
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const Call& call : kCalls) {
        if ((call.classes & classes) != 0 || call.number == SYS_openat) {
            program.push_back(
                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call.number), 0, 1));
            program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
        }
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog filter{};
    filter.len = static_cast<unsigned short>(program.size());
    filter.filter = program.data();
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        // Without the right to set a filter, only with the promise to gain none.
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
            fail("call_probe: seccomp");
        }
    }
}

// ---- The tracer ---------------------------------------------------------------------------------

struct Process {
    std::string program;
    bool started = false;           // its libraries are loaded
    bool starved = false;           // it gets no more memory
    std::uint64_t interpreter = 0;  // where the dynamic linker is
    std::uint64_t interpreterEnd = 0;
};

volatile sig_atomic_t timeIsUp = 0;

void onAlarm(int) {
    timeIsUp = 1;
}

class Tracer {
public:
    explicit Tracer(const Task& task) : task_(task), report_(task.report, std::ios::trunc) {}

    bool run();

private:
    void start();
    void begin(pid_t pid);
    void stopped(pid_t pid, int status);
    void called(pid_t pid);
    bool counts(pid_t pid, const Call& call, const user_regs_struct& registers);
    void hit(pid_t pid, const Call& call, user_regs_struct& registers);
    void letFail(pid_t pid, const Call& call, user_regs_struct& registers);
    void killAll();
    void resume(pid_t pid, int signal = 0);

    Task task_;
    std::ofstream report_;
    pid_t root_ = -1;
    int rootStatus_ = 0;
    bool running_ = false;  // the command's own program has begun
    bool killed_ = false;
    std::size_t count_ = 0;
    std::map<pid_t, Process> processes_;
};

void Tracer::start() {
    int gate[2];
    if (pipe(gate) != 0) {
        fail("call_probe: pipe");
    }
    root_ = fork();
    if (root_ < 0) {
        fail("call_probe: fork");
    }
    if (root_ == 0) {
        char go = 0;
        (void)close(gate[1]);
        if (read(gate[0], &go, 1) != 1) {
            _exit(kUsage);
        }
        (void)close(gate[0]);
        (void)setpgid(0, 0);
        trapCalls(task_.classes);
        execvp(task_.command[0], task_.command);
        fail("call_probe: the command");
    }
    (void)close(gate[0]);
    constexpr long kOptions = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                              PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
    if (ptrace(PTRACE_SEIZE, root_, nullptr, kOptions) != 0) {
        fail("call_probe: ptrace");
    }
    processes_[root_] = {};
    if (write(gate[1], "g", 1) != 1) {
        fail("call_probe: pipe");
    }
    (void)close(gate[1]);
}

/// A new program in the process: reads its name, and where its dynamic linker is.
void Tracer::begin(pid_t pid) {
    Process process;
    const std::string directory = "/proc/" + std::to_string(pid);
    (void)std::getline(std::ifstream(directory + "/comm") >> std::ws, process.program);
    std::ifstream auxiliary(directory + "/auxv", std::ios::binary);
    for (Elf64_auxv_t entry; auxiliary.read(reinterpret_cast<char*>(&entry), sizeof entry);) {
        if (entry.a_type == AT_BASE) {
            process.interpreter = entry.a_un.a_val;
        }
    }
    process.started = process.interpreter == 0;
    std::string name;
    std::ifstream maps(directory + "/maps");
    for (std::string line; std::getline(maps, line);) {
        std::uint64_t first = 0;
        std::uint64_t end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx", &first, &end) != 2) {
            continue;
        }
        const std::string path = line.substr(std::min(line.size(), line.find('/')));
        if (first == process.interpreter) {
            name = path;
        }
        if (!name.empty() && path == name) {
            process.interpreterEnd = end;
        }
    }
    processes_[pid] = process;
}

/// Whether a call is one of those asked for, made by the program itself and not while it is loaded.
bool Tracer::counts(pid_t pid, const Call& call, const user_regs_struct& registers) {
    Process& process = processes_[pid];
    if (!process.started) {
        process.started =
            registers.rip < process.interpreter || registers.rip >= process.interpreterEnd;
    }
    if (!running_ || !process.started) {
        return false;
    }
    if (call.number == SYS_openat && (task_.classes & kFile) == 0) {
        // A file opened for reading changes nothing.
        constexpr unsigned kWrites = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;
        return (task_.classes & kChange) != 0 && (registers.rdx & kWrites) != 0;
    }
    if ((task_.classes & kChange) == 0) {
        if (call.number == SYS_fcntl) {  // only locks fail for want of anything
            const auto command = static_cast<int>(registers.rsi);
            return command == F_SETLK || command == F_SETLKW || command == F_OFD_SETLK ||
                   command == F_OFD_SETLKW || command == F_DUPFD_CLOEXEC;
        }
        if (call.number == SYS_brk && registers.rdi == 0) {  // asks where the heap ends
            return false;
        }
    }
    return true;
}

void Tracer::called(pid_t pid) {
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, pid, nullptr, &registers) != 0) {
        return;  // killed meanwhile
    }
    const Call* const call = callOf(static_cast<long>(registers.orig_rax));
    if (call == nullptr || !counts(pid, *call, registers)) {
        return;
    }
    ++count_;
    if (processes_[pid].starved && (call->classes & kMemory) != 0) {
        letFail(pid, *call, registers);
    } else if (task_.at == 0) {
        report_ << count_ << ' ' << call->name << ' ' << processes_[pid].program << '\n';
    } else if (count_ == task_.at) {
        report_ << count_ << ' ' << call->name << ' ' << processes_[pid].program << '\n';
        hit(pid, *call, registers);
    }
}

void Tracer::hit(pid_t pid, const Call& call, user_regs_struct& registers) {
    if (task_.action == "kill-all") {
        killAll();
    } else if (task_.action == "kill-caller") {
        (void)kill(pid, SIGKILL);
    } else {
        processes_[pid].starved = (call.classes & kMemory) != 0;
        letFail(pid, call, registers);
    }
}

void Tracer::letFail(pid_t pid, const Call& call, user_regs_struct& registers) {
    // No such call: the kernel skips it and returns what is in the register. A failed brk answers
    // with an address below the one asked for; after none the C library asks where the heap ends.
    registers.orig_rax = static_cast<unsigned long long>(-1);
    registers.rax = call.number == SYS_brk
                        ? 0
                        : static_cast<unsigned long long>(static_cast<long long>(-call.error));
    (void)ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}

void Tracer::killAll() {
    killed_ = true;
    for (const auto& [pid, unused] : processes_) {
        (void)kill(pid, SIGKILL);
    }
}

void Tracer::resume(pid_t pid, int signal) {
    (void)ptrace(PTRACE_CONT, pid, nullptr, static_cast<long>(signal));
}

void Tracer::stopped(pid_t pid, int status) {
    const int event = status >> 16;
    const int signal = WSTOPSIG(status);
    if (processes_.count(pid) == 0) {
        processes_[pid] = {};
        if (killed_) {
            (void)kill(pid, SIGKILL);
        }
    }
    switch (event) {
        case PTRACE_EVENT_SECCOMP:
            called(pid);
            resume(pid);
            return;
        case PTRACE_EVENT_EXEC:
            begin(pid);
            running_ = true;
            resume(pid);
            return;
        case PTRACE_EVENT_FORK:
        case PTRACE_EVENT_VFORK:
        case PTRACE_EVENT_CLONE: {
            unsigned long child = 0;
            (void)ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child);
            Process copy = processes_[pid];
            processes_[static_cast<pid_t>(child)] = copy;
            if (killed_) {
                (void)kill(static_cast<pid_t>(child), SIGKILL);
            }
            resume(pid);
            return;
        }
        case PTRACE_EVENT_STOP:
            if (signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU) {
                (void)ptrace(PTRACE_LISTEN, pid, nullptr, nullptr);  // stays stopped
            } else {
                resume(pid);
            }
            return;
        default:
            resume(pid, signal);
    }
}

bool Tracer::run() {
    // What the command leaves running becomes this program's child.
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    struct sigaction action {};
    action.sa_handler = onAlarm;  // without SA_RESTART: it ends the wait
    (void)sigaction(SIGALRM, &action, nullptr);
    start();
    (void)alarm(task_.seconds);
    bool hung = false;
    while (true) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, __WALL);
        if (pid < 0 && errno == ECHILD) {
            break;
        }
        if (timeIsUp != 0 && !hung) {
            hung = true;
            killAll();
        }
        if (pid < 0) {
            continue;
        }
        if (WIFSTOPPED(status)) {
            stopped(pid, status);
            continue;
        }
        processes_.erase(pid);
        if (pid == root_) {
            rootStatus_ = status;
        }
    }
    if (task_.at == 0) {
        report_ << "calls " << count_ << '\n';
    }
    if (hung) {
        report_ << "hang\n";
    } else if (WIFSIGNALED(rootStatus_)) {
        report_ << "signal " << WTERMSIG(rootStatus_) << '\n';
    } else {
        report_ << "exit " << WEXITSTATUS(rootStatus_) << '\n';
    }
    return static_cast<bool>(report_.flush());
}

}  // namespace

int main(int argc, char** argv) {
    return Tracer(taskFrom(argc, argv)).run() ? 0 : kUsage;
}
