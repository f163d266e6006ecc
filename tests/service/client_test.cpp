// SPDX-License-Identifier: ISC
// The caller's half.

#include "service/sample.h"

namespace {
} // namespace
