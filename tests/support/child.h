// SPDX-License-Identifier: ISC
// Children of a test: functions that run in a process of their own, and programs as their users
// start them, with arguments, output and an exit status.
#ifndef BV_TESTS_SUPPORT_CHILD_H
#define BV_TESTS_SUPPORT_CHILD_H

#include <cstdlib>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/types.h>
#include <vector>

// A child process, which does not outlive the object or the test.
class Child {
public:
    // Runs `body` and exits with its result (the low 8 bits of it). A child that hangs is ended
    // after this many seconds; 0 lets it run.
    explicit Child(const std::function<int()> &body, unsigned seconds = 0);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    // Waits for its end: the exit status, or minus the signal that ended it.
    int wait();

private:
    pid_t pid_;
};

// Zeroed memory that this process shares with the children it starts from now on.
template <typename T>
T *share_with_children()
{
    void *memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    return static_cast<T *>(memory);
}

using Service = Child; // a process that serves others

// What becomes of a function in a process of its own, as Child::wait() tells it.
inline int run_in_child(const std::function<int()> &body, unsigned seconds = 20)
{
    return Child(body, seconds).wait();
}

// A running program. Its output goes to files; an empty input means no input.
class Program : public Child {
public:
    explicit Program(const std::vector<std::string> &arguments, const std::string &input = "");

    // Everything printed so far.
    std::string output() const;
    std::string errors() const;

private:
    Program(const std::string &folder, const std::vector<std::string> &arguments);
    std::string folder_;
};

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

// Runs a program to its end.
Outcome run(const std::vector<std::string> &arguments, const std::string &input = "");

#ifdef BV_TOOL
// The same for the tool under test, whose name is put in front.
inline Outcome run_tool(std::vector<std::string> arguments, const std::string &input = "")
{
    arguments.insert(arguments.begin(), BV_TOOL);
    return run(arguments, input);
}
#endif

#endif
