// SPDX-License-Identifier: ISC
// A parsed JSON tree, given back at the end of its scope.
#ifndef BV_BUS_JSON_TREE_H
#define BV_BUS_JSON_TREE_H

#include <bv/ubus.h>

#include "os/owned.h"

namespace bv {

using JsonTree = Owned<json_object *, nullptr, bv_json_object_put>;

} // namespace bv

#endif
