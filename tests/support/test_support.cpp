#include "support/test_support.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <cstdlib>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace lutest {

SinkCapture::SinkCapture() {
  luIoFaultDisarm();
  m_prevError = luEnvSetErrorSink([this](const LuErrorReport& r) { m_reports.push_back(r); });
  m_prevLog = luEnvSetLogSink([this](const LuLogRecord& r) { m_logs.push_back(r); });
}

SinkCapture::~SinkCapture() {
  luIoFaultDisarm();
  luEnvSetErrorSink(std::move(m_prevError));
  luEnvSetLogSink(std::move(m_prevLog));
}

std::vector<std::wstring> SinkCapture::messages(int level) const {
  std::vector<std::wstring> out;
  for (const auto& r : m_logs)
    if (r.level == level) out.push_back(r.message);
  return out;
}

bool SinkCapture::logged(const std::wstring& message) const {
  for (const auto& r : m_logs)
    if (r.message == message) return true;
  return false;
}

void SinkCapture::clear() {
  m_reports.clear();
  m_logs.clear();
}

void TempDirTest::SetUp() {
  static std::atomic<int> counter{0};
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "." + info->name();
  for (char& c : name)
    if (c == '/') c = '_';
  auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  m_dir = fs::temp_directory_path() /
          ("luanaf-" + name + "-" + std::to_string(stamp) + "-" + std::to_string(counter++));
  fs::create_directories(m_dir);
  m_capture = std::make_unique<SinkCapture>();
}

void TempDirTest::TearDown() {
  m_capture.reset();
  std::error_code ec;
  // Read-only files inside are removed too: restore write bits first.
  for (auto& entry : fs::recursive_directory_iterator(m_dir, ec))
    fs::permissions(entry.path(), fs::perms::owner_write, fs::perm_options::add, ec);
  fs::remove_all(m_dir, ec);
}

std::vector<uint8_t> readBytes(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeBytes(const fs::path& file, const std::vector<uint8_t>& bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void setReadOnly(const fs::path& file, bool readOnly) {
  fs::permissions(file, fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                  readOnly ? fs::perm_options::remove : fs::perm_options::add);
  if (!readOnly) fs::permissions(file, fs::perms::owner_write, fs::perm_options::add);
}

uint64_t allocatedBytes(const fs::path& file) {
#if defined(_WIN32)
  (void)file;
  return 0;
#else
  struct stat st;
  return ::stat(file.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
#endif
}

bool reservesRoom(const fs::path& probe) {
  LuAfxsCreateLink link(probe.wstring().c_str());
  // Not released: the link deletes its file.
  return link.create(true) && link.reserve(uint64_t{1} << 20);
}

std::string platformLines(const std::string& text) {
#if defined(_WIN32)
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
#else
  return text;
#endif
}

void setEnv(const char* name, const char* value) {
#if defined(_WIN32)
  _putenv_s(name, value);
#else
  ::setenv(name, value, 1);
#endif
}

void unsetEnv(const char* name) {
#if defined(_WIN32)
  _putenv_s(name, "");
#else
  ::unsetenv(name);
#endif
}

fs::path dataFile(const std::string& name) { return fs::path(LUANAF_TEST_DATA_DIR) / name; }

uint32_t u32At(const std::vector<uint8_t>& bytes, size_t offset) {
  uint32_t v = 0;
  if (offset + 4 <= bytes.size()) std::memcpy(&v, bytes.data() + offset, 4);
  return v;
}

void putU32At(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) {
  if (offset + 4 > bytes.size()) bytes.resize(offset + 4);
  std::memcpy(bytes.data() + offset, &value, 4);
}

void appendU32(std::vector<uint8_t>& bytes, uint32_t value) {
  putU32At(bytes, bytes.size(), value);
}

void appendDoubles(std::vector<uint8_t>& bytes, const std::vector<double>& values) {
  size_t at = bytes.size();
  bytes.resize(at + values.size() * 8);
  if (!values.empty()) std::memcpy(bytes.data() + at, values.data(), values.size() * 8);
}

}  // namespace lutest
