#include "MemCount.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}

namespace {
std::atomic<bool> g_counting{false};
std::atomic<long long> g_current{0};
std::atomic<long long> g_peak{0};

inline void Grow(void* p) {
  if (p == nullptr || !g_counting.load(std::memory_order_relaxed)) return;
  const long long now = g_current += static_cast<long long>(malloc_usable_size(p));
  long long peak = g_peak.load(std::memory_order_relaxed);
  while (now > peak && !g_peak.compare_exchange_weak(peak, now)) {
  }
}
inline void Shrink(void* p) {
  if (p == nullptr || !g_counting.load(std::memory_order_relaxed)) return;
  g_current -= static_cast<long long>(malloc_usable_size(p));
}
}  // namespace

namespace memcount {
void Start() {
  g_current = 0;
  g_peak = 0;
  g_counting = true;
}
void Stop() { g_counting = false; }
long long Peak() { return g_peak.load(); }
long long Current() { return g_current.load(); }
}  // namespace memcount

extern "C" {
void* malloc(size_t n) {
  void* p = __libc_malloc(n);
  Grow(p);
  return p;
}
void* calloc(size_t n, size_t m) {
  void* p = __libc_calloc(n, m);
  Grow(p);
  return p;
}
void* realloc(void* old, size_t n) {
  Shrink(old);
  void* p = __libc_realloc(old, n);
  if (p == nullptr && n != 0 && old != nullptr) Grow(old);  // the old block survives
  Grow(p);
  return p;
}
void free(void* p) {
  Shrink(p);
  __libc_free(p);
}
}
