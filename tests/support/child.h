// Other processes for tests, started with posix_spawn: a fresh process, not
// a copy of the test process with its threads and servers.
//
// "The other process" of a cross-process test is the test binary itself,
// started fresh with a role:
//
//   BMSG_ROLE(hold_lock) { SharedMemory s(args.at(0), 8, false); ...; return 0; }
//   ...
//   bmsg_test::Child c = bmsg_test::spawn_role("hold_lock", {"/name"});
//   EXPECT_EQ(c.wait(), 0) << c.err();
//
// A role gets its arguments as `args` and returns the process's exit code;
// returning (rather than _exit) lets destructors and exit handlers run. The
// support library's main() runs the role named on the command line instead
// of the tests; a role process is killed when the test process dies.
//
// When BMSG_TEST_EMULATOR is set (e.g. "qemu-aarch64 -L /usr/aarch64-linux-gnu",
// split at blanks) it is put in front of every program of ours that is
// started (roles, spawn_program); spawn_native programs start as they are.
#ifndef BMSG_TEST_CHILD_H
#define BMSG_TEST_CHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bmsg_test {

// A started process with its stdout and stderr caught in files. The
// destructor kills it (SIGKILL) if it still runs, reaps it and removes the
// files.
class Child {
public:
    Child() = default;
    ~Child();
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    // Blocks until the process ends; its exit code, or 128 + the signal that
    // ended it. Later calls give the same answer; -1 when nothing was started.
    int wait();
    // Whether the process has ended (reaps it without blocking if so).
    bool ended();
    // Sends sig (does nothing once the process was reaped).
    void kill(int sig);
    // What the process wrote so far.
    std::string out() const;
    std::string err() const;

private:
    friend Child spawn(const std::vector<std::string>&, bool, const std::string&);
    pid_t pid_ = -1;
    int status_ = -1;
    std::string dir_;
};

// Starts this test binary running `role` with `args`.
Child spawn_role(const std::string& role, const std::vector<std::string>& args = {});
// Starts a program of this project (behind BMSG_TEST_EMULATOR when set) with
// `input` as its standard input.
Child spawn_program(const std::string& path, const std::vector<std::string>& args = {},
                    const std::string& input = "");
// Starts a host program (looked up on PATH), never emulated.
Child spawn_native(const std::string& program, const std::vector<std::string>& args = {});

using RoleFn = int (*)(const std::vector<std::string>& args);
bool register_role(const char* name, RoleFn fn);
// The role's exit code, or -1 when argv names no role (main runs the tests).
int run_role_if_asked(int argc, char** argv);

// Whether the kernel (or emulator) gives robust futexes, without which the
// owner-died recovery of a process-shared mutex cannot work.
bool robust_futexes();

} // namespace bmsg_test

#define BMSG_ROLE(name)                                                                   \
    static int bmsg_role_##name(const std::vector<std::string>& args);                   \
    [[maybe_unused]] static const bool bmsg_role_registered_##name =                      \
        ::bmsg_test::register_role(#name, bmsg_role_##name);                             \
    static int bmsg_role_##name([[maybe_unused]] const std::vector<std::string>& args)

#endif
