// A byte-level builder of cross-section files for the reader's tests: it
// writes what the writer cannot (unknown header keywords, missing
// HEADER_END, duplicate plane records, results records, damaged counts,
// looping chains) without going through the library.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

#include "support/test_support.h"

namespace lutest {

// One field block: identifier, byte count (the data size unless overridden), data.
struct FieldBlock {
  uint32_t id = 0;
  std::vector<uint8_t> data;
  std::optional<uint32_t> count;  // a count that differs from data.size()
};

FieldBlock pointsBlock(uint32_t id, const std::vector<LuVec3>& points);
FieldBlock u32Block(uint32_t id, const std::vector<uint32_t>& values);
FieldBlock i32Block(uint32_t id, const std::vector<int32_t>& values);
FieldBlock doublesBlock(uint32_t id, const std::vector<double>& values);
FieldBlock resultsLinkBlock(uint32_t bodyOffset);
FieldBlock countOnlyBlock(uint32_t id, uint32_t count);  // a count with no data behind it

// The field blocks the writer writes for `plane` under `mask`, in its order,
// without the results link.
std::vector<FieldBlock> writerBlocks(const LuAfxsPlane& plane, uint32_t mask);

// The header text a writer produces for these values.
std::string headerText(int version, const double point[3], const double normal[3],
                       uint64_t numPlanes, double distBwPlanes, uint32_t firstRecord,
                       uint32_t state);

class AfxsFileBuilder {
public:
  // A standard header (VER 1, point 1 2 3, normal 0 0 1, 4 planes, 0.5, STATE 0).
  AfxsFileBuilder();
  // Replaces the header; call before adding records. A "FIRST_RECORD
  // 0x00000000" in the text is patched with the first record's offset.
  void setHeaderText(const std::string& text);

  // Each appends one record, links it behind the last one and returns its offset.
  uint32_t addCameras(const std::vector<LuVec3>& cameras);
  uint32_t addCamerasBlocks(const std::vector<FieldBlock>& blocks, uint32_t endKind = 0);
  uint32_t addPlane(uint32_t planeId);
  // Appends a plane-subset record linked behind the last subset of the plane
  // record at planeRecord; the results link block (data resultsLink) is added
  // unless withResultsLink is false.
  uint32_t addSubset(uint32_t planeRecord, uint32_t subsetId, const std::vector<FieldBlock>& blocks,
                     uint32_t resultsLink = 0, bool withResultsLink = true, uint32_t endKind = 2);
  // A results record (kind 3) with the given blocks.
  uint32_t addResults(const std::vector<FieldBlock>& blocks, uint32_t endKind = 3);
  // Any record: kind, next 0, then the raw body.
  uint32_t addRaw(uint32_t kind, const std::vector<uint8_t>& body);

  // Offset of the first field block of the subset record at `record`.
  static uint32_t firstField(uint32_t record) { return record + 16; }
  // Where the results link data of a subset record sits, when it was the last block.
  uint32_t resultsLinkDataOf(uint32_t record) const;

  void patchU32(uint32_t offset, uint32_t value);
  const std::vector<uint8_t>& bytes() const { return m_bytes; }
  std::vector<uint8_t>& bytes() { return m_bytes; }
  uint32_t headerSize() const { return m_headerSize; }
  void write(const fs::path& file) const;

private:
  uint32_t beginRecord(uint32_t kind);
  void appendBlocks(const std::vector<FieldBlock>& blocks);

  std::vector<uint8_t> m_bytes;
  uint32_t m_headerSize = 0;
  size_t m_firstRecordPatch = std::string::npos;  // offset of the FIRST_RECORD value text
  uint32_t m_lastNextField = 0;
  bool m_anyRecord = false;
  std::map<uint32_t, uint32_t> m_planeLinks;       // plane record -> its last subset link
  std::map<uint32_t, uint32_t> m_resultsLinkData;  // subset record -> results link data
};

// The reader's classes with their protected members reachable from tests.
class ProbeUserLink : public LuAfxsUserLink {
public:
  using LuAfxsUserLink::closeFile;
  using LuAfxsUserLink::createNewRecord;
  using LuAfxsUserLink::getPlaneRecord;
  using LuAfxsUserLink::getRecord;
  using LuAfxsUserLink::LuAfxsUserLink;
  using LuAfxsUserLink::openFile;
  using LuAfxsUserLink::readHeader;
  using LuAfxsUserLink::scanRecords;
  FILE* file() const { return m_file; }
  bool openForWrite() const { return m_fileOpenForWrite; }
  uint32_t state() const { return m_state; }
  int32_t firstRecord() const { return m_firstRecord; }
  int64_t fileTime() const { return m_fileTime; }
  bool fileModified() const { return m_fileModified; }
  bool keepOpen() const { return m_keepOpen; }
  uint32_t lastNextField() const { return m_lastNextField; }
  uint64_t fileSize() const { return m_fileSize; }
  const std::map<uint32_t, uint32_t>& planeIndex() const { return m_planeIndex; }
  const std::map<uint32_t, uint32_t>& recordIndex() const { return m_recordIndex; }
  LuAfxsHeader& header() { return m_header; }
};

class ProbeUserData : public LuAfxsUserData {
public:
  ProbeUserData(LuAfxsUserLink& link, long recordOffset, unsigned long planeId,
                unsigned long subsetId)
      : LuAfxsUserData(link, recordOffset, planeId, subsetId) {}
  // Through the public copy constructor.
  explicit ProbeUserData(const LuAfxsUserData& other) : LuAfxsUserData(other) {}
  ~ProbeUserData() override = default;
  bool recordLoaded() const { return m_recordLoaded; }
  uint32_t resultsOffset() const { return m_resultsOffset; }
  const LuAfxsFieldDirectory& fieldDirectory() const { return m_fieldDirectory; }
  const std::set<uint32_t>& loadedFields() const { return m_loadedFields; }
  // The same state of any record, reached through member pointers (a record
  // made by a data set is not a ProbeUserData and must not be cast to one).
  static uint32_t resultsOffsetOf(const LuAfxsUserData& d) {
    return d.*(&ProbeUserData::m_resultsOffset);
  }
  static const LuAfxsFieldDirectory& fieldDirectoryOf(const LuAfxsUserData& d) {
    return d.*(&ProbeUserData::m_fieldDirectory);
  }
};

class ProbeDataSet : public LuAfxsUserDataSet {
public:
  using LuAfxsUserDataSet::clear;
  using LuAfxsUserDataSet::getCurrentSubsetsPlanes;
  using LuAfxsUserDataSet::getHeader;
  using LuAfxsUserDataSet::getSubsetsIds;
  using LuAfxsUserDataSet::LuAfxsUserDataSet;
  using LuAfxsUserDataSet::push_back;
  bool loaded() const { return m_loaded; }
  // Drops the list without deleting the entries (a shallow copy owns them).
  void forgetEntries() { m_dataList.clear(); }
};

// Random plane data of a given size, every vector filled consistently
// (segments tile the points; one aux group per point).
LuAfxsPlane randomPlane(uint32_t planeId, uint32_t subsetId, size_t points, uint32_t seed);

// Writes planes with the writer, each with its own mask, and releases the file.
// Returns false if any step failed.
bool writeWithWriter(const std::wstring& path, const LuAfxsHeader& header,
                     const std::vector<LuVec3>& cameras,
                     const std::vector<std::pair<LuAfxsPlane, uint32_t>>& planes);

// A fixture for the reader's suites: a fresh folder, captured reports, and
// verbs that write built files and check reports.
class ReaderTest : public TempDirTest {
protected:
  std::wstring writeBuilt(const AfxsFileBuilder& builder, const std::string& name = "built.afxs") {
    builder.write(path(name));
    return wpath(name);
  }
  // Exactly one report so far, with this code, line, source and path.
  void expectOnlyReport(uint32_t code, int line, const std::wstring& file) {
    ASSERT_EQ(reports().size(), 1u);
    expectReport(reports()[0], code, line, file);
  }
  static void expectReport(const LuErrorReport& r, uint32_t code, int line,
                           const std::wstring& file) {
    EXPECT_EQ(r.code, code);
    EXPECT_EQ(r.line, line);
    EXPECT_EQ(r.source, L"LuAfxsUserIface");
    EXPECT_EQ(r.severity, 5);
    EXPECT_EQ(r.path, file);
  }
  bool hasReport(uint32_t code) const {
    for (const auto& r : reports())
      if (r.code == code) return true;
    return false;
  }
};

}  // namespace lutest
