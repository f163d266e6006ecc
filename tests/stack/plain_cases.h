#ifndef BV_TESTS_STACK_PLAIN_CASES_H
#define BV_TESTS_STACK_PLAIN_CASES_H

#include "sweep/sweep.h"

namespace stack {

std::vector<sweep::Case> plain_cases();

} // namespace stack

#endif
