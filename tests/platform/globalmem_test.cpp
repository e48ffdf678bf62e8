#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "MVCore.h"

namespace {

class GlobalMemTest : public testing::TestWithParam<uint32_t> {};

TEST_P(GlobalMemTest, BlocksAreZeroedAndCountLocks) {
  MVHGLOBAL h = MVGlobalAlloc(GetParam(), 100);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(MVGlobalSize(h), 100u);

  auto* p = static_cast<unsigned char*>(MVGlobalLock(h));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 0) << i;
  std::memset(p, 0x5A, 100);
  EXPECT_EQ(MVGlobalLock(h), p);  // blocks never move

  EXPECT_EQ(MVGlobalHandle(p), h);
  EXPECT_EQ(MVGlobalHandle(p + 1), nullptr);

  EXPECT_NE(MVGlobalUnlock(h), 0);
  EXPECT_EQ(MVGlobalUnlock(h), 0);
  EXPECT_EQ(MVGlobalUnlock(h), 0);  // already unlocked
  EXPECT_EQ(static_cast<unsigned char*>(MVGlobalLock(h))[99], 0x5A);

  // Freed although still locked: the application owns the block.
  EXPECT_EQ(MVGlobalFree(h), nullptr);
  EXPECT_EQ(MVGlobalLock(h), nullptr);
  EXPECT_EQ(MVGlobalUnlock(h), 0);
  EXPECT_EQ(MVGlobalSize(h), 0u);
  EXPECT_EQ(MVGlobalHandle(p), nullptr);
  EXPECT_EQ(MVGlobalFree(h), h);
}

TEST_P(GlobalMemTest, ZeroSizeBlocksAreLiveBlocks) {
  MVHGLOBAL h = MVGlobalAlloc(GetParam(), 0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(MVGlobalSize(h), 0u);
  void* p = MVGlobalLock(h);
  EXPECT_NE(p, nullptr);
  EXPECT_EQ(MVGlobalHandle(p), h);
  EXPECT_EQ(MVGlobalUnlock(h), 0);
  EXPECT_EQ(MVGlobalFree(h), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Flags, GlobalMemTest,
                         testing::Values(0u, MV_GMEM_MOVEABLE,
                                         MV_GMEM_MOVEABLE | MV_GMEM_ZEROINIT));

TEST(GlobalMemHandles, FixedAndMovableHandles) {
  MVHGLOBAL fixed = MVGlobalAlloc(0, 8);
  MVHGLOBAL movable = MVGlobalAlloc(MV_GMEM_MOVEABLE, 8);
  ASSERT_NE(fixed, nullptr);
  ASSERT_NE(movable, nullptr);
  // Fixed memory may be used through its handle directly; a movable handle is no address.
  EXPECT_EQ(MVGlobalLock(fixed), fixed);
  void* p = MVGlobalLock(movable);
  EXPECT_NE(p, movable);
  EXPECT_EQ(MVGlobalFree(fixed), nullptr);
  EXPECT_EQ(MVGlobalFree(movable), nullptr);

  // A new block never takes over a freed movable handle.
  MVHGLOBAL next = MVGlobalAlloc(MV_GMEM_MOVEABLE, 8);
  EXPECT_NE(next, movable);
  EXPECT_EQ(MVGlobalSize(movable), 0u);
  EXPECT_EQ(MVGlobalFree(next), nullptr);
}

TEST(GlobalMemHandles, BogusHandlesFailCleanly) {
  int local = 0;
  MVHGLOBAL bogus = &local;
  EXPECT_EQ(MVGlobalLock(bogus), nullptr);
  EXPECT_EQ(MVGlobalUnlock(bogus), 0);
  EXPECT_EQ(MVGlobalSize(bogus), 0u);
  EXPECT_EQ(MVGlobalHandle(&local), nullptr);
  EXPECT_EQ(MVGlobalFree(bogus), bogus);
  EXPECT_EQ(MVGlobalLock(nullptr), nullptr);
  EXPECT_EQ(MVGlobalHandle(nullptr), nullptr);
  EXPECT_EQ(MVGlobalFree(nullptr), nullptr);
}

TEST(GlobalMemHandles, ConcurrentUseKeepsBlocksApart) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 500; ++i) {
        MVHGLOBAL h = MVGlobalAlloc(MV_GMEM_MOVEABLE, 16);
        auto* p = static_cast<unsigned char*>(MVGlobalLock(h));
        if (p == nullptr) {
          ++failures[t];
          continue;
        }
        std::memset(p, t + 1, 16);
        if (MVGlobalHandle(p) != h || MVGlobalSize(h) != 16 || p[15] != t + 1) ++failures[t];
        MVGlobalUnlock(h);
        if (MVGlobalFree(h) != nullptr) ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
