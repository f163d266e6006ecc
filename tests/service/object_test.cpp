// SPDX-License-Identifier: ISC
// NAME.config, asked by hand: the bytes of docs/formats.md.

#include "service/sample.h"
#include "support/wire.h"

namespace {
} // namespace
