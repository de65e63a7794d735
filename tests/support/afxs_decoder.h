// A small, independent decoder of cross-section files for the tests: it reads
// the bytes as docs/format.md describes them, without any of the library's
// reading code, so that tests can check what the writer put on disk.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <luAnaf/luAfxsRecords.h>

namespace afxstest {

struct FieldBlock {
  uint32_t id = 0;
  uint32_t count = 0;   // byte count as written
  uint32_t offset = 0;  // file offset of the identifier
  std::vector<uint8_t> data;
};

struct Record {
  uint32_t offset = 0;
  uint32_t kind = 0;
  uint32_t next = 0;
  // Plane records (kind 1).
  uint32_t planeId = 0;
  uint32_t firstSubset = 0;
  // Plane-subset records (kind 2).
  uint32_t subsetId = 0;
  uint32_t nextSubset = 0;
  // Cameras, plane-subset and results records.
  std::vector<FieldBlock> fields;
  uint32_t end = 0;      // file offset one past the end mark
  uint32_t endKind = 0;  // the u32 after 0xFFFFFFFF

  const FieldBlock* field(uint32_t id) const;
  // Identifiers of the field blocks in file order.
  std::vector<uint32_t> fieldIds() const;
};

struct DecodedFile {
  bool ok = false;
  std::string error;                     // why decoding stopped, when not ok
  std::string headerText;                // up to and including the HEADER_END line feed
  std::vector<std::string> headerLines;  // without their line feeds
  uint32_t firstRecord = 0;              // value of the FIRST_RECORD line
  uint32_t state = 0;                    // value of the STATE line
  std::vector<Record> records;           // in chain order

  const Record* recordAt(uint32_t offset) const;
  // The plane record of a plane number, or null.
  const Record* planeRecord(uint32_t planeId) const;
  // The plane-subset records of a plane, following its subset chain.
  std::vector<const Record*> subsetsOf(uint32_t planeId) const;
  // Kinds of the records in chain order.
  std::vector<uint32_t> kinds() const;
};

DecodedFile decodeAfxs(const std::vector<uint8_t>& bytes);

std::vector<LuVec3> asPoints(const FieldBlock& block);
std::vector<int32_t> asI32(const FieldBlock& block);
std::vector<uint32_t> asU32(const FieldBlock& block);
std::vector<double> asDoubles(const FieldBlock& block);

}  // namespace afxstest
