#include "child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

extern char** environ;

namespace bmsg_test {

namespace {

const char role_flag[] = "--bmsg-role";

std::map<std::string, RoleFn>& roles()
{
    static std::map<std::string, RoleFn> all;
    return all;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> emulator()
{
    std::vector<std::string> words;
    if (const char* e = getenv("BMSG_TEST_EMULATOR")) {
        std::istringstream in(e);
        for (std::string w; in >> w;)
            words.push_back(w);
    }
    return words;
}

std::string self_exe()
{
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        perror("readlink /proc/self/exe");
        abort();
    }
    return std::string(path, static_cast<size_t>(n));
}

} // namespace

Child spawn(const std::vector<std::string>& argv, bool ours, const std::string& input)
{
    std::vector<std::string> words = ours ? emulator() : std::vector<std::string>{};
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (auto& w : words)
        args.push_back(const_cast<char*>(w.c_str()));
    args.push_back(nullptr);

    Child c;
    char tmpl[] = "/tmp/bmsg-child-XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("mkdtemp");
        abort();
    }
    c.dir_ = tmpl;
    const std::string in = c.dir_ + "/in", out = c.dir_ + "/out", err = c.dir_ + "/err";
    std::ofstream(in) << input;
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    fflush(stdout);
    fflush(stderr);
    const int rc = posix_spawnp(&c.pid_, args[0], &files, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (rc != 0) {
        fprintf(stderr, "cannot start %s: %s\n", args[0], strerror(rc));
        abort();
    }
    return c;
}

Child spawn_role(const std::string& role, const std::vector<std::string>& args)
{
    std::vector<std::string> argv{self_exe(), role_flag, role};
    argv.insert(argv.end(), args.begin(), args.end());
    return spawn(argv, true, "");
}

Child spawn_program(const std::string& path, const std::vector<std::string>& args,
                    const std::string& input)
{
    std::vector<std::string> argv{path};
    argv.insert(argv.end(), args.begin(), args.end());
    return spawn(argv, true, input);
}

Child spawn_native(const std::string& program, const std::vector<std::string>& args)
{
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), args.begin(), args.end());
    return spawn(argv, false, "");
}

Child::~Child()
{
    if (pid_ > 0 && status_ < 0) {
        kill(SIGKILL);
        wait();
    }
    if (!dir_.empty()) {
        for (const char* f : {"/in", "/out", "/err"})
            unlink((dir_ + f).c_str());
        rmdir(dir_.c_str());
    }
}

Child::Child(Child&& other) noexcept { *this = std::move(other); }

Child& Child::operator=(Child&& other) noexcept
{
    std::swap(pid_, other.pid_);
    std::swap(status_, other.status_);
    std::swap(dir_, other.dir_);
    return *this;
}

static int exit_code(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Child::wait()
{
    if (pid_ <= 0 || status_ >= 0)
        return status_;
    int status = 0;
    pid_t r;
    while ((r = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    status_ = r == pid_ ? exit_code(status) : 255;
    return status_;
}

bool Child::ended()
{
    int status = 0;
    if (pid_ > 0 && status_ < 0 && waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = exit_code(status);
    return status_ >= 0;
}

void Child::kill(int sig)
{
    if (pid_ > 0 && status_ < 0)
        ::kill(pid_, sig);
}

std::string Child::out() const { return slurp(dir_ + "/out"); }
std::string Child::err() const { return slurp(dir_ + "/err"); }

bool register_role(const char* name, RoleFn fn)
{
    roles()[name] = fn;
    return true;
}

int run_role_if_asked(int argc, char** argv)
{
    if (argc < 3 || strcmp(argv[1], role_flag) != 0)
        return -1;
    const auto role = roles().find(argv[2]);
    if (role == roles().end()) {
        fprintf(stderr, "no role %s\n", argv[2]);
        return 127;
    }
    // A role must not outlive the test that started it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    return role->second(std::vector<std::string>(argv + 3, argv + argc));
}

bool robust_futexes()
{
    void* head = nullptr;
    size_t len = 0;
    return syscall(SYS_get_robust_list, 0, &head, &len) == 0 || errno != ENOSYS;
}

} // namespace bmsg_test
