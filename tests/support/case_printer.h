// Lets gtest show the cases of parameterised tests by their names alone, which say what each
// case is, rather than dumping their records as raw bytes. A test file brings it into the
// namespace of its case records with `using tarnheap::testing::operator<<;`.
#pragma once

#include <ostream>
#include <type_traits>

namespace tarnheap::testing {

template <class test_case>
requires(std::is_class_v<test_case>&& std::is_aggregate_v<test_case>) std::ostream& operator<<(
    std::ostream& out, const test_case&) {
    return out << "(as the test's name says)";
}

}  // namespace tarnheap::testing
