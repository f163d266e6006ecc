// SPDX-License-Identifier: ISC
// A program that loads the library by hand and closes the handle again, as services with plug-ins
// do, while a thread of the library runs.

#include <bv/notifier.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

namespace {

sem_t g_came;

void on_event(void *, uint32_t)
{
    sem_post(&g_came);
}

#define FIND(library, name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))

} // namespace

TEST(Unload, EventsAreDeliveredAfterTheHandleWasClosed)
{
    sem_init(&g_came, 0, 0);
    void *library = dlopen(BV_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    auto *init = FIND(library, bv_notifier_init);
    auto *reg = FIND(library, bv_notifier_reg);
    auto *send = FIND(library, bv_notifier_send);
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(reg(1, on_event), 0);
    ASSERT_EQ(send(1, "x", 1), 0);
    sem_wait(&g_came);

    ASSERT_EQ(dlclose(library), 0);
    // Asked for before anything of it is used: what is gone would end this program.
    ASSERT_NE(dlopen(BV_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(send(1, "y", 1), 0);
    sem_wait(&g_came);
}
