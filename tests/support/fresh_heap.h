// Gives a test a heap as the process had it at load: the state zeroed, the region and the
// zeroed region released, the platform seams cleared.
#pragma once

#include <gtest/gtest.h>

#include "state/heap_state.h"

namespace tarnheap::testing {

void reset_heap();

// Initialises a fresh heap by a first request and checks that it became ready.
void start_heap();

class fresh_heap : public ::testing::Test {
  protected:
    void SetUp() override { reset_heap(); }
    void TearDown() override { reset_heap(); }
};

}  // namespace tarnheap::testing
