#include "child.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <sstream>

extern char** environ;

namespace bmsg_test {
namespace {

std::map<std::string, RoleFn>& roles()
{
    static std::map<std::string, RoleFn> all;
    return all;
}

std::string slurp(int fd)
{
    std::string s(static_cast<size_t>(std::max<off_t>(0, lseek(fd, 0, SEEK_END))), '\0');
    s.resize(static_cast<size_t>(std::max<ssize_t>(0, pread(fd, &s[0], s.size(), 0))));
    return s;
}

std::vector<std::string> join(std::vector<std::string> head, const std::vector<std::string>& tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

void reap(pid_t pid, int& status, int flags)
{
    int s = 0;
    if (pid > 0 && status < 0 && waitpid(pid, &s, flags) == pid)
        status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
}

} // namespace

Child spawn(const std::vector<std::string>& argv, bool ours, const std::string& input)
{
    const char* emulator = ours ? getenv("BMSG_TEST_EMULATOR") : nullptr;
    std::istringstream split(emulator ? emulator : "");
    std::vector<std::string> words = join({std::istream_iterator<std::string>(split), {}}, argv);
    std::vector<char*> args;
    for (auto& w : words)
        args.push_back(&w[0]);
    args.push_back(nullptr);
    Child c;
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (int i = 0; i < 3; ++i)
        posix_spawn_file_actions_adddup2(&files, c.fds_[i] = memfd_create("child", MFD_CLOEXEC), i);
    (void)!pwrite(c.fds_[0], input.data(), input.size(), 0);
    fflush(nullptr);
    if (const int rc = posix_spawnp(&c.pid_, args[0], &files, nullptr, args.data(), environ))
        fprintf(stderr, "cannot start %s: %s\n", args[0], strerror(rc)), abort();
    posix_spawn_file_actions_destroy(&files);
    return c;
}

Child spawn_role(const std::string& role, const std::vector<std::string>& args)
{
    char self[4096] = {};
    (void)!readlink("/proc/self/exe", self, sizeof self - 1);
    return spawn(join({self, "--bmsg-role", role}, args), true, "");
}

Child spawn_program(const std::string& path, const std::vector<std::string>& args,
                    const std::string& input)
{
    return spawn(join({path}, args), true, input);
}

Child spawn_native(const std::string& path, const std::vector<std::string>& args)
{
    return spawn(join({path}, args), false, "");
}

Child::~Child()
{
    kill(SIGKILL);
    wait();
    for (int fd : fds_)
        close(fd);
}

Child::Child(Child&& other) noexcept { *this = std::move(other); }

Child& Child::operator=(Child&& other) noexcept
{
    std::swap(pid_, other.pid_);
    std::swap(status_, other.status_);
    std::swap(fds_, other.fds_);
    return *this;
}

int Child::wait() { return reap(pid_, status_, 0), status_; }
bool Child::ended() { return reap(pid_, status_, WNOHANG), status_ >= 0; }
void Child::kill(int sig)
{
    if (pid_ > 0 && status_ < 0)
        ::kill(pid_, sig);
}

std::string Child::out() const { return slurp(fds_[1]); }
std::string Child::err() const { return slurp(fds_[2]); }
bool register_role(const char* name, RoleFn fn) { return roles().emplace(name, fn).second; }

int run_role_if_asked(int argc, char** argv)
{
    if (argc < 3 || strcmp(argv[1], "--bmsg-role") != 0)
        return -1;
    const auto role = roles().find(argv[2]);
    if (role == roles().end())
        return 127;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a role must not outlive its test
    return role->second(std::vector<std::string>(argv + 3, argv + argc));
}

bool robust_futexes()
{
    void* head = nullptr;
    size_t len = 0;
    return syscall(SYS_get_robust_list, 0, &head, &len) == 0 || errno != ENOSYS;
}

} // namespace bmsg_test
