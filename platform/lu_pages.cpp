#include "platform/lu_pages.h"

#include <atomic>
#include <cerrno>
#include <cstdint>

#if !defined(_WIN32)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace luio {

#if defined(_WIN32)

bool untouched(const void* data, size_t size) {
  (void)data;
  (void)size;
  return false;
}

bool prefault(void* data, size_t size) {
  (void)data;
  (void)size;
  return false;
}

#else

namespace {

// The whole pages inside [data, data + size): false when there are none.
bool wholePages(const void* data, size_t size, uintptr_t& first, uintptr_t& end) {
  static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t start = reinterpret_cast<uintptr_t>(data);
  if (page == 0 || size > UINTPTR_MAX - start) return false;
  first = (start + page - 1) & ~(page - 1);
  end = (start + size) & ~(page - 1);
  return first < end;
}

// Off for good once the system refused the call (a kernel before 5.14).
std::atomic<bool> g_populateWorks{true};

}  // namespace

bool untouched(const void* data, size_t size) {
  uintptr_t first = 0, end = 0;
  if (!g_populateWorks || !wholePages(data, size, first, end)) return false;
  unsigned char resident = 0;
  static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const int callerErrno = errno;
  const bool asked = ::mincore(reinterpret_cast<void*>(first), page, &resident) == 0;
  errno = callerErrno;
  return asked && (resident & 1) == 0;
}

bool prefault(void* data, size_t size) {
#if defined(MADV_POPULATE_WRITE)
  uintptr_t first = 0, end = 0;
  if (!g_populateWorks || !wholePages(data, size, first, end)) return false;
  // A refusal is no error of the caller's: errno stays as it was.
  const int callerErrno = errno;
  if (::madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE) == 0) return true;
  if (errno == EINVAL) g_populateWorks = false;
  errno = callerErrno;
  return false;
#else
  (void)data;
  (void)size;
  return false;
#endif
}

#endif

}  // namespace luio
