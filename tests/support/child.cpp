/* SPDX-License-Identifier: ISC */
#include "support/child.h"

#include "support/files.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string make_folder(const std::string &input)
{
    char name[] = "/scratch/program-XXXXXX";
    if (mkdtemp(name) == nullptr)
        abort();
    write_file(std::string(name) + "/in", input);
    return name;
}

void redirect(int fd, const std::string &path, int flags)
{
    int file = open(path.c_str(), flags, 0600);
    if (file < 0 || dup2(file, fd) != fd)
        _exit(126);
    close(file);
}

int become(const std::vector<std::string> &arguments, const std::string &folder)
{
    redirect(STDIN_FILENO, folder + "/in", O_RDONLY);
    redirect(STDOUT_FILENO, folder + "/out", O_WRONLY | O_CREAT | O_APPEND);
    redirect(STDERR_FILENO, folder + "/err", O_WRONLY | O_CREAT | O_APPEND);

    std::vector<char *> words;
    for (const std::string &argument : arguments)
        words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    return 127;
}

} // namespace

Child::Child(const std::function<int()> &body, unsigned seconds) : pid_(fork())
{
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(seconds);
    _exit(body() & 0xff);
}

Child::~Child()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    wait();
}

void Child::signal(int number) const
{
    if (pid_ > 0)
        kill(pid_, number);
}

int Child::wait()
{
    int status = 0;
    pid_t ended;
    do {
        ended = waitpid(pid_, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended != pid_)
        return -1000;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Program::Program(const std::vector<std::string> &arguments, const std::string &input)
    : Program(make_folder(input), arguments)
{
}

Program::Program(const std::string &folder, const std::vector<std::string> &arguments)
    : Child([&] { return become(arguments, folder); }), folder_(folder)
{
}

std::string Program::output() const
{
    return read_file(folder_ + "/out");
}

std::string Program::errors() const
{
    return read_file(folder_ + "/err");
}

Outcome run(const std::vector<std::string> &arguments, const std::string &input)
{
    Program program(arguments, input);
    int status = program.wait();
    return {status, program.output(), program.errors()};
}
