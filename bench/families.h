// SPDX-License-Identifier: ISC
// A database of families of 10 parameters and 3 instances; a large gateway has 100. For programs
// that run in a private root.

#ifndef BV_BENCH_FAMILIES_H
#define BV_BENCH_FAMILIES_H

#include <string>
#include <vector>

constexpr int kFamilies = 100;
constexpr int kInstances = 3;
constexpr char kUserFile[] = "/config/work/userdata.json";

// Bytes of one image of each of these families.
constexpr unsigned kImageSize = 192;

// Writes the templates, starts the database and commits it. Aborts if any of it does not work.
// Returns the families' names: the absolute paths of their templates, so that looking for them,
// which is another program's work, is not part of a start; or, if `named`, the files' names alone.
std::vector<std::string> make_families(int count, bool named);

#endif
