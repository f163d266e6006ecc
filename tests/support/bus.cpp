/* SPDX-License-Identifier: ISC */
#include "support/bus.h"

#include "support/process.h"
#include "support/wire.h"

namespace {

// What the bus answers to a look-up, up to its status; without attributes it lists everything.
// Empty when there is no bus.
std::vector<wire::Message> look_up(const wire::Bytes &attributes)
{
    std::vector<wire::Message> answers;
    wire::Client client;
    if (client.hello().empty() || !client.send(wire::message(wire::kLookup, 1, 0, attributes)))
        return answers;
    do {
        answers.push_back(client.read(20000));
    } while (answers.back().type == wire::kData);
    return answers;
}

} // namespace

bool object_exists(const std::string &name)
{
    const auto answers = look_up(wire::attribute(wire::kAttrObjectPath, wire::text(name)));
    return !answers.empty() && answers.back().status() == 0;
}

bool object_is_listed(const std::string &name)
{
    for (const wire::Message &answer : look_up({})) {
        if (answer.type == wire::kData && answer.string(wire::kAttrObjectPath) == name)
            return true;
    }
    return false;
}

bool wait_for_object(const std::string &name)
{
    return eventually([&] { return object_exists(name); });
}
