// Shared helpers of the test suites: a fresh temporary folder per test,
// capture of the library's error reports and log records, file bytes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

namespace lutest {

namespace fs = std::filesystem;

// Captures every error report and log record while it lives, and restores
// the previous sinks afterwards. Disarms any armed I/O fault on both ends.
class SinkCapture {
public:
  SinkCapture();
  ~SinkCapture();
  SinkCapture(const SinkCapture&) = delete;
  SinkCapture& operator=(const SinkCapture&) = delete;

  const std::vector<LuErrorReport>& reports() const { return m_reports; }
  const std::vector<LuLogRecord>& logs() const { return m_logs; }
  // Log messages of one level, in order.
  std::vector<std::wstring> messages(int level) const;
  bool logged(const std::wstring& message) const;
  void clear();

private:
  std::vector<LuErrorReport> m_reports;
  std::vector<LuLogRecord> m_logs;
  LuErrorSink m_prevError;
  LuLogSink m_prevLog;
};

// A fixture with a fresh temporary folder (removed afterwards) and sink capture.
class TempDirTest : public ::testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  // Path of a file in the temporary folder.
  fs::path path(const std::string& name) const { return m_dir / name; }
  std::wstring wpath(const std::string& name) const { return path(name).wstring(); }
  const std::vector<LuErrorReport>& reports() const { return m_capture->reports(); }
  const std::vector<LuLogRecord>& logs() const { return m_capture->logs(); }
  SinkCapture& capture() { return *m_capture; }

  fs::path m_dir;
  std::unique_ptr<SinkCapture> m_capture;
};

std::vector<uint8_t> readBytes(const fs::path& file);
void writeBytes(const fs::path& file, const std::vector<uint8_t>& bytes);
std::string readText(const fs::path& file);
// Clears or sets the owner-write bit of a file.
void setReadOnly(const fs::path& file, bool readOnly);
// The bytes the volume holds for `file` (its allocated blocks, room reserved
// behind its end included); 0 where the platform does not tell.
uint64_t allocatedBytes(const fs::path& file);
// Whether the file system at `probe` (a file made there and deleted again)
// reserves room for a writer (LuAfxsCreateLink::reserve).
bool reservesRoom(const fs::path& probe);
// Text files written in text mode end their lines the platform's way: this
// turns each "\n" of an expected text into that line end.
std::string platformLines(const std::string& text);
// Sets or removes an environment variable (portable).
void setEnv(const char* name, const char* value);
void unsetEnv(const char* name);
// The checked-in sample files (tests/data).
fs::path dataFile(const std::string& name);

// Little-endian u32 at an offset of a byte buffer.
uint32_t u32At(const std::vector<uint8_t>& bytes, size_t offset);
void putU32At(std::vector<uint8_t>& bytes, size_t offset, uint32_t value);
void appendU32(std::vector<uint8_t>& bytes, uint32_t value);
void appendDoubles(std::vector<uint8_t>& bytes, const std::vector<double>& values);

}  // namespace lutest
