// The reader and updater: a link on an existing file and the view of one
// plane-subset record in it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <luAnaf/luAfxsBaseLink.h>
#include <luAnaf/luAfxsFieldDirectory.h>
#include <luAnaf/luAfxsRecords.h>

class LuAfxsUserData;
class LuAfxsUserDataSet;
namespace afxs {
class BodyBudget;
class ByteSource;
}  // namespace afxs
class LuAfxsCreateLink;

// A handle on one existing file. Construction only stores the path; all file
// access starts with verify() or create(). Between calls the file is closed
// unless the caller asked to keep it open. It never rewrites the header.
class LUANAF_API LuAfxsUserLink : public LuAfxsBaseLink {
  friend class LuAfxsUserData;
  friend class LuAfxsUserDataSet;

public:
  explicit LuAfxsUserLink(const wchar_t* path);
  // The path of cross-section file `number` of the series `name`, as
  // LuFileName::XSFile forms it (kind 1), truncated to 1023 characters.
  LuAfxsUserLink(const wchar_t* name, size_t number);
  // Copies the path only: the copy starts unread and closed.
  LuAfxsUserLink(const LuAfxsUserLink& other);
  // Copies every member, the open stream included: both links then share one
  // stdio stream (closing it through one leaves the other stale). Intended.
  LuAfxsUserLink& operator=(const LuAfxsUserLink& other);
  ~LuAfxsUserLink() override;

  // Replaces the path; resets nothing else. Always true.
  bool setFilePath(std::wstring path);
  const std::wstring& fileName() const { return m_filePath; }
  bool fileExists() const { return m_fileExists; }
  bool fileWritable() const { return m_fileExists && m_fileWritable; }
  bool updateSupported() const { return m_fileExists && m_updateSupported; }
  const LuAfxsHeader& getHeader() const { return m_header; }

  // Reads header and record chain again when the file's modification time
  // changed since the last look (always on the first call), or when the
  // file is not the one read last (replaced, or changed within the same
  // second). True when the file exists and both were read. A file another
  // process is changing is busy: 0xc41b0008 with the busy text, false.
  bool verify(bool keepOpen);
  // Reads header and record chain unconditionally.
  bool create(bool keepOpen);
  // The cameras table of the first cameras record; empty when there is none
  // or it is damaged (no report).
  const LuAfxsCamerasTable& getCameras();
  // Closes the file and deletes it.
  void remove();

protected:
  // Stream helpers for the data objects; streams returned are the link's own
  // and are never closed by the caller. A stream open for writing holds the
  // file's lock exclusively; one open for reading, shared.
  FILE* openFile(long offset, bool forWrite);
  void closeFile(bool force);
  bool readHeader();
  bool scanRecords();
  FILE* getRecord(luafxs_records_en kind);
  FILE* getPlaneRecord(unsigned long planeId);
  // Appends an empty record and links it behind the chain's last record
  // (its header is handed to the system before the link is written); the
  // caller writes the body. LuAfxsUserData::flush uses appendLinkedRecord.
  FILE* createNewRecord(luafxs_records_en kind);
  // Appends a record of `kind` in an order that cannot half-happen: the
  // record's header, then its body and end mark (written by writeBody at
  // the given body offset; it throws on a failed write), handed to the
  // system; only then is it linked behind the chain's last record, and
  // then named by the results link block (byte count 4, then the offset)
  // whose count word is at linkBlockAt. True only once every byte reached
  // the system. On any failure the file is put back as it was (links
  // restored, the file cut to its old size), 0xc41b0014 is reported, and
  // false returned. A file that was replaced or changed since this link
  // read it is refused, with the same report, before anything is written.
  bool appendLinkedRecord(luafxs_records_en kind,
                          const std::function<void(FILE*, uint32_t)>& writeBody,
                          uint32_t linkBlockAt);
  // Opens the file for update, holding its lock exclusively, when it is the
  // one this link read or last wrote (fileIsAsSeen); `size` gets its size.
  // Null otherwise, the lock back to shared.
  FILE* openForUpdateAsSeen(uint64_t& size);
  // Where the file stood before a run of results appends: what
  // takeBackResults needs to undo every append of the run.
  struct ResultsMark {
    uint32_t lastNextField = 0;
    uint64_t fileSize = 0;
    uint64_t seenSize = 0;
    std::vector<uint32_t> linkBlocks;  // of the records given results, in order
  };
  ResultsMark resultsMark() const;
  // Undoes the results appends since `mark` (whose linkBlocks name them), in
  // an order that cannot leave a link to a missing record: each link block
  // goes back to "no results" (last first), the chain ends where it ended,
  // and only then are the appended bytes cut off. Refused, and false, when
  // the file changed since this link last wrote it; false when a write
  // fails (the file then still holds some of the results, each complete).
  bool takeBackResults(const ResultsMark& mark);
  // Whether the file (the open stream's, and the one at the path) is the
  // one this link read or last wrote: same device and index, same size and
  // modification time to the nanosecond where the platform keeps them.
  bool fileIsAsSeen(FILE* file) const;
  // Remembers the state of the file `file` is open on as the one seen.
  void rememberFile(FILE* file);

  LuAfxsHeader m_header;
  LuAfxsCamerasTable m_cameras;
  bool m_camerasLoaded = false;
  std::wstring m_filePath;
  FILE* m_file = nullptr;
  bool m_fileOpenForWrite = false;
  bool m_fileExists = false;
  bool m_fileWritable = false;
  bool m_updateSupported = false;
  bool m_keepOpen = false;
  int64_t m_fileTime = 0;
  uint32_t m_state = 0;
  int32_t m_firstRecord = 0;
  std::map<uint32_t, uint32_t> m_recordIndex;  // kind -> body offset (cameras only)
  std::map<uint32_t, uint32_t> m_planeIndex;   // plane -> offset of first-subset field
  bool m_fileModified = false;
  uint32_t m_lastNextField = 0;
  uint64_t m_fileSize = 0;  // size at the last read of the chain; bounds every count
  // The file as this link last read or wrote it (see fileIsAsSeen).
  uint64_t m_seenDevice = 0;
  uint64_t m_seenIndex = 0;
  uint64_t m_seenSize = 0;
  int64_t m_seenModified = 0;  // nanoseconds
  bool m_seen = false;
};

// The reading side's view of one plane-subset record. Created and owned by
// LuAfxsUserDataSet; holds a non-owning pointer to its link.
class LUANAF_API LuAfxsUserData {
  friend class LuAfxsUserDataSet;

public:
  LuAfxsUserData(const LuAfxsUserData&) = default;

  // Loads every field whose bit is in mask and that is not loaded yet. The
  // first call reads the record's field directory. False on damage or a
  // failed open; fields loaded before stay. Does not close the file.
  bool load(unsigned long mask);
  // Frees the arrays of every loaded field (to the array cache when it is
  // on) and marks them not loaded, so a later load reads them again; the
  // field directory stays. Results attached and not flushed are dropped.
  // Lets a client go through a large file one record at a time.
  void release();
  // Attach results; a count of 0 changes nothing. Values set here are never
  // overwritten by a later load.
  void setDistances(const double* values, size_t count);
  void setResPoints(const double (*points)[3], size_t count);
  // Appends a results record with the attached result points and distances
  // and links it from this record, once per record. False when the record
  // already has results, nothing is attached, or a write failed.
  bool flush();
  // Whether results are attached and not yet in the file (what flush, or
  // the data set's flushResults, would append).
  bool hasUnflushedResults() const;
  // Writes this record's points, segments, normals and aux groups (those in
  // mask) as a new record through a writer link. Result points and distances
  // are never copied.
  bool copy(LuAfxsCreateLink& link, unsigned long mask);
  // The mask of the fields in memory / in the file; 0 while nothing is loaded.
  uint32_t state() const { return m_recordLoaded ? m_state : 0; }
  uint32_t fileState() const { return m_recordLoaded ? m_fileState : 0; }
  const LuAfxsPlane& getPlaneData() const { return m_plane; }

protected:
  LuAfxsUserData(LuAfxsUserLink& link, long recordOffset, unsigned long planeId,
                 unsigned long subsetId);
  virtual ~LuAfxsUserData();
  void loadRecordFrom(long offset, long kind, unsigned long mask);
  void loadRecordData(FILE* stream, long kind, long mask);
  // The same walk of the record whose first block starts at `at`, read from
  // `source`.
  void loadRecordData(afxs::ByteSource& source, uint64_t at, long kind, long mask);
  void loadFieldData(FILE* stream, long id);
  // The same for the block whose byte count is at `countAt`, read from `source`.
  void loadFieldData(afxs::ByteSource& source, uint64_t countAt, long id);
  // The offset of this record's results link block (0 when it has none).
  uint32_t resultsLinkBlock() const;

  LuAfxsPlane m_plane;
  LuAfxsUserLink* m_link;
  bool m_recordLoaded = false;
  uint32_t m_state = 0;
  std::set<uint32_t> m_loadedFields;
  uint32_t m_fileState = 0;
  int32_t m_recordOffset = 0;
  uint32_t m_resultsOffset = 0;
  LuAfxsFieldDirectory m_fieldDirectory;  // id -> offset of its count word
  // While a data set loads the file: the bytes of record bodies its load may
  // still walk (records overlapping each other cannot make it quadratic).
  afxs::BodyBudget* m_bodyBudget = nullptr;
  // While a data set's first load walks the file: where the record is read
  // from (the data set's window over the file); else the link's stream.
  afxs::ByteSource* m_recordSource = nullptr;
};
