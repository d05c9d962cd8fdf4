#include <gtest/gtest.h>
#include "kv_cv/kv_row_copier.h"
TEST(Smoke, Builds) { kv::Frame f(kv::FRAME_I420, kv::Size(5, 5)); EXPECT_TRUE(f.initialized()); }
