#include "tools/program.h"

#include "support/files.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string make_folder()
{
    char name[] = "/scratch/program-XXXXXX";
    if (mkdtemp(name) == nullptr)
        abort();
    return name;
}

void redirect(int fd, const std::string &path, int flags)
{
    int file = open(path.c_str(), flags, 0600);
    if (file < 0 || dup2(file, fd) != fd)
        _exit(126);
    close(file);
}

[[noreturn]] void become(const std::vector<std::string> &arguments, const std::string &folder)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    redirect(STDIN_FILENO, folder + "/in", O_RDONLY);
    redirect(STDOUT_FILENO, folder + "/out", O_WRONLY | O_CREAT | O_APPEND);
    redirect(STDERR_FILENO, folder + "/err", O_WRONLY | O_CREAT | O_APPEND);

    std::vector<char *> words;
    for (const std::string &argument : arguments)
        words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    _exit(127);
}

} // namespace

Program::Program(const std::vector<std::string> &arguments, const std::string &input)
    : folder_(make_folder())
{
    write_file(folder_ + "/in", input);
    pid_ = fork();
    if (pid_ == 0)
        become(arguments, folder_);
}

Program::~Program()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        wait();
    }
}

std::string Program::output() const
{
    return read_file(folder_ + "/out");
}

std::string Program::errors() const
{
    return read_file(folder_ + "/err");
}

void Program::signal(int number) const
{
    if (pid_ > 0)
        kill(pid_, number);
}

int Program::wait()
{
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_)
        return -1000;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Outcome run(const std::vector<std::string> &arguments, const std::string &input)
{
    Program program(arguments, input);
    int status = program.wait();
    return {status, program.output(), program.errors()};
}

Outcome run_tool(std::vector<std::string> arguments, const std::string &input)
{
    arguments.insert(arguments.begin(), BV_TOOL);
    return run(arguments, input);
}
