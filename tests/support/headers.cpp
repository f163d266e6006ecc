// SPDX-License-Identifier: ISC
// Nothing: carries the precompiled headers of the tests (cmake/BvTest.cmake).
