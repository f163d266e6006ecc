// SPDX-License-Identifier: ISC
// Events as they reach callbacks, of all types, for tests that look at what became of something.
// The dispatch thread outlives main(), so nothing here is ever destroyed.
#ifndef BV_TESTS_SUPPORT_EVENTS_H
#define BV_TESTS_SUPPORT_EVENTS_H

#include "support/process.h"

#include <bv/notifier.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Event type and payload, in the order of arrival.
using Events = std::vector<std::pair<uint32_t, std::string>>;

struct EventLog {
    std::mutex lock; // guards events
    Events events;
};

inline EventLog &event_log()
{
    static EventLog &log = *new EventLog;
    return log;
}

template <uint32_t Type>
void record_event(void *data, uint32_t length)
{
    std::lock_guard<std::mutex> guard(event_log().lock);
    event_log().events.emplace_back(Type, std::string(static_cast<char *>(data), length));
}

// Registers for every type up to this one. Registrations are permanent: once in a process.
template <uint32_t Type>
void record_events_up_to()
{
    if constexpr (Type > 0)
        record_events_up_to<Type - 1>();
    bv_notifier_reg(Type, record_event<Type>);
}

inline Events recorded_events()
{
    std::lock_guard<std::mutex> guard(event_log().lock);
    return event_log().events;
}

inline void forget_events()
{
    std::lock_guard<std::mutex> guard(event_log().lock);
    event_log().events.clear();
}

// Waits for an event that the caller has posted after all others, and returns those others.
inline Events events_before(uint32_t type, const std::string &payload)
{
    const std::pair<uint32_t, std::string> end(type, payload);
    EXPECT_TRUE(eventually([&] {
        const Events now = recorded_events();
        return !now.empty() && now.back() == end;
    }));
    Events arrived = recorded_events();
    if (!arrived.empty() && arrived.back() == end)
        arrived.pop_back();
    return arrived;
}

#endif
