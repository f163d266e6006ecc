// Every call that the library makes to the C library, libcrypto and json-c and that can fail, made
// to fail on purpose: one at a time, the n-th of a process.
//
// The program defines these functions itself, so that they come in front of the real ones. Only
// calls out of our own code count (the library, the stand-ins built with it, and this program,
// which is where a tail call of a plain wrapper seems to come from): json-c and libcrypto do not
// survive every refused allocation of their own, and nothing here could cure that.
#ifndef BV_TESTS_SWEEP_FAULTS_H
#define BV_TESTS_SWEEP_FAULTS_H

#include <atomic>
#include <cstddef>
#include <vector>

namespace sweep {

// One way in which one function fails.
class Fault {
public:
    explicit Fault(const char *name);

    const char *name() const { return name_; }
    int calls() const { return calls_; }

    // For the function in front: counts a call that came from `caller` and says whether it fails.
    bool hits(const void *caller);

private:
    const char *name_;
    std::atomic<int> calls_{0};
};

// All of them, in the order of the source.
const std::vector<Fault *> &all_faults();

// From now on the nth call of `fault` (null: none) fails and calls are counted, until disarm().
void arm(const Fault *fault, int nth);
void disarm();
// Whether the fault was met since arm().
bool happened();

// Blocks taken by our own code since arm() and not given back. Not to be asked in a sanitised
// build, whose run-time does not survive a free() of the program's.
int blocks_in_use();

// Answers of devices that this machine lacks. An ioctl goes to the handler first, which says with
// -2 that it is not concerned.
extern int (*g_ioctl_answer)(int fd, unsigned long request, void *argument);
// Whether a netlink socket becomes one of the kernel's user-to-user protocol.
extern bool g_redirect_netlink;

// Closes a descriptor without any of the above.
void give_back(int fd);

} // namespace sweep

#endif
