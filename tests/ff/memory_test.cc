#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#include "softmatte/ff/fvt_image.h"

// Array new and delete are replaced for this whole test program so that the
// order in which the library deletes its blocks can be watched. Plain
// malloc/free underneath keep the sanitizers' bookkeeping intact.
namespace {

bool g_recording = false;
std::vector<void*> g_deleted;  // grows through plain new, not array new

}  // namespace

void* operator new[](std::size_t size) {
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

void operator delete[](void* p) noexcept {
  if (g_recording && p != nullptr) g_deleted.push_back(p);
  std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept { operator delete[](p); }

namespace {

// The deletions of blocks among `blocks` made by f, in order; the
// registry's own tables are left out.
template <typename F>
std::vector<void*> DeletedAmong(const std::vector<void*>& blocks, F f) {
  g_deleted.clear();
  g_recording = true;
  f();
  g_recording = false;
  std::vector<void*> seen;
  for (void* p : g_deleted)
    if (std::count(blocks.begin(), blocks.end(), p)) seen.push_back(p);
  return seen;
}

std::vector<int> g_calls;
void* g_block = nullptr;
bool g_block_gone_first = false;

// A model of the slots, grown past several tables: ff_gfree leaves holes
// that new blocks take lowest first; ff_gfree_all frees in slot order, then
// runs the callbacks.
TEST(Registry, FreesInSlotOrderRefillingHolesThenRunsCallbacks) {
  std::vector<void*> slots;
  for (int i = 0; i < 250; ++i) slots.push_back(ff::ff_galloc(1 + i % 7));
  for (int i = 0; i < 250; i += 3) ff::ff_gfree(slots[i]), slots[i] = nullptr;
  for (int i = 0; i < 120; ++i) {
    auto hole = std::find(slots.begin(), slots.end(), nullptr);
    *(hole == slots.end() ? slots.insert(hole, nullptr) : hole) =
        ff::ff_galloc(3);
  }
  // Blocks go back through array delete; an unregistered one given to
  // ff_gfree is still deleted, and makes no hole.
  void *a = ff::ff_alloc(37), *b = ff::fiAlloc(5), *stray = ff::ff_alloc(4);
  const auto frees = [&] {
    ff::ff_free(a), ff::fiFree(b), ff::ff_free(nullptr), ff::ff_gfree(stray);
  };
  EXPECT_EQ(DeletedAmong({a, b, stray, slots[0]}, frees),
            (std::vector<void*>{a, b, stray}));
  slots.push_back(g_block = ff::ff_galloc(4));
  // Blocks go before any callback runs; a throwing callback does not stop
  // the rest; one registered during the pass runs at its end; every
  // callback is dropped afterwards.
  ff::ff_add_gfree_func([] {
    g_calls.push_back(1);
    g_block_gone_first =
        std::count(g_deleted.begin(), g_deleted.end(), g_block) == 1;
  });
  ff::ff_add_gfree_func(nullptr);
  ff::ff_add_gfree_func([] {
    g_calls.push_back(2);
    ff::ff_add_gfree_func([] { g_calls.push_back(4); });
  });
  ff::ff_add_gfree_func([] { g_calls.push_back(3), throw 42; });
  ff::ff_add_gfree_func([] { g_calls.push_back(5); });
  EXPECT_EQ(DeletedAmong(slots, ff::ff_gfree_all), slots);
  EXPECT_TRUE(g_block_gone_first);
  EXPECT_EQ(g_calls, (std::vector<int>{1, 2, 3, 5, 4}));
  g_calls.clear();
  ff::ff_gfree_all();
  EXPECT_TRUE(g_calls.empty());
}

}  // namespace
