// Triangle meshes from PLY (ASCII and binary), STL (ASCII and binary) and
// OBJ files, read with assimp: every mesh of the file with its node
// transforms applied, polygons cut into triangles, points and lines left out.
//
// assimp is not written for hostile input: on some malformed files it stops
// the process on an assertion, and on a PLY header without its end_header
// line it never returns. So the tool refuses such a header itself, and on
// POSIX it runs assimp in a child process with a bound on its CPU time and
// takes the triangles back through a pipe: whatever assimp does to a file,
// the tool reports it in one line and goes on.
#include <fmt/format.h>

#include <cstring>
#include <fstream>

#if !defined(LUAFXS_WITHOUT_MESH_READER)
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <assimp/Importer.hpp>
#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#endif
#endif

#include "luafxs.h"

namespace luafxs {
namespace {

#if !defined(LUAFXS_WITHOUT_MESH_READER)

// Whether a file that starts as a PLY file ("ply" on its first line) has
// the end_header line its header must close with, within the first MiB. A
// file that is no PLY passes. Only that MiB is read, so an endless file
// (a device named by mistake) costs no more.
bool plyHeaderEnds(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string head(size_t{1} << 20, '\0');
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  const bool whole = static_cast<size_t>(in.gcount()) < head.size();
  head.resize(static_cast<size_t>(in.gcount()));
  std::string_view rest = head;
  bool first = true;
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    if (end == std::string_view::npos && !first && !whole) break;  // a line the MiB cuts
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
    if (first && line != "ply") return true;
    if (!first && line == "end_header") return true;
    first = false;
  }
  return first;
}

bool readWithAssimp(const std::string& path, MeshData& mesh, std::string& why) {
  Assimp::Importer importer;
  // Only whole triangles: no normals generated, vertices kept as stored
  // (equal vertices are merged by the cut itself).
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE,
                              aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  const aiScene* scene = importer.ReadFile(
      path, aiProcess_Triangulate | aiProcess_PreTransformVertices | aiProcess_SortByPType);
  if (scene == nullptr) {
    why = fmt::format("cannot be read as a mesh ({})", importer.GetErrorString());
    return false;
  }
  for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
    const aiMesh* in = scene->mMeshes[m];
    const uint64_t base = mesh.vertices.size();
    for (unsigned v = 0; v < in->mNumVertices; ++v)
      mesh.vertices.push_back({in->mVertices[v].x, in->mVertices[v].y, in->mVertices[v].z});
    for (unsigned f = 0; f < in->mNumFaces; ++f) {
      const aiFace& face = in->mFaces[f];
      if (face.mNumIndices != 3) continue;
      for (unsigned k = 0; k < 3; ++k) {
        if (face.mIndices[k] >= in->mNumVertices) {
          why = fmt::format("cannot be read as a mesh (a face names vertex {} of {})",
                            face.mIndices[k], in->mNumVertices);
          return false;
        }
        mesh.faces.push_back(static_cast<uint32_t>(base + face.mIndices[k]));
      }
    }
  }
  if (mesh.vertices.size() > 0xFFFFFFFFu) {
    why = "has more than 4294967295 vertices";
    return false;
  }
  return true;
}

#if !defined(_WIN32)

// CPU seconds the reader may spend on a file: the caller's `cpuSeconds`,
// else far more than assimp needs for a mesh of that size (it reads tens of
// MB a second), so that only a reader caught in a loop, or cutting a huge
// polygon into triangles (a single face of 100,000 vertices takes about a
// minute), meets the bound.
rlim_t cpuSecondsFor(const std::string& path, unsigned cpuSeconds) {
  if (cpuSeconds > 0) return cpuSeconds;
  std::error_code ec;
  const uintmax_t bytes = std::filesystem::file_size(path, ec);
  return 30 + (ec ? 0 : static_cast<rlim_t>(bytes >> 20));
}

bool writeAll(int fd, const void* data, size_t size) {
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t wrote = ::write(fd, at, size);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    at += wrote;
    size -= static_cast<size_t>(wrote);
  }
  return true;
}

// The child's side: reads the mesh and sends either 1, the two counts, the
// vertices and the indices, or 0, the reason's length and the reason.
[[noreturn]] void readAndSend(const std::string& path, int fd) {
  MeshData mesh;
  std::string why;
  bool sent = false;
  try {
    const uint8_t ok = readWithAssimp(path, mesh, why) ? 1 : 0;
    if (ok != 0) {
      const uint64_t counts[2] = {mesh.vertices.size(), mesh.faces.size()};
      sent = writeAll(fd, &ok, 1) && writeAll(fd, counts, sizeof counts) &&
             writeAll(fd, mesh.vertices.data(), mesh.vertices.size() * sizeof(LuVec3)) &&
             writeAll(fd, mesh.faces.data(), mesh.faces.size() * sizeof(uint32_t));
    } else {
      const uint64_t length = why.size();
      sent = writeAll(fd, &ok, 1) && writeAll(fd, &length, sizeof length) &&
             writeAll(fd, why.data(), why.size());
    }
  } catch (...) {
  }
  ::_exit(sent ? 0 : 1);
}

// Takes `size` bytes off the front of `bytes` into `out`; false when fewer
// are left.
bool take(std::string_view& bytes, void* out, size_t size) {
  if (bytes.size() < size) return false;
  if (size > 0) std::memcpy(out, bytes.data(), size);
  bytes.remove_prefix(size);
  return true;
}

// The parent's side: what the child sent, checked for length. `read` says
// whether the child read the mesh (else `why` holds its reason).
bool receive(std::string_view bytes, MeshData& mesh, bool& read, std::string& why) {
  uint8_t ok = 0;
  uint64_t counts[2] = {0, 0};
  if (!take(bytes, &ok, 1)) return false;
  read = ok != 0;
  if (!read) {
    if (!take(bytes, counts, sizeof(uint64_t)) || bytes.size() != counts[0]) return false;
    why = std::string(bytes);
    return true;
  }
  if (!take(bytes, counts, sizeof counts) ||
      bytes.size() != counts[0] * sizeof(LuVec3) + counts[1] * sizeof(uint32_t))
    return false;
  mesh.vertices.resize(counts[0]);
  mesh.faces.resize(counts[1]);
  take(bytes, mesh.vertices.data(), mesh.vertices.size() * sizeof(LuVec3));
  take(bytes, mesh.faces.data(), mesh.faces.size() * sizeof(uint32_t));
  return true;
}

// Runs the reader in a child process; false with the reason when it
// refused the file, stopped or was stopped.
bool readInChild(const std::string& path, MeshData& mesh, std::string& why, unsigned cpuSeconds) {
  int fds[2];
  if (::pipe(fds) != 0) return readWithAssimp(path, mesh, why);
  const rlim_t seconds = cpuSecondsFor(path, cpuSeconds);
  const pid_t pid = ::fork();
  if (pid < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    return readWithAssimp(path, mesh, why);
  }
  if (pid == 0) {
    ::close(fds[0]);
    // The parent's handlers clean up its temporaries; the child has none.
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::signal(sig, SIG_DFL);
    // What assimp prints as it stops (an assertion's text) would be a
    // second line beside the tool's one message about the file.
    const int quiet = ::open("/dev/null", O_WRONLY);
    if (quiet >= 0) ::dup2(quiet, STDERR_FILENO);
    const rlimit cpu{seconds, seconds + 5};
    ::setrlimit(RLIMIT_CPU, &cpu);
    readAndSend(path, fds[1]);
  }
  ::close(fds[1]);
  std::string bytes;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = ::read(fds[0], buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    bytes.append(buffer, static_cast<size_t>(got));
  }
  ::close(fds[0]);
  int status = 0;
  rusage usage{};
  while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    // SIGKILL is the hard bound, but also the system's answer to a reader
    // that took all memory: only the CPU time it spent tells which.
    const bool spent =
        static_cast<rlim_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) >= seconds;
    why = sig == SIGXCPU || (sig == SIGKILL && spent)
              ? fmt::format(
                    "cannot be read as a mesh (the mesh reader spent more than {} s of CPU "
                    "time on it and was stopped; --read-seconds allows more)",
                    seconds)
              : fmt::format("cannot be read as a mesh (the mesh reader stopped on it: {})",
                            ::strsignal(sig));
    return false;
  }
  bool read = false;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !receive(bytes, mesh, read, why)) {
    mesh = MeshData{};
    why = "cannot be read as a mesh (the mesh reader ended without its result)";
    return false;
  }
  return read;
}

#endif  // !_WIN32
#endif  // !LUAFXS_WITHOUT_MESH_READER

}  // namespace

bool readMesh(const std::string& path, MeshData& mesh, std::string& why, unsigned cpuSeconds) {
  mesh = MeshData{};
#if defined(LUAFXS_WITHOUT_MESH_READER) || defined(_WIN32)
  (void)cpuSeconds;
#endif
#if defined(LUAFXS_WITHOUT_MESH_READER)
  (void)path;
  why = "this build of luafxs reads no mesh files (it was built without assimp)";
  return false;
#else
  if (!plyHeaderEnds(path)) {
    why = "cannot be read as a mesh (a PLY header without its end_header line)";
    return false;
  }
#if defined(_WIN32)
  const bool read = readWithAssimp(path, mesh, why);
#else
  const bool read = readInChild(path, mesh, why, cpuSeconds);
#endif
  if (!read) return false;
  if (mesh.faces.empty()) {
    why = "holds no triangles";
    return false;
  }
  return true;
#endif
}

}  // namespace luafxs
