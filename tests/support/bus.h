// SPDX-License-Identifier: ISC
// The bus for tests: its daemon, and what is on it.

#ifndef BV_TESTS_SUPPORT_BUS_H
#define BV_TESTS_SUPPORT_BUS_H

#include "support/child.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// A child process, up when the constructor returns and gone when the destructor does.
class BusDaemon {
public:
    static constexpr const char *kDefaultSocket = "/var/run/ubus/ubus.sock";

    // An empty path means the default socket, where every client looks by itself. A limit above 0
    // is how many descriptors the daemon may have open.
    explicit BusDaemon(std::string path = "", unsigned long descriptors = 0)
        : path_(std::move(path)), descriptors_(descriptors)
    {
        start();
    }
    ~BusDaemon() { stop(); }
    BusDaemon(const BusDaemon &) = delete;
    BusDaemon &operator=(const BusDaemon &) = delete;

    pid_t pid() const { return pid_; }
    const char *path() const { return path_.empty() ? kDefaultSocket : path_.c_str(); }

    // Starts it, also after stop() or kill(), and waits until it accepts connections.
    void start()
    {
        std::vector<const char *> arguments = {BV_UBUSD};
        if (!path_.empty()) {
            arguments.push_back("-s");
            arguments.push_back(path_.c_str());
        }
        arguments.push_back(nullptr);

        pid_ = fork();
        if (pid_ == 0)
            run(arguments.data());
        for (int attempt = 0; attempt < 1000; attempt++) {
            if (accepts())
                return;
            if (waitpid(pid_, nullptr, WNOHANG) == pid_)
                break;
            usleep(10000);
        }
        std::fprintf(stderr, "bus daemon %s does not come up on %s\n", BV_UBUSD, path());
        std::abort();
    }

    // Ends it as a crash would: the socket file stays.
    void kill() { end(SIGKILL); }

    // Ends it properly and returns its wait status, -1 if it was not running.
    int stop() { return end(SIGTERM); }

private:
    [[noreturn]] void run(const char *const *arguments) const
    {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int number : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGCHLD})
            signal(number, SIG_DFL);
        for (int fd = 3; fd < 1024; fd++)
            close(fd);
        if (descriptors_ > 0) {
            rlimit limit = {descriptors_, descriptors_};
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        execv(arguments[0], const_cast<char *const *>(arguments));
        std::perror(arguments[0]);
        _exit(127);
    }

    bool accepts() const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (std::strlen(path()) >= sizeof(address.sun_path))
            return false;
        std::memcpy(address.sun_path, path(), std::strlen(path()));

        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool connected = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
        close(fd);
        return connected;
    }

    int end(int number)
    {
        int status = -1;
        if (pid_ <= 0)
            return -1;
        ::kill(pid_, number);
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR)
            ;
        pid_ = -1;
        return status;
    }

    std::string path_;
    unsigned long descriptors_;
    pid_t pid_ = -1;
};

// Waits until an object of that name is on the bus of the default socket.
bool wait_for_object(const std::string &name);
// Whether it is there now.
bool object_exists(const std::string &name);
// Whether the list of all objects shows that name, which may be one that cannot be looked up.
bool object_is_listed(const std::string &name);

#endif
