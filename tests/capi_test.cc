#include "le/le.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "le/le_error.h"

TEST(ErrorConvention, FreshThreadIsEmptyAndFamiliesArePerThread) {
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(le_host_kp_rows(), 21);
  le::err::set(le::err::Family::Ctx, "main failure");
  std::string seen_in_thread = "unset";
  std::thread t([&] {
    seen_in_thread = le_last_error();
    le::err::set(le::err::Family::Ctx, "thread failure");
  });
  t.join();
  EXPECT_EQ(seen_in_thread, "");
  EXPECT_STREQ(le_last_error(), "main failure");
  EXPECT_EQ(le::err::slot(le::err::Family::Utt), "");
  le::err::clear(le::err::Family::Ctx);
  EXPECT_STREQ(le_last_error(), "");
}

TEST(ErrorConvention, GuardStoresThrownMessageForm) {
  int r = le::err::guard(le::err::Family::Ctx, "le_fn", -1,
                         []() -> int { throw std::runtime_error("boom"); });
  EXPECT_EQ(r, -1);
  EXPECT_STREQ(le_last_error(), "le_fn: boom");
  r = le::err::guard(le::err::Family::Ctx, "le_fn", -1, [] { return 7; });
  EXPECT_EQ(r, 7);
}
