// The writer: a link that creates a new cross-section file and the buffer of
// one plane subset that is flushed into it. The on-disk layout is described
// in docs/format.md.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <luAnaf/luAfxsBaseLink.h>
#include <luAnaf/luAfxsRecords.h>

class LuAfxsCreateData;

// Creates one file and appends records to it. The client owns the link; it
// must outlive every LuAfxsCreateData made on it. The file survives the link
// only when release() was called and no failure occurred: otherwise the
// destructor deletes it.
//
// Calling order: construct, setHeader, optionally setCameras, create, any
// number of LuAfxsCreateData flushes, release, destroy.
class LUANAF_API LuAfxsCreateLink : public LuAfxsBaseLink {
  friend class LuAfxsCreateData;
  friend class LuAfxsUserDataSet;

public:
  // The path is taken as given, of any length and in any characters (a null
  // or empty path gives an empty one, which create then fails to open).
  explicit LuAfxsCreateLink(const wchar_t* path);
  // The path of cross-section file `number` (passed on as 32 bits) of the
  // series `name`, as LuFileName::XSFile forms it (kind 1) into a buffer of
  // 1024 wide characters. A longer path is formed in full and cut to its
  // first 1023 characters, never written past the buffer.
  LuAfxsCreateLink(const wchar_t* name, uint64_t number);
  // Member by member, the open file handle included: both links then share
  // one stdio stream. Intended; callers must not close both.
  LuAfxsCreateLink(const LuAfxsCreateLink&) = default;
  LuAfxsCreateLink& operator=(const LuAfxsCreateLink&) = default;
  // Rewrites a dirty STATE line, closes the file, and deletes it unless
  // release() was called and the link is still OK. Intended: a link that was
  // never created (ok false) deletes whatever is at its path, unless that
  // file is read-only. Never throws.
  ~LuAfxsCreateLink() override;

  // Creates the file ("w+b", replacing a writable existing file) and writes
  // the nine header lines, then the cameras record when the table is not
  // empty. keepOpen keeps the file open between records; otherwise each
  // record reopens it. False, with a report, on any failure. A header line
  // longer than 80 bytes (huge coordinates) is cut at 80 bytes, line feed
  // and all. A file still open from an earlier create on this link is
  // closed first. The plane links of an earlier create are kept (intended;
  // callers create once per link).
  bool create(bool keepOpen);
  // Appends the cameras record. False without a report when the table is
  // empty. A record that would end past 4 GiB (offsets are u32) is refused
  // with 0xc41b0004 before anything is written.
  bool createCamerasRecord();
  // Rewrites the STATE line if the state word changed, then closes the file
  // unless close is false and the link keeps it open. A failed close (its
  // last buffered bytes did not reach the system) is reported as a failed
  // STATE rewrite (0xc41b0006) and turns the link not OK.
  void closeFile(bool close);
  // The file survives the link.
  void release();
  // Reserves room on the volume for `bytes` more bytes of records behind
  // the file's end, for a client that knows how much it will write (the
  // sum of its arrays' bytes and a few dozen bytes per record is enough).
  // Writing into reserved room costs the file system less (on Linux ext4
  // the writer took a fifth less time). A hint: the file's size and
  // contents never change, and what was not written is given back when the
  // file is closed. False, with nothing changed, for a link that is not OK
  // or was not created with keepOpen, and where the system has no such
  // call, the volume has less than twice the room left, or the call failed.
  //
  // Without it, a link created with keepOpen reserves ahead on its own once
  // its file passes 1 MiB: each time a record would run past the room
  // reserved, it reserves as much again as the file holds (at least 1 MiB,
  // at most 64 MiB), under the same rules, and stops reserving for that
  // file at the first refusal. Calling reserve() still pays for a client
  // that knows its total: one call, of the right size, from the first
  // record on. The unification reserves its output itself when it does not
  // blend.
  bool reserve(uint64_t bytes);

  LuAfxsHeader& getHeader() { return m_header; }
  const LuAfxsHeader& getHeader() const { return m_header; }
  void setHeader(const LuAfxsHeader& header);
  LuAfxsCamerasTable& getCameras() { return m_cameras; }
  const LuAfxsCamerasTable& getCameras() const { return m_cameras; }
  void setCameras(const LuAfxsCamerasTable& cameras);
  // The AND of the field masks of every flushed record; 0xFFFFFFFF at first.
  uint32_t getState() const { return m_state; }
  // Sets the state word without marking it dirty: it reaches the file only
  // with the next flush.
  void setState(uint32_t state) { m_state = state; }
  bool isOK() const { return m_ok; }
  void isOK(bool ok) { m_ok = ok; }
  const std::wstring& filePath() const { return m_path; }

protected:
  // Appends an empty record of `kind` and links it into the chain; returns
  // the file positioned for the record's body, or null. A record header that
  // would end past 4 GiB is refused with 0xc41b0012 before anything is
  // written.
  FILE* createNewRecord(luafxs_records_en kind);
  // Appends a plane record the first time planeId is seen, then a
  // plane-subset record, and links it into the plane's subset chain. When
  // these would end past 4 GiB, both are refused with 0xc41b0005 before
  // anything is written.
  FILE* createPlaneSubsetRecord(uint32_t planeId, uint32_t subsetId);
  // state word &= mask; marks it dirty.
  void updateState(uint32_t mask);
  // False, silently, when the link is not OK. Reopens a closed file with
  // "r+b"; when that fails, reports 0xc41b0011 and returns false, leaving ok
  // as it is. Used before a record is appended.
  bool reopenForRecord();
  // The end of the file, where the next record goes; the stream is left
  // there. Seeks only when the stream is elsewhere.
  int64_t seekAppendPosition();
  // Moves a reopened stream to the end of the file before a record's room is
  // checked. A failed seek there is the record's own failure: reported with
  // 0xc41b0012 (the link turns not OK) and false, whatever check comes next.
  bool seekEndForRecord();
  // Deletes the existing file at the path before create makes a new one;
  // false, reported, when it cannot or must not be deleted.
  bool replaceExisting();
  // Closes the file durably: the STATE line, every buffered byte and the
  // contents on the device (fsync), then checks that the closed file is as
  // long as what was written. False, reported with 0xc41b0006 (the link
  // turns not OK), when any of that fails. Used before a rewrite replaces
  // the file it was made from.
  bool closeDurably();

  LuAfxsHeader m_header;
  LuAfxsCamerasTable m_cameras;
  uint32_t m_state = 0xFFFFFFFF;
  bool m_keepOpen = false;
  std::wstring m_path;
  bool m_ok = false;
  FILE* m_file = nullptr;
  bool m_deleteOnDestroy = true;
  bool m_stateDirty = false;
  uint64_t m_recordCount = 0;
  uint32_t m_lastRecordOffset = 0;
  uint32_t m_patchOffset = 0;
  uint32_t m_stateLineOffset = 0;
  // The stream stands at the end of the file (after the header, a record or
  // a field block), so appending needs no seek. Cleared by every seek
  // elsewhere and by a reopen.
  bool m_atEnd = false;
  // Reserves room ahead on its own (see reserve()) when a record of `bytes`
  // appended at `end` would run past the room reserved.
  void reserveAhead(uint64_t end, uint64_t bytes);
  // Gives back the room reserved behind the file's end, if any; the file's
  // size and bytes stay as they are.
  void giveBackReserved();

  // The end of the room reserved behind the file's end (by reserve() or
  // reserveAhead()), 0 when none; given back at the close.
  uint64_t m_reservedEnd = 0;
  // reserveAhead() still reserves: cleared at its first refusal, set again
  // by create.
  bool m_reservesAhead = true;
  std::map<uint32_t, uint32_t> m_planeLinks;  // plane -> offset of its last subset link

  // The arrays of the last LuAfxsCreateData finished on this link, emptied but
  // keeping their capacity, handed on to the next one. Record after record
  // then reuses the same memory instead of touching fresh pages (page faults
  // cost more than the copies themselves). The link holds at most one
  // record's worth of them until it is destroyed; a copy of a link starts
  // without them.
  struct SpareArrays {
    LuAfxsPlane plane;
    SpareArrays() = default;
    SpareArrays(const SpareArrays&) noexcept {}
    SpareArrays& operator=(const SpareArrays&) noexcept { return *this; }
  };
  SpareArrays m_spareArrays;
};

// Buffers the data of one plane in one subset and writes it as one
// plane-subset record on flush(). Holds a reference to its link, which must
// outlive it.
class LUANAF_API LuAfxsCreateData {
  friend class LuAfxsUserDataSet;

public:
  LuAfxsCreateData(LuAfxsCreateLink& link, uint32_t planeId, uint32_t subsetId);
  LuAfxsCreateData(const LuAfxsCreateData&) = default;
  // Calls link.closeFile(false). Never throws.
  virtual ~LuAfxsCreateData();

  // Each replaces its vector with a copy and sets its mask bit; a count of 0
  // (or a null pointer) changes nothing.
  void setPoints(const double (*points)[3], size_t count);
  void setNormals(const double (*normals)[3], size_t count);
  void setSegments(const int* segments, size_t count);
  // Groups of auxiliary control positions: `counts` gives the size of each
  // of the groupCount groups, `positions` holds them one group after another.
  // Derives the offsets (exclusive prefix sum) and each group's first
  // position. A count of 0 changes nothing. Groups that would run past
  // positionCount, or a group that starts at or past it (an empty last
  // group), are rejected: nothing changes (the input is never read outside
  // its bounds). Offsets are summed in u32, as stored.
  void setAuxCtrlPos(const uint32_t* positions, size_t positionCount, const uint32_t* counts,
                     size_t groupCount);
  // Result points and distances, as Unify would bring them in (bits 16, 32).
  void setResPoints(const double (*points)[3], size_t count);
  void setDistances(const double* values, size_t count);

  // The same, taking the caller's vector instead of copying it: the data
  // object's own array is swapped with it and the argument comes back empty
  // (keeping the room of an earlier record's array, so a client that refills
  // it record after record reuses memory). An empty vector changes nothing;
  // refused aux groups leave both arguments as they were. The arrays and
  // mask bits are the same as the copying setters give.
  void setPoints(std::vector<LuVec3>&& points);
  void setNormals(std::vector<LuVec3>&& normals);
  void setSegments(std::vector<int32_t>&& segments);
  void setAuxCtrlPos(std::vector<uint32_t>&& positions, std::vector<uint32_t>&& counts);
  void setResPoints(std::vector<LuVec3>&& points);
  void setDistances(std::vector<double>&& values);

  // Writes the record. False when the link is not OK, nothing is set, or a
  // write failed (reported once, the link then turns not OK). Field blocks
  // that would end past 4 GiB are refused with 0xc41b0013 before the record
  // is appended, so the records before it stay intact.
  bool flush();
  // Copies a whole plane in, ids included; ORs in the bits of its non-empty
  // fields except the aux group, which travels only through setAuxCtrlPos
  // (intended). A null plane changes nothing and gives false.
  bool Unify(const LuAfxsPlane* plane);
  // The field mask of the buffered data.
  uint32_t state() const { return m_mask; }
  const LuAfxsPlane& plane() const { return m_plane; }

protected:
  // What Unify does to the field mask, without copying the plane: the
  // unification writes each gathered plane straight from the data set that
  // holds it (through flushFrom), so this object's own plane stays empty.
  // Returns the mask.
  uint32_t unifyMaskOf(const LuAfxsPlane& plane);
  // flush with the arrays (and plane and subset ids) of `plane` instead of
  // this object's own; flush() is flushFrom(plane()).
  bool flushFrom(const LuAfxsPlane& plane);
  // Whether groups of these sizes lie inside positionCount positions, each
  // starting at a position (the rule setAuxCtrlPos checks before it copies).
  static bool auxGroupsFit(const uint32_t* counts, size_t groupCount, size_t positionCount);
  // The aux offsets and firsts from the plane's aux positions and counts;
  // sets the aux bit.
  void deriveAuxGroups();

  LuAfxsPlane m_plane;
  uint32_t m_mask = 0;
  LuAfxsCreateLink& m_link;
};
