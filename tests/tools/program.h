// The tools as their users start them: processes with arguments, output and an exit status.
#ifndef BV_TESTS_TOOLS_PROGRAM_H
#define BV_TESTS_TOOLS_PROGRAM_H

#include <string>
#include <sys/types.h>
#include <vector>

// A running program. Its output goes to files; an empty input means no input.
class Program {
public:
    explicit Program(const std::vector<std::string> &arguments, const std::string &input = "");
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Everything printed so far.
    std::string output() const;
    std::string errors() const;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    // Waits for its end: the exit status, or minus the signal that ended it.
    int wait();

private:
    std::string folder_;
    pid_t pid_;
};

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

// Runs a program to its end.
Outcome run(const std::vector<std::string> &arguments, const std::string &input = "");

// The same for the tool under test, whose name is put in front.
Outcome run_tool(std::vector<std::string> arguments, const std::string &input = "");

#endif
