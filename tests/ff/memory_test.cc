#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "softmatte/ff/fvt_image.h"

// Array new and delete are replaced for this whole test program so that the
// order in which the library deletes its blocks can be watched. Plain
// malloc/free underneath keep the sanitizers' bookkeeping intact.
namespace {

constexpr int kMaxRecorded = 4096;
bool g_recording = false;
void* g_deleted[kMaxRecorded];
int g_deleted_count = 0;

}  // namespace

void* operator new[](std::size_t size) {
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

void operator delete[](void* p) noexcept {
  if (g_recording && p != nullptr && g_deleted_count < kMaxRecorded) {
    g_deleted[g_deleted_count++] = p;
  }
  std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept { operator delete[](p); }

namespace {

// Records the array deletions made while it lives.
class DeletionLog {
 public:
  DeletionLog() {
    g_deleted_count = 0;
    g_recording = true;
  }
  ~DeletionLog() { g_recording = false; }

  // The deleted pointers that are among blocks, in deletion order; the
  // registry's own tables are left out.
  std::vector<void*> Among(const std::vector<void*>& blocks) const {
    std::vector<void*> seen;
    for (int i = 0; i < g_deleted_count; ++i) {
      if (std::find(blocks.begin(), blocks.end(), g_deleted[i]) !=
          blocks.end()) {
        seen.push_back(g_deleted[i]);
      }
    }
    return seen;
  }
  bool Deleted(void* p) const { return !Among({p}).empty(); }
};

TEST(Allocation, BlocksComeFromArrayNewAndGoBackThroughArrayDelete) {
  DeletionLog log;
  void* a = ff::ff_alloc(37);
  std::memset(a, 1, 37);
  ff::ff_free(a);
  void* b = ff::fiAlloc(5);
  std::memset(b, 2, 5);
  ff::fiFree(b);
  EXPECT_EQ(log.Among({a, b}).size(), 2u);
  ff::ff_free(nullptr);

  // Both image-data forms must give at least stride * height bytes; ASan
  // checks the writes.
  void* c = ff::fiAllocImageData(24, 3);
  std::memset(c, 3, 72);
  ff::fiFree(c);
  void* d = ff::fiAllocImageData(5, 2, 0x311, 4);  // rows of 15 padded to 16
  std::memset(d, 4, 32);
  ff::fiFree(d);
}

TEST(Allocation, MemOwnerReleasesWhatItHolds) {
  DeletionLog log;
  void* first = ff::ff_alloc(8);
  void* second = ff::ff_alloc(8);
  {
    ff::ff_mem mem;
    EXPECT_EQ(mem.mem, nullptr);
    mem.set_mem(first);
    EXPECT_EQ(mem.mem, first);
    mem.set_mem(second);
    EXPECT_TRUE(log.Deleted(first));
    EXPECT_FALSE(log.Deleted(second));
  }
  EXPECT_TRUE(log.Deleted(second));
}

// The registry is process-wide; every test leaves it emptied.
class Registry : public ::testing::Test {
 protected:
  void TearDown() override { ff::ff_gfree_all(); }
};

TEST_F(Registry, FreesEverythingInSlotOrderAndRefillsHoles) {
  void* a = ff::ff_galloc(16);
  void* b = ff::ff_galloc(16);
  void* c = ff::ff_galloc(16);
  void* d = ff::ff_galloc(16);
  {
    DeletionLog log;
    ff::ff_gfree(b);
    ff::ff_gfree(d);
    EXPECT_TRUE(log.Deleted(b));
    EXPECT_TRUE(log.Deleted(d));
  }
  // New blocks take the lowest holes first: b's slot, then d's. (They may
  // well reuse b's and d's addresses, hence a fresh log below.)
  void* e = ff::ff_galloc(16);
  void* f = ff::ff_galloc(16);
  void* g = ff::ff_galloc(16);
  DeletionLog log;
  ff::ff_gfree_all();
  const std::vector<void*> order = {a, e, c, f, g};
  EXPECT_EQ(log.Among(order), order);
}

TEST_F(Registry, GrowsPastManyTablesAndKeepsSlotOrder) {
  // A model of the slots: what ff_gfree_all must delete, in order.
  std::vector<void*> slots;
  for (int i = 0; i < 250; ++i) slots.push_back(ff::ff_galloc(1 + i % 7));
  for (int i = 0; i < 250; i += 3) {
    ff::ff_gfree(slots[i]);
    slots[i] = nullptr;
  }
  for (int i = 0; i < 120; ++i) {
    void* p = ff::ff_galloc(3);
    auto hole = std::find(slots.begin(), slots.end(), nullptr);
    if (hole != slots.end()) {
      *hole = p;
    } else {
      slots.push_back(p);
    }
  }
  ASSERT_EQ(std::count(slots.begin(), slots.end(), nullptr), 0);
  DeletionLog log;
  ff::ff_gfree_all();
  EXPECT_EQ(log.Among(slots), slots);
}

TEST_F(Registry, FreeingAnUnregisteredBlockStillDeletesIt) {
  void* kept = ff::ff_galloc(4);
  void* stray = ff::ff_alloc(4);
  {
    DeletionLog log;
    ff::ff_gfree(nullptr);
    ff::ff_gfree(stray);
    EXPECT_TRUE(log.Deleted(stray));
    EXPECT_FALSE(log.Deleted(kept));
  }
  // No hole was made: the next block is appended after kept.
  void* next = ff::ff_galloc(4);
  DeletionLog log;
  ff::ff_gfree_all();
  const std::vector<void*> order = {kept, next};
  EXPECT_EQ(log.Among(order), order);
}

std::vector<int> g_calls;
void* g_block_seen_freed = nullptr;
bool g_block_was_freed = false;

void First() {
  g_calls.push_back(1);
  // Blocks go before any callback runs.
  g_block_was_freed = std::count(g_deleted, g_deleted + g_deleted_count,
                                 g_block_seen_freed) == 1;
}
void Late() { g_calls.push_back(4); }
void Registers() {
  g_calls.push_back(2);
  ff::ff_add_gfree_func(Late);
}
void Throws() {
  g_calls.push_back(3);
  throw 42;
}
void Fifth() { g_calls.push_back(5); }

TEST_F(Registry, RunsCallbacksInOrderIncludingOnesAddedMeanwhile) {
  g_calls.clear();
  g_block_seen_freed = ff::ff_galloc(8);
  ff::ff_add_gfree_func(First);
  ff::ff_add_gfree_func(nullptr);
  ff::ff_add_gfree_func(Registers);
  ff::ff_add_gfree_func(Throws);
  ff::ff_add_gfree_func(Fifth);
  {
    DeletionLog log;
    ff::ff_gfree_all();
  }
  // A throwing callback does not stop the rest; one registered during the
  // pass runs at its end.
  EXPECT_EQ(g_calls, (std::vector<int>{1, 2, 3, 5, 4}));
  EXPECT_TRUE(g_block_was_freed);

  // Every callback has been dropped: a second pass calls none of them.
  g_calls.clear();
  ff::ff_gfree_all();
  EXPECT_TRUE(g_calls.empty());
}

TEST_F(Registry, StartsAfreshAfterFreeingAll) {
  for (int i = 0; i < 150; ++i) ff::ff_galloc(2);
  ff::ff_add_gfree_func(Fifth);
  ff::ff_gfree_all();

  g_calls.clear();
  void* a = ff::ff_galloc(2);
  void* b = ff::ff_galloc(2);
  ff::ff_gfree(a);
  void* c = ff::ff_galloc(2);  // refills the first slot
  ff::ff_add_gfree_func(Late);
  DeletionLog log;
  ff::ff_gfree_all();
  const std::vector<void*> order = {c, b};
  EXPECT_EQ(log.Among(order), order);
  EXPECT_EQ(g_calls, std::vector<int>{4});
}

std::vector<void*> g_from_callback;
void AllocatesDuringCleanup() {
  for (int i = 0; i < 130; ++i) g_from_callback.push_back(ff::ff_galloc(1));
}

TEST_F(Registry, BlocksAllocatedByACallbackSurviveUntilTheNextPass) {
  g_from_callback.clear();
  ff::ff_galloc(1);
  ff::ff_add_gfree_func(AllocatesDuringCleanup);
  ff::ff_gfree_all();
  // More blocks on top of the ones the callback left behind; the next pass
  // must delete each exactly once (ASan reports a second deletion).
  std::vector<void*> all = g_from_callback;
  for (int i = 0; i < 80; ++i) all.push_back(ff::ff_galloc(1));
  DeletionLog log;
  ff::ff_gfree_all();
  EXPECT_EQ(log.Among(all), all);
}

}  // namespace
