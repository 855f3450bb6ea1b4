#include <gtest/gtest.h>

#include "wex_test_util.h"

extern "C" uint32_t wex_c_header_check(wex_handle *h);

TEST(WexCHeader, UsableFromC) {
  auto h = wex_test::make_handle();
  EXPECT_EQ(wex_c_header_check(h.get()), 4u + 0u + 272u);
  EXPECT_EQ(h->sttr_profile, nullptr);
}
