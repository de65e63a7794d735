// A read-only look at a cross-section file: its header as a reader parses
// it, the record chain with every record and field block, the plane subset
// chains, the counts, and a list of problems with their byte offsets.
//
// The walk never changes, moves or deletes the file, never reads outside
// it, ends on every input (chains that loop are detected), and allocates no
// more than the file could hold. It reports nothing through the error sink
// or the log: everything it finds is in the returned LuAfxsInspection.
//
// Tools use it to check a file before handing it to an operation that
// deletes files it cannot verify (LuAfxsUserDataSet::load).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <luAnaf/luAfxsRecords.h>
#include <luAnaf/luExport.h>

// One thing wrong with a file.
struct LuAfxsInspectProblem {
  uint64_t offset = 0;      // the byte the problem is about
  bool breaksLoad = false;  // a data-set load of the file would fail (and delete the file)
  std::string message;      // a plain explanation, without the file name
};

// One field block: identifier, byte count and where the block starts.
struct LuAfxsInspectField {
  uint32_t id = 0;
  uint32_t offset = 0;  // offset of the identifier word
  uint32_t count = 0;   // byte count of the data
};

// One record, as found along the record chain (or, for a plane-subset record
// outside the chain, along a plane's subset chain).
struct LuAfxsInspectRecord {
  uint32_t offset = 0;
  uint32_t kind = 0;
  uint32_t next = 0;    // next record in the chain, 0 for the last
  uint32_t end = 0;     // one past the end mark; 0 when the record could not be walked
  bool inChain = true;  // false: reached only through a subset chain
  // Kind 1 (plane).
  uint32_t planeId = 0;
  uint32_t firstSubset = 0;
  // Kind 2 (plane subset).
  uint32_t subsetId = 0;
  uint32_t nextSubset = 0;
  uint32_t resultsLink = 0;  // data of field 4: the results body offset, 0 for none
  int64_t plane = -1;        // the plane whose subset chain reaches it; -1 for none
  bool loaded = false;       // a data-set load reads this record
  // Kinds 0, 2, 3: the field blocks in file order. For a plane-subset
  // record, the blocks of its results record follow in resultsFields.
  std::vector<LuAfxsInspectField> fields;
  std::vector<LuAfxsInspectField> resultsFields;
  uint32_t mask = 0;         // field mask of its own blocks
  uint32_t resultsMask = 0;  // field mask of the blocks of its results record
};

// One plane as a data-set load sees it: the first plane record of its
// number and the plane-subset records along its chain.
struct LuAfxsInspectPlane {
  uint32_t planeId = 0;
  uint32_t recordOffset = 0;
  std::vector<size_t> subsets;  // indexes into LuAfxsInspection::records, chain order
};

// One header word the parse acted on (the first 1024 are listed): a keyword with the values it read
// (printed back in the writer's notation), or an unknown word whose line
// was skipped.
struct LuAfxsInspectHeaderLine {
  uint64_t offset = 0;
  std::string keyword;
  std::string values;
  bool known = true;
};

struct LUANAF_API LuAfxsInspection {
  bool opened = false;  // the file could be opened and its size taken
  uint64_t fileSize = 0;

  // Header, parsed with the reader's rules (whitespace-separated words, any
  // order, last value wins, unknown words skip their line).
  bool identifierOk = false;
  bool headerParsed = false;  // the reader's header parse succeeds
  bool headerEndSeen = false;
  uint64_t headerSize = 0;  // bytes up to the HEADER_END line feed (the file size without one)
  std::vector<LuAfxsInspectHeaderLine> headerLines;
  bool hasVersion = false;
  int32_t version = -1;
  int32_t firstRecord = 0;
  uint32_t state = 0;  // the STATE line
  LuAfxsHeader
      header;  // point, normal, numPlanes, distBwPlanes (version as read, -1 without a VER line)

  // Records in chain order, then plane-subset records reached only through
  // subset chains.
  std::vector<LuAfxsInspectRecord> records;
  // Planes in ascending number, as a data-set load walks them.
  std::vector<LuAfxsInspectPlane> planes;

  uint64_t planeRecords = 0;
  uint64_t subsetRecords = 0;  // plane-subset records in the chain
  uint64_t loadedSubsets = 0;  // plane-subset records a data-set load reads
  uint64_t resultsRecords = 0;
  uint64_t camerasRecords = 0;
  uint64_t cameras = 0;             // entries of the first cameras record
  std::vector<uint32_t> subsetIds;  // in order of first appearance in load order
  // Field groups over the loaded plane-subset records, results included:
  // the groups every record holds, and the groups any record holds. Both 0
  // without records.
  uint32_t stateAnd = 0;
  uint32_t stateUnion = 0;
  // What the STATE line should hold: the AND of the masks of the chain's
  // plane-subset records (their own blocks), 0 without any.
  uint32_t expectedState = 0;

  std::vector<LuAfxsInspectProblem> problems;

  bool clean() const { return problems.empty(); }
  // True when no problem would make a data-set load fail.
  bool loadable() const;
};

// Walks the file at path. Memory grows with the file, never with a count
// read from it: about 1% of the file for real files, a small multiple of it
// for hostile ones made of nothing but tiny records. deep also reads the segments and the aux
// counts of every loaded record to check that segments tile the points and that the aux groups add
// up; without it only the index is read (fast on large files). Never throws; a file that cannot be
// opened gives opened false and one problem.
LUANAF_API LuAfxsInspection luAfxsInspect(const std::wstring& path, bool deep = true);

// The name of a record kind ("cameras", "plane", "plane subset", "results")
// or "unknown".
LUANAF_API const char* luAfxsRecordKindName(uint32_t kind);
// The name of a field identifier ("points", "normals", ..., "results link",
// "end") or "unknown".
LUANAF_API const char* luAfxsFieldName(uint32_t id);
