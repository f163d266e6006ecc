// Owners: each gives back what it holds at the end of its scope, whichever way that is left.
#ifndef BV_OS_OWNED_H
#define BV_OS_OWNED_H

#include <bv/os.h>

#include <cerrno>

namespace bv {

// Holds a handle, or None when there is nothing to give back.
template <typename Handle, Handle None, auto GiveBack>
class Owned {
public:
    explicit Owned(Handle handle) : handle_(handle) {}
    // Always inline: the handle then stays in a register.
    __attribute__((always_inline)) ~Owned()
    {
        if (handle_ != None)
            GiveBack(handle_);
    }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;

    explicit operator bool() const { return handle_ != None; }
    Handle get() const { return handle_; }
    Handle operator->() const { return handle_; }

    // Hands the handle to the caller, who gives it back from then on.
    Handle release()
    {
        const Handle handle = handle_;
        handle_ = None;
        return handle;
    }

private:
    Handle handle_;
};

// Closing is tidying up: errno still says why the call before it failed.
__attribute__((noinline)) inline void close_keeping_errno(int fd)
{
    const int error = errno;
    bv_os_close(fd);
    errno = error;
}

using Descriptor = Owned<int, -1, close_keeping_errno>;
using Stream = Owned<FILE *, nullptr, bv_os_fclose>;

// Memory of bv_os_malloc().
template <typename T>
using Block = Owned<T *, nullptr, bv_os_free>;

} // namespace bv

#endif
