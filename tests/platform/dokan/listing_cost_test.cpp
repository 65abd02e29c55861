// The work of listing a folder grows with the folder, not with its square:
// the layer's allocations while `ls -l` reads a large folder, counted by
// this test program's own operator new (the drive runs in this process).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "mounted_drive_test.h"

namespace {

std::atomic<bool> gCounting{false};
std::atomic<size_t> gBytes{0};

}  // namespace

// Out of line, so that the compiler never pairs an inlined malloc with a
// delete of its own.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (gCounting.load(std::memory_order_relaxed)) gBytes.fetch_add(size, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace qbtest {
namespace {

class ListingCost : public MountedDriveTest {};

TEST_F(ListingCost, ReadingAFolderAllocatesInProportionToItsSize) {
  constexpr int kEntries = 10000;
  ASSERT_EQ(0, Sh("mkdir " + At("many")));
  for (int i = 0; i < kEntries; ++i)
    ASSERT_TRUE(Fs().PutFile("\\many\\entry-" + std::to_string(100000 + i) + ".jpg", "x"));
  std::string out;
  gBytes = 0;
  gCounting = true;
  const int rc = Sh("ls -l " + At("many") + " | wc -l", &out);
  gCounting = false;
  ASSERT_EQ(0, rc);
  EXPECT_EQ(std::to_string(kEntries + 1) + "\n", out);  // with the "total" line
  // The file system's listing, the layer's one copy of it and the nodes of
  // the entries take a few hundred bytes each; a copy of the whole listing
  // per reply of the kernel (a few dozen entries each) takes far more.
  EXPECT_LT(gBytes.load(), size_t{3072} * kEntries) << gBytes.load() << " bytes";
}

}  // namespace
}  // namespace qbtest
