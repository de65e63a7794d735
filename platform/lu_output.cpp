// Outputs of the front-ends: the check before anything is written, the
// temporary beside the final name, the flush and rename that make the file
// appear whole, and the process-wide list of live temporaries that a signal
// handler removes.
#include <luAnaf/luAfxsOutput.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#endif

#include "platform/lu_io.h"

namespace {

#if defined(_WIN32)
using NativeChar = wchar_t;
std::wstring native(const std::wstring& path) { return path; }
#else
using NativeChar = char;
std::string native(const std::wstring& path) { return luio::narrowPath(path); }
#endif
using NativeString = std::basic_string<NativeChar>;

// ---- The process-wide list of live temporaries ------------------------------------
// Fixed slots holding heap copies of native paths, published and withdrawn
// atomically, so that a signal handler only loads pointers and unlinks.

constexpr size_t kSlots = 256;
std::atomic<NativeChar*> g_pending[kSlots];

NativeChar* copyOf(const NativeString& path) {
  auto* out = static_cast<NativeChar*>(std::malloc((path.size() + 1) * sizeof(NativeChar)));
  if (out == nullptr) return nullptr;
  std::memcpy(out, path.c_str(), (path.size() + 1) * sizeof(NativeChar));
  return out;
}

// Publishes a path; the slot index, or kSlots when every slot is taken (the
// path is then only removed by its owner).
size_t publish(const NativeString& path) {
  NativeChar* copy = copyOf(path);
  if (copy == nullptr) return kSlots;
  for (size_t i = 0; i < kSlots; ++i) {
    NativeChar* expected = nullptr;
    if (g_pending[i].compare_exchange_strong(expected, copy)) return i;
  }
  std::free(copy);
  return kSlots;
}

void withdraw(size_t slot) {
  if (slot >= kSlots) return;
  std::free(g_pending[slot].exchange(nullptr));
}

void removeNative(const NativeChar* path) {
#if defined(_WIN32)
  DeleteFileW(path);
#else
  ::unlink(path);
#endif
}

// ---- Paths --------------------------------------------------------------------------

bool isSeparator(wchar_t c) {
#if defined(_WIN32)
  return c == L'/' || c == L'\\';
#else
  return c == L'/';
#endif
}

// The folder part of a path, "." for a bare name.
std::wstring folderOf(const std::wstring& path) {
  size_t end = path.size();
  while (end > 0 && !isSeparator(path[end - 1])) --end;
  if (end == 0) return L".";
  size_t keep = end;
  while (keep > 1 && isSeparator(path[keep - 1])) --keep;
  return path.substr(0, keep);
}

std::wstring nameOf(const std::wstring& path) {
  size_t end = path.size();
  while (end > 0 && !isSeparator(path[end - 1])) --end;
  return path.substr(end);
}

// The path up to and including its last separator; empty for a bare name.
std::wstring folderPrefix(const std::wstring& path) {
  return path.substr(0, path.size() - nameOf(path).size());
}

// Six characters that differ between calls and processes.
std::wstring uniqueTag() {
  static std::atomic<uint64_t> counter{0};
  uint64_t seed = static_cast<uint64_t>(std::time(nullptr)) * 6364136223846793005ull;
#if defined(_WIN32)
  seed ^= static_cast<uint64_t>(GetCurrentProcessId()) << 20;
  seed ^= static_cast<uint64_t>(GetTickCount64());
#else
  seed ^= static_cast<uint64_t>(::getpid()) << 20;
  seed ^= static_cast<uint64_t>(std::clock());
#endif
  seed += counter.fetch_add(1) * 0x9E3779B97F4A7C15ull;
  seed ^= seed >> 29;
  seed *= 0xBF58476D1CE4E5B9ull;
  seed ^= seed >> 32;
  static const wchar_t kChars[] = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::wstring out;
  for (int i = 0; i < 6; ++i) {
    out.push_back(kChars[seed % 62]);
    seed /= 62;
  }
  return out;
}

LuAfxsOutputProblem problemOf(int errnum, const std::wstring& reason) {
  LuAfxsOutputProblem p;
  p.errnum = errnum;
  p.reason = reason;
  return p;
}

LuAfxsOutputProblem systemProblem(int errnum, const std::wstring& what) {
  return problemOf(errnum, what + L" (" + luio::systemErrorText(errnum) + L")");
}

// ---- What a path is -------------------------------------------------------------------

enum class Kind { Missing, Regular, Directory, Other, Unreachable };

struct Identity {
  Kind kind = Kind::Missing;
  bool readOnly = false;
  uint64_t device = 0;
  uint64_t index = 0;
  int errnum = 0;  // for Unreachable
};

#if defined(_WIN32)

Identity identify(const std::wstring& path) {
  Identity id;
  DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    DWORD e = GetLastError();
    id.kind =
        e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND ? Kind::Missing : Kind::Unreachable;
    id.errnum = e == ERROR_ACCESS_DENIED ? EACCES : ENOENT;
    return id;
  }
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
    id.kind = Kind::Directory;
    return id;
  }
  id.readOnly = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
  HANDLE h = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    id.kind = Kind::Other;
    return id;
  }
  BY_HANDLE_FILE_INFORMATION info;
  bool disk = GetFileType(h) == FILE_TYPE_DISK;
  if (disk && GetFileInformationByHandle(h, &info)) {
    id.kind = Kind::Regular;
    id.device = info.dwVolumeSerialNumber;
    id.index = (uint64_t{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
  } else {
    id.kind = Kind::Other;
  }
  CloseHandle(h);
  return id;
}

#else

Identity identify(const std::wstring& path) {
  Identity id;
  struct stat st;
  if (::stat(luio::narrowPath(path).c_str(), &st) != 0) {
    id.errnum = errno;
    id.kind = errno == ENOENT ? Kind::Missing : Kind::Unreachable;
    return id;
  }
  id.kind = S_ISREG(st.st_mode)   ? Kind::Regular
            : S_ISDIR(st.st_mode) ? Kind::Directory
                                  : Kind::Other;
  id.readOnly = (st.st_mode & S_IWUSR) == 0;
  id.device = static_cast<uint64_t>(st.st_dev);
  id.index = static_cast<uint64_t>(st.st_ino);
  return id;
}

#endif

bool sameFile(const Identity& a, const Identity& b) {
  return a.kind == Kind::Regular && b.kind == Kind::Regular && a.device == b.device &&
         a.index == b.index;
}

// ---- Flushing, renaming, creating ------------------------------------------------------

#if defined(_WIN32)

bool createExclusive(const std::wstring& path, int& errnum) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                         nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD e = GetLastError();
    errnum = e == ERROR_FILE_EXISTS || e == ERROR_ALREADY_EXISTS ? EEXIST
             : e == ERROR_PATH_NOT_FOUND                         ? ENOENT
                                                                 : EACCES;
    return false;
  }
  CloseHandle(h);
  return true;
}

bool syncFile(const std::wstring& path, int& errnum) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    errnum = GetLastError() == ERROR_FILE_NOT_FOUND ? ENOENT : EACCES;
    return false;
  }
  bool ok = FlushFileBuffers(h) != 0;
  CloseHandle(h);
  if (!ok) errnum = EIO;
  return ok;
}

// The final file's read-only attribute is not carried over: a read-only
// final path is refused before anything is written.
void keepAttributes(const std::wstring&, const std::wstring&) {}

bool renameOver(const std::wstring& from, const std::wstring& to, int& errnum) {
  if (MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
    return true;
  errnum = GetLastError() == ERROR_ACCESS_DENIED ? EACCES : EIO;
  return false;
}

// MOVEFILE_WRITE_THROUGH already waits for the move to reach the disk.
void syncFolder(const std::wstring&) {}

#else

bool createExclusive(const std::wstring& path, int& errnum) {
  int fd = ::open(luio::narrowPath(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    errnum = errno;
    return false;
  }
  ::close(fd);
  return true;
}

bool syncFile(const std::wstring& path, int& errnum) {
  int fd = ::open(luio::narrowPath(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    errnum = errno;
    return false;
  }
  bool ok = ::fsync(fd) == 0;
  if (!ok) errnum = errno;
  ::close(fd);
  return ok;
}

// A replaced file keeps its permission bits and, where the process may, its owner.
void keepAttributes(const std::wstring& temp, const std::wstring& final) {
  struct stat st;
  if (::stat(luio::narrowPath(final).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  std::string t = luio::narrowPath(temp);
  if (::chown(t.c_str(), st.st_uid, st.st_gid) != 0) {
    // Not permitted for another owner: the file becomes the caller's.
  }
  ::chmod(t.c_str(), st.st_mode & 07777);
}

bool renameOver(const std::wstring& from, const std::wstring& to, int& errnum) {
  if (::rename(luio::narrowPath(from).c_str(), luio::narrowPath(to).c_str()) == 0) return true;
  errnum = errno;
  return false;
}

void syncFolder(const std::wstring& folder) {
  int fd = ::open(luio::narrowPath(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

#endif

bool exists(const std::wstring& path) { return identify(path).kind != Kind::Missing; }

}  // namespace

// ---- Check and resolve ------------------------------------------------------------------

bool luAfxsCheckOutput(const std::wstring& output, const std::vector<std::wstring>& inputs,
                       LuAfxsOutputProblem& problem) {
  if (output.empty()) {
    problem = problemOf(EINVAL, L"is an empty path");
    return false;
  }
  Identity out = identify(output);
  for (const std::wstring& input : inputs) {
    if (sameFile(out, identify(input))) {
      problem = problemOf(EEXIST, L"is an input of this command");
      return false;
    }
  }
  switch (out.kind) {
    case Kind::Directory:
      problem = problemOf(EISDIR, L"is a directory");
      return false;
    case Kind::Other:
      problem = problemOf(EINVAL, L"is not a regular file");
      return false;
    case Kind::Unreachable:
      problem = systemProblem(out.errnum, L"cannot be reached");
      return false;
    case Kind::Regular:
      if (out.readOnly) {
        problem = problemOf(EACCES, L"is read-only");
        return false;
      }
      return true;
    case Kind::Missing:
      break;
  }
  // A new file: its folder (that of the link's target for a dangling link) must exist.
  Identity folder = identify(folderOf(luAfxsResolveOutput(output)));
  if (folder.kind != Kind::Directory) {
    problem = problemOf(ENOENT, L"its directory does not exist");
    return false;
  }
  return true;
}

std::wstring luAfxsResolveOutput(const std::wstring& output) {
#if defined(_WIN32)
  return output;
#else
  std::wstring path = output;
  for (int depth = 0; depth < 40; ++depth) {
    std::string narrow = luio::narrowPath(path);
    struct stat st;
    if (::lstat(narrow.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
    std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : 256) + 1, '\0');
    ssize_t n = ::readlink(narrow.c_str(), target.data(), target.size());
    if (n < 0) return path;
    target.resize(static_cast<size_t>(n));
    std::wstring next = luio::widen(target);
    if (next.empty()) return path;
    if (!isSeparator(next.front())) next = folderPrefix(path) + next;
    path = next;
  }
  return path;
#endif
}

// ---- The output file -------------------------------------------------------------------------

struct LuAfxsOutputFile::Impl {
  std::wstring finalPath;
  std::wstring tempPath;
  bool ok = false;
  bool committed = false;
  LuAfxsOutputProblem creation;
  size_t slot = kSlots;
  std::vector<std::wstring> companions;
  std::vector<size_t> companionSlots;

  void discard() {
    withdraw(slot);
    slot = kSlots;
    for (size_t s : companionSlots) withdraw(s);
    companionSlots.clear();
    if (ok && !committed) removeNative(native(tempPath).c_str());
    for (const std::wstring& c : companions) removeNative(native(c).c_str());
    companions.clear();
  }
};

LuAfxsOutputFile::LuAfxsOutputFile(const std::wstring& finalPath) : m_impl(new Impl) {
  m_impl->finalPath = luAfxsResolveOutput(finalPath);
  const std::wstring prefix = folderPrefix(m_impl->finalPath);
  int errnum = 0;
  for (int attempt = 0; attempt < 64; ++attempt) {
    m_impl->tempPath = prefix + L"." + nameOf(m_impl->finalPath) + L"." + uniqueTag() + L".tmp";
    // Listed before it exists, so that no signal can leave it behind.
    m_impl->slot = publish(native(m_impl->tempPath));
    if (createExclusive(m_impl->tempPath, errnum)) {
      m_impl->ok = true;
      return;
    }
    withdraw(m_impl->slot);
    m_impl->slot = kSlots;
    if (errnum != EEXIST) break;
  }
  m_impl->creation = systemProblem(errnum, L"its temporary file cannot be created");
}

LuAfxsOutputFile::~LuAfxsOutputFile() {
  m_impl->discard();
  delete m_impl;
}

const std::wstring& LuAfxsOutputFile::finalPath() const { return m_impl->finalPath; }
const std::wstring& LuAfxsOutputFile::tempPath() const { return m_impl->tempPath; }
bool LuAfxsOutputFile::ok() const { return m_impl->ok; }
bool LuAfxsOutputFile::committed() const { return m_impl->committed; }
const LuAfxsOutputProblem& LuAfxsOutputFile::creationProblem() const { return m_impl->creation; }

void LuAfxsOutputFile::addCompanion(const std::wstring& path) {
  if (m_impl->companions.size() >= 4) return;
  m_impl->companions.push_back(path);
  m_impl->companionSlots.push_back(publish(native(path)));
}

bool LuAfxsOutputFile::commit(LuAfxsOutputProblem& problem) {
  Impl& d = *m_impl;
  if (d.committed) return true;
  if (!d.ok) {
    problem = d.creation;
    return false;
  }
  int errnum = 0;
  bool done = false;
  if (!exists(d.tempPath)) {
    problem = problemOf(ENOENT, L"its temporary file is gone (the write failed)");
  } else if (!syncFile(d.tempPath, errnum)) {
    problem = systemProblem(errnum, L"cannot be flushed to disk");
  } else {
    keepAttributes(d.tempPath, d.finalPath);
    if (!renameOver(d.tempPath, d.finalPath, errnum))
      problem = systemProblem(errnum, L"cannot be moved into place");
    else
      done = true;
  }
  if (!done) {
    d.discard();
    d.ok = false;
    d.creation = problem;
    return false;
  }
  d.committed = true;
  syncFolder(folderOf(d.finalPath));
  d.discard();
  return true;
}

void luAfxsRemovePendingOutputs() {
  for (size_t i = 0; i < kSlots; ++i) {
    NativeChar* path = g_pending[i].load();
    if (path != nullptr) removeNative(path);
  }
}
