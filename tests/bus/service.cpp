#include "bus/service.h"

#include "bus/wire.h"
#include "support/process.h"

#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int connect_to_bus()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/var/run/ubus/ubus.sock");
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0)
        return fd;
    close(fd);
    return -1;
}

// What the bus answers to a look-up, up to its status; without attributes it lists everything.
// Empty when there is no bus.
std::vector<wire::Message> look_up(const wire::Bytes &attributes)
{
    std::vector<wire::Message> answers;
    const int fd = connect_to_bus();
    if (fd < 0)
        return answers;
    wire::receive_message(fd); // hello
    wire::send_message(fd, {wire::kLookup, 1, 0, attributes});
    do {
        answers.push_back(wire::receive_message(fd));
    } while (answers.back().type == wire::kData);
    close(fd);
    return answers;
}

} // namespace

Service::Service(const std::function<int()> &body) : pid_(fork())
{
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(body() & 0xff);
}

Service::~Service()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    wait();
}

void Service::signal(int number) const
{
    if (pid_ > 0)
        kill(pid_, number);
}

int Service::wait()
{
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_)
        return -1000;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool object_exists(const std::string &name)
{
    const auto answers = look_up(wire::attribute(wire::kAttrObjectPath, wire::text(name)));
    return !answers.empty() && answers.back().type == wire::kStatus &&
           answers.back().number(wire::kAttrStatus) == 0;
}

bool object_is_listed(const std::string &name)
{
    for (const wire::Message &answer : look_up({})) {
        if (answer.type == wire::kData && answer.payload(wire::kAttrObjectPath) == wire::text(name))
            return true;
    }
    return false;
}

bool wait_for_object(const std::string &name)
{
    return eventually([&] { return object_exists(name); });
}
