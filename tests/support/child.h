// Other processes for tests, forked and executed at once, killed (PR_SET_PDEATHSIG) when the test
// process ends however it ends. The other process of a cross-process test is this binary run with a
// role: BMSG_ROLE(name) { ...; return 0; } then spawn_role("name", {args}). BMSG_TEST_EMULATOR prefixes our programs.
#ifndef BMSG_TEST_CHILD_H
#define BMSG_TEST_CHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bmsg_test {

// A started process with stdout and stderr caught; the destructor kills (SIGKILL) and reaps it.
class Child {
public:
    Child() = default;
    ~Child();
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    pid_t pid() const { return pid_; }
    int wait();    // blocks: exit code, 128 + signal, or -1 when none started
    bool ended();  // reaps without blocking
    void kill(int sig);
    std::string out() const;
    std::string err() const;

private:
    friend Child spawn(const std::vector<std::string>&, bool, const std::string&);
    pid_t pid_ = -1;
    int status_ = -1;
    int fds_[3] = {-1, -1, -1};  // stdin, stdout, stderr: memory files
};

// This binary running `role` (it dies with the test process).
Child spawn_role(const std::string& role, const std::vector<std::string>& args = {});
// A program of ours (emulated when asked) reading `input`.
Child spawn_program(const std::string& path, const std::vector<std::string>& args = {},
                    const std::string& input = "");
// A host program from PATH, never emulated.
Child spawn_native(const std::string& program, const std::vector<std::string>& args = {});

using RoleFn = int (*)(const std::vector<std::string>& args);
bool register_role(const char* name, RoleFn fn);
int run_role_if_asked(int argc, char** argv);  // the role's exit code, or -1
// tag + "_bt" + pid: segments "/bmsg_test_..." or "/BIOMETRIC_SAMPLE_..." named with it are removed by
// remove_orphan_segments() (every test binary at its start) once their process is gone.
std::string unique(const std::string& tag);
void remove_orphan_segments();
long open_fds();  // how many descriptors this process has open

} // namespace bmsg_test

#define BMSG_ROLE(name)                                                                   \
    static int bmsg_role_##name(const std::vector<std::string>& args);                   \
    [[maybe_unused]] static const bool bmsg_role_registered_##name =                      \
        ::bmsg_test::register_role(#name, bmsg_role_##name);                             \
    static int bmsg_role_##name([[maybe_unused]] const std::vector<std::string>& args)

#endif
