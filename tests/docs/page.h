// SPDX-License-Identifier: ISC
// The pages of docs/ as the tests read them. A block is the text between ``` lines below a line
// <!-- NAME -->.
#ifndef BV_TESTS_DOCS_PAGE_H
#define BV_TESTS_DOCS_PAGE_H

#include <cstdint>
#include <string>
#include <vector>

// A file of the source tree, by its path in it.
std::string source_file(const std::string &path);

// A block of docs/formats.md as text, with a tab for each → in it.
std::string text_block(const std::string &name);

// A block of bytes. Each line begins with an offset ("0010:"), which has to be right; then come the
// bytes, where "00 * 12" means twelve of them, and a remark after four blanks.
std::vector<uint8_t> byte_block(const std::string &name);

#endif
