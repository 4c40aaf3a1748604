#include "child.h"

#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

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
    return head.insert(head.end(), tail.begin(), tail.end()), head;
}

void reap(pid_t pid, int& status, int flags)
{
    int s = 0;
    if (pid > 0 && status < 0 && waitpid(pid, &s, flags) == pid)
        status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
}

// Runs job on one thread that lives until the process ends: PR_SET_PDEATHSIG
// fires when the thread that forked a child ends, so children are forked
// there, whichever test thread asks.
void on_forker(const std::function<void()>& job)
{
    static auto* lock = new std::mutex;
    static auto* changed = new std::condition_variable;
    static const std::function<void()>* pending = nullptr;
    static const bool started = (std::thread([] {
        for (std::unique_lock<std::mutex> hold(*lock);; pending = nullptr, changed->notify_all()) {
            changed->wait(hold, [] { return pending != nullptr; });
            (*pending)();
        }
    }).detach(), true);
    std::unique_lock<std::mutex> hold(*lock);
    changed->wait(hold, [] { return started && !pending; });
    pending = &job;
    changed->notify_all();
    changed->wait(hold, [&] { return pending != &job; });
}

} // namespace

Child spawn(const std::vector<std::string>& argv, bool ours, const std::string& input)
{
    const char* emulator = ours ? getenv("BMSG_TEST_EMULATOR") : nullptr;
    std::istringstream split(emulator ? emulator : "");
    std::vector<std::string> words = join({std::istream_iterator<std::string>(split), {}}, argv);
    std::vector<char*> args(words.size() + 1, nullptr);
    std::transform(words.begin(), words.end(), args.begin(), [](std::string& w) { return &w[0]; });
    Child c;
    for (int i = 0; i < 3; ++i)
        c.fds_[i] = memfd_create("child", MFD_CLOEXEC);
    (void)!pwrite(c.fds_[0], input.data(), input.size(), 0);
    fflush(nullptr);
    on_forker([&] {
        const pid_t parent = getpid();
        if ((c.pid_ = fork()) != 0)
            return;
        // Only async-signal-safe calls until exec. A child outlives nothing of ours:
        // killed when the forking thread (which lives as long as the process) ends.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (int i = 0; i < 3 && getppid() == parent; ++i)
            dup2(c.fds_[i], i);
        if (getppid() == parent)
            execvp(args[0], args.data());
        _exit(127);
    });
    return c;
}

Child spawn_role(const std::string& role, const std::vector<std::string>& args)
{
    char self[4096] = {};
    (void)!readlink("/proc/self/exe", self, sizeof self - 1);
    return spawn(join({self, "--bmsg-role", role}, args), true, "");
}
Child spawn_program(const std::string& path, const std::vector<std::string>& args, const std::string& in) { return spawn(join({path}, args), true, in); }
Child spawn_native(const std::string& path, const std::vector<std::string>& args) { return spawn(join({path}, args), false, ""); }

Child::~Child()
{
    kill(SIGKILL), wait();
    for (int fd : fds_)
        close(fd);
}
Child::Child(Child&& other) noexcept { *this = std::move(other); }
Child& Child::operator=(Child&& other) noexcept
{
    std::swap(pid_, other.pid_), std::swap(status_, other.status_), std::swap(fds_, other.fds_);
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
    return role == roles().end() ? 127 : role->second(std::vector<std::string>(argv + 3, argv + argc));
}

std::string unique(const std::string& tag) { return tag + "_bt" + std::to_string(getpid()); }

void remove_orphan_segments()
{
    // unique() names, and the fuzz replay's (BIOMETRIC_SAMPLE_F, 7-digit pid, A or B).
    const std::regex ours("(BIOMETRIC_SAMPLE_|bmsg_test_).*_bt([0-9]{1,7})|BIOMETRIC_SAMPLE_F()([0-9]{7})[AB]");
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/dev/shm"), closedir);
    std::smatch m;
    for (dirent* e; dir && (e = readdir(dir.get()));) {
        const std::string name = e->d_name;
        if (std::regex_match(name, m, ours) && kill(std::stoi(m[2].str() + m[4].str()), 0) != 0 && errno == ESRCH)
            shm_unlink(("/" + name).c_str());
    }
}

long open_fds() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

} // namespace bmsg_test
