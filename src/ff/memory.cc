#include <cstddef>
#include <memory>

#include "ff/image_layout.h"
#include "softmatte/ff/fvt_image.h"

namespace ff {

namespace {

// Tables grow by a fixed number of slots rather than doubling: the registry
// holds a handful of long-lived blocks, never thousands.
constexpr int kGrowth = 100;

using CleanupFn = void (*)();

// Process-wide and deliberately unsynchronised: callers keep to one thread.
struct Registry {
  void** entries = nullptr;
  int entry_count = 0;  // used slots, holes included
  int hole_count = 0;
  int entry_capacity = 0;
  CleanupFn* cleanups = nullptr;
  int cleanup_count = 0;
  int cleanup_capacity = 0;
};

Registry& registry() {
  static Registry r;
  return r;
}

// Appends value to a table of count used slots, growing it by kGrowth slots
// when it is full. A missing table is treated as full, whatever its recorded
// capacity says: ff_gfree_all drops the cleanup table but keeps its capacity.
template <typename T>
void append(T*& table, int& count, int& capacity, T value) {
  if (table == nullptr || count >= capacity) {
    int grown = capacity + kGrowth;
    // ff_gfree_all zeroes the entry capacity even when callbacks refilled
    // the table; never shrink below what is in use.
    if (grown <= count) grown = count + kGrowth;
    T* bigger = new T[grown];
    for (int i = 0; i < count && table != nullptr; ++i) bigger[i] = table[i];
    delete[] table;
    table = bigger;
    capacity = grown;
  }
  table[count++] = value;
}

}  // namespace

void* ff_alloc(unsigned long size) { return new unsigned char[size]; }

void ff_free(void* p) { delete[] static_cast<unsigned char*>(p); }

void* fiAlloc(unsigned int size) { return ff_alloc(size); }

void fiFree(void* p) { ff_free(p); }

void* fiAllocImageData(int step, int height) {
  // The size is a 32-bit product, sign-extended on its way to ff_alloc.
  return ff_alloc(static_cast<unsigned long>(layout::wrap_mul(step, height)));
}

void* fiAllocImageData(int width, int height, int type, int align) {
  return fiAllocImageData(layout::stride(type, width, align), height);
}

void* ff_galloc(unsigned long size) {
  // Owned here until the registry holds it, so a failing table growth does
  // not leak the block.
  std::unique_ptr<unsigned char[]> block(new unsigned char[size]);
  Registry& r = registry();
  if (r.hole_count != 0) {
    for (int i = 0; i < r.entry_count; ++i) {
      if (r.entries[i] == nullptr) {
        r.entries[i] = block.get();
        --r.hole_count;
        return block.release();
      }
    }
  }
  append(r.entries, r.entry_count, r.entry_capacity,
         static_cast<void*>(block.get()));
  return block.release();
}

void ff_gfree(void* p) {
  if (p == nullptr) return;
  Registry& r = registry();
  for (int i = 0; i < r.entry_count; ++i) {
    if (r.entries[i] == p) {
      r.entries[i] = nullptr;
      ++r.hole_count;
      break;
    }
  }
  ff_free(p);
}

void ff_add_gfree_func(void (*fn)()) {
  if (fn == nullptr) return;
  Registry& r = registry();
  append(r.cleanups, r.cleanup_count, r.cleanup_capacity, fn);
}

void ff_gfree_all() {
  Registry& r = registry();
  for (int i = 0; i < r.entry_count; ++i) ff_free(r.entries[i]);
  delete[] r.entries;
  r.entries = nullptr;
  r.hole_count = 0;
  r.entry_count = 0;
  r.entry_capacity = 0;

  // Count and table are re-read on every turn: a callback may register
  // further callbacks, which then run in this same pass.
  for (int i = 0; i < r.cleanup_count; ++i) {
    const CleanupFn fn = r.cleanups[i];
    if (fn == nullptr) continue;
    try {
      fn();
    } catch (...) {
      // One failing cleanup must not keep the others from running.
    }
  }
  delete[] r.cleanups;
  r.cleanups = nullptr;
  r.cleanup_count = 0;
  r.entry_capacity = 0;
}

void enable_memory_leak_report(bool /*enable*/) {}

ff_mem::ff_mem() : mem(nullptr) {}

ff_mem::~ff_mem() { ff_free(mem); }

void ff_mem::set_mem(void* p) {
  ff_free(mem);
  mem = p;
}

}  // namespace ff
