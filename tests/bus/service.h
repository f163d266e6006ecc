// Services as processes of their own, for tests over a real bus daemon.
#ifndef BV_TESTS_BUS_SERVICE_H
#define BV_TESTS_BUS_SERVICE_H

#include <functional>
#include <string>
#include <sys/types.h>

// A child process that runs `body` and exits with its result (the low 8 bits of it).
class Service {
public:
    explicit Service(const std::function<int()> &body);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    void signal(int number) const;
    // Waits for its end: the exit code, or minus the signal that ended it.
    int wait();

private:
    pid_t pid_;
};

// Waits until an object of that name is on the bus of the default socket.
bool wait_for_object(const std::string &name);
// Whether it is there now.
bool object_exists(const std::string &name);
// Whether the list of all objects shows that name, which may be one that cannot be looked up.
bool object_is_listed(const std::string &name);

#endif
