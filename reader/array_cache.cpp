// The process-wide cache of loaded arrays: one shelf per element type, each
// ordered by capacity, so a load takes the smallest array that fits.
#include "reader/array_cache.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <map>
#include <mutex>
#include <tuple>

#include <luAnaf/luAfxsArrayCache.h>

#include "format/plane_arrays.h"
#include "platform/lu_pages.h"

namespace afxs {
namespace {

constexpr size_t kDefaultLimit = size_t{256} << 20;
// Smaller arrays are left to the allocator: zero-filling a reused one costs
// about as little as keeping it on a shelf. From 8 KiB on, taking a kept
// array saves the zero-fill of its whole size.
constexpr size_t kSmallestKept = size_t{8} << 10;

template <typename T>
using Shelf = std::multimap<size_t, std::vector<T>>;

template <typename T>
size_t bytesOf(const std::vector<T>& v) {
  return v.capacity() * sizeof(T);
}

template <typename T>
size_t largestBytes(const Shelf<T>& s) {
  return s.empty() ? 0 : bytesOf(s.rbegin()->second);
}

class ArrayCache {
public:
  ~ArrayCache();

  template <typename T>
  bool take(std::vector<T>& out, size_t count);
  template <typename T>
  void keep(std::vector<T>& v);

  bool enabled();
  void setEnabled(bool on);
  size_t limit();
  void setLimit(size_t bytes);
  size_t held();
  void clear();

private:
  template <typename T>
  Shelf<T>& shelf() {
    return std::get<Shelf<T>>(m_shelves);
  }
  // Frees arrays, the largest first, until `held` is at most `bytes`.
  void shrinkTo(size_t bytes);
  template <typename T>
  void dropLargest(Shelf<T>& s);

  std::mutex m_mutex;
  // Off until the client turns it on: a client that destroyed every data set
  // then holds no more memory than before its first load.
  bool m_enabled = false;
  size_t m_limit = kDefaultLimit;
  size_t m_held = 0;
  std::tuple<Shelf<LuVec3>, Shelf<int32_t>, Shelf<uint32_t>, Shelf<double>> m_shelves;
};

// Set once the cache is destroyed at exit: records destroyed later free their
// arrays themselves.
std::atomic<bool> g_cacheGone{false};

ArrayCache& cache() {
  static ArrayCache instance;
  return instance;
}

ArrayCache::~ArrayCache() { g_cacheGone = true; }

// The smallest kept array of at least `count` elements, unless even that one
// is more than twice as large (it then waits for a larger load).
template <typename T>
bool ArrayCache::take(std::vector<T>& out, size_t count) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Shelf<T>& s = shelf<T>();
  auto it = s.lower_bound(count);
  if (it == s.end() || it->first / 2 > count) return false;
  m_held -= bytesOf(it->second);
  out.swap(it->second);
  s.erase(it);
  return true;
}

template <typename T>
void ArrayCache::keep(std::vector<T>& v) {
  const size_t bytes = bytesOf(v);
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_enabled || bytes < kSmallestKept || bytes > m_limit - std::min(m_limit, m_held)) return;
  m_held += bytes;
  shelf<T>().emplace(v.capacity(), std::move(v));
}

bool ArrayCache::enabled() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_enabled;
}

void ArrayCache::setEnabled(bool on) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_enabled = on;
  if (!on) shrinkTo(0);
}

size_t ArrayCache::limit() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_limit;
}

void ArrayCache::setLimit(size_t bytes) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_limit = bytes;
  shrinkTo(bytes);
}

size_t ArrayCache::held() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_held;
}

void ArrayCache::clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  shrinkTo(0);
}

template <typename T>
void ArrayCache::dropLargest(Shelf<T>& s) {
  auto last = std::prev(s.end());
  m_held -= bytesOf(last->second);
  s.erase(last);
}

void ArrayCache::shrinkTo(size_t bytes) {
  while (m_held > bytes) {
    // The shelf whose largest array is the largest in bytes loses it.
    size_t largest = 0;
    std::apply([&](auto&... s) { ((largest = std::max(largest, largestBytes(s))), ...); },
               m_shelves);
    if (largest == 0) break;
    bool dropped = false;
    auto dropIfLargest = [&](auto& s) {
      if (dropped || largestBytes(s) != largest) return;
      dropLargest(s);
      dropped = true;
    };
    std::apply([&](auto&... s) { (dropIfLargest(s), ...); }, m_shelves);
  }
}

template <typename T>
void giveBack(std::vector<T>& v) noexcept {
  if (v.capacity() != 0 && !g_cacheGone) {
    try {
      cache().keep(v);
    } catch (...) {
      // No room for the shelf entry: the array is simply freed.
    }
  }
  std::vector<T>().swap(v);
}

// Arrays of fewer bytes are not faulted in ahead: their few pages are not
// worth the system calls.
constexpr size_t kSmallestPrefaulted = size_t{16} << 10;
// Runs of arrays decided without asking: after memory in use, the next 1,
// 3, 7, ... 31 arrays are not faulted in; after untouched memory, the next
// 1, 3, 7 are, unasked.
constexpr unsigned kLongestSkip = 31;
constexpr unsigned kLongestTrust = 7;

// Whether a new array's memory is worth faulting in with one call: memory
// the allocator has just taken from the system (a first load) is, memory
// it reuses is in use already (faulting it in again costs more than it
// saves). Asking costs a system call too, so the answer is trusted for a
// run of arrays that doubles while the answers agree: a load in fresh
// memory asks for one array in 8, one in reused memory for one in 32. One
// per thread: loads on several threads see their own allocations.
class PrefaultPolicy {
public:
  bool worthIt(const void* data, size_t bytes) {
    if (bytes < kSmallestPrefaulted) return false;
    if (m_unasked > 0) {
      --m_unasked;
      return m_untouched;
    }
    const bool untouched = luio::untouched(data, bytes);
    if (untouched != m_untouched) m_run = 0;
    m_untouched = untouched;
    m_run = std::min(2 * m_run + 1, untouched ? kLongestTrust : kLongestSkip);
    m_unasked = m_run;
    return untouched;
  }

private:
  bool m_untouched = false;
  unsigned m_run = 0;
  unsigned m_unasked = 0;
};

thread_local PrefaultPolicy t_prefault;

// Gives `v` room for `count` elements in a new array: its old elements are
// not kept (the caller overwrites them all), and its old array goes to the
// cache like a destroyed record's. Untouched memory is faulted in with one
// system call instead of a page fault per page during the zero-fill.
template <typename T>
void growForOverwrite(std::vector<T>& v, size_t count) {
  giveBack(v);
  v.reserve(count);
  const size_t bytes = count * sizeof(T);
  if (t_prefault.worthIt(v.data(), bytes)) luio::prefault(v.data(), bytes);
}

}  // namespace

template <typename T>
void sizeForOverwrite(std::vector<T>& v, size_t count) {
  if (v.capacity() < count && !g_cacheGone) {
    std::vector<T> kept;
    if (cache().take(kept, count)) {
      giveBack(v);
      v.swap(kept);
    }
  }
  if (v.capacity() < count) growForOverwrite(v, count);
  // Shrinking keeps the elements it leaves; only growth zero-fills.
  v.resize(count);
}

template void sizeForOverwrite(std::vector<LuVec3>&, size_t);
template void sizeForOverwrite(std::vector<int32_t>&, size_t);
template void sizeForOverwrite(std::vector<uint32_t>&, size_t);
template void sizeForOverwrite(std::vector<double>&, size_t);

void recycleArrays(LuAfxsPlane& plane) noexcept {
  forEachArray(plane, [](auto& array) noexcept { giveBack(array); });
}

}  // namespace afxs

bool luAfxsArrayCacheEnabled() { return afxs::cache().enabled(); }
void luAfxsSetArrayCacheEnabled(bool on) { afxs::cache().setEnabled(on); }
size_t luAfxsArrayCacheLimit() { return afxs::cache().limit(); }
void luAfxsSetArrayCacheLimit(size_t bytes) { afxs::cache().setLimit(bytes); }
size_t luAfxsArrayCacheBytes() { return afxs::cache().held(); }
void luAfxsClearArrayCache() { afxs::cache().clear(); }
