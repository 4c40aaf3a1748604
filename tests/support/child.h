// Other processes for tests, started with posix_spawn (under qemu-user a
// forked child never runs). The other process of a cross-process test is
// this test binary started with a role:
//   BMSG_ROLE(hold_lock) { ...; return 0; }
//   Child c = spawn_role("hold_lock", {"/name"}); EXPECT_EQ(c.wait(), 0) << c.err();
// A role returns its exit code (destructors run) and dies with the test
// process. BMSG_TEST_EMULATOR (split at blanks) goes in front of our programs.
#ifndef BMSG_TEST_CHILD_H
#define BMSG_TEST_CHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bmsg_test {

// A started process with stdout and stderr caught; the destructor kills
// (SIGKILL) and reaps it if it still runs.
class Child {
public:
    Child() = default;
    ~Child();
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;

    pid_t pid() const { return pid_; }
    // Blocks until it ends: exit code, 128 + signal, -1 when nothing started.
    int wait();
    // Whether it has ended (reaps without blocking).
    bool ended();
    // Sends sig unless already reaped.
    void kill(int sig);
    std::string out() const;
    std::string err() const;

private:
    friend Child spawn(const std::vector<std::string>&, bool, const std::string&);
    pid_t pid_ = -1;
    int status_ = -1;
    int fds_[3] = {-1, -1, -1};  // its stdin, stdout, stderr (memory files)
};

// This test binary running `role` with `args`.
Child spawn_role(const std::string& role, const std::vector<std::string>& args = {});
// A program of this project (emulated when asked) reading `input`.
Child spawn_program(const std::string& path, const std::vector<std::string>& args = {},
                    const std::string& input = "");
// A host program from PATH, never emulated.
Child spawn_native(const std::string& program, const std::vector<std::string>& args = {});

using RoleFn = int (*)(const std::vector<std::string>& args);
bool register_role(const char* name, RoleFn fn);
// The role's exit code, or -1 when argv names no role.
int run_role_if_asked(int argc, char** argv);

// Whether robust futexes work (owner-died recovery of a shared mutex needs them).
bool robust_futexes();

} // namespace bmsg_test

#define BMSG_ROLE(name)                                                                   \
    static int bmsg_role_##name(const std::vector<std::string>& args);                   \
    [[maybe_unused]] static const bool bmsg_role_registered_##name =                      \
        ::bmsg_test::register_role(#name, bmsg_role_##name);                             \
    static int bmsg_role_##name([[maybe_unused]] const std::vector<std::string>& args)

#endif
