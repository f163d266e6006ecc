// SPDX-License-Identifier: ISC
// Owners: each gives back what it holds at the end of its scope, however the scope is left.
//
// Nothing here needs the library: it compiles into any program.
#ifndef BV_OS_OWNED_H
#define BV_OS_OWNED_H

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

} // namespace bv

#endif
