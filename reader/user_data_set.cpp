// LuAfxsUserDataSet, container side: every plane-subset record of one file
// as LuAfxsUserData objects, in the order the plane and subset chains lead
// to them, and the removal of field groups by rewriting the file.
#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "format/byte_source.h"
#include "format/coding.h"
#include "format/decoder.h"
#include "format/format.h"
#include "format/io_error.h"
#include "platform/lu_io.h"
#include "reader/reader_io.h"
#include "reader/record_arena.h"

namespace {

// Capacity, NUL included, of the buffer the temporary path is formed in.
constexpr size_t kPathBuffer = 1024;

}  // namespace

LuAfxsUserDataSet::LuAfxsUserDataSet(LuAfxsUserLink& link) : m_link(&link) {}

LuAfxsUserDataSet::~LuAfxsUserDataSet() {
  try {
    clear(false);
  } catch (...) {
    // Destructors never throw.
  }
}

// The first load verifies the file and walks each plane's subset chain in
// ascending plane order. Intended: when verify fails the file is deleted
// (a missing file, a bad header or a file without records); callers rely on
// the first load clearing such files away. A subset chain that comes back to
// an offset it already visited, or that leads to more records than the file
// could hold, ends as a failed load. So does a plane-subset record reached
// from a second plane: the writer links every record into one plane's chain
// only, and loading a shared record once per plane would let a small file
// claim its largest record's data many times over.
bool LuAfxsUserDataSet::load(unsigned long mask) {
  if (!m_dataList.empty()) {
    for (LuAfxsUserData* data : m_dataList) {
      if (!data->load(mask)) {
        clear(false);
        return false;
      }
    }
    m_loaded = true;
    return true;
  }
  if (!m_link->verify(true)) {
    m_link->remove();
    return false;
  }
  // The link's stream, kept open during the walk, as a source of bytes: a
  // seek is left out where the stream already stands.
  class StreamSource final : public afxs::ByteSource {
  public:
    explicit StreamSource(LuAfxsUserLink& link) : m_link(link) {}
    size_t readAt(uint64_t at, void* data, size_t size) override {
      FILE* f = m_link.m_file;
      if (f == nullptr || at > afxs::kMaxFileOffset) return 0;
      const int64_t offset = static_cast<int64_t>(at);
      if (!afxs::alreadyAt(f, offset, !m_link.m_fileOpenForWrite) &&
          luio::seek(f, offset, SEEK_SET) != 0)
        return 0;
      return luio::read(data, 1, size, f);
    }

  private:
    LuAfxsUserLink& m_link;
  };
  try {
    // An index (a load of no field data) reads the plane records' links,
    // the subset heads and the records' field lists, all small reads,
    // through two windows of the file: a read per window instead of a seek
    // and a read per record. A load of arrays reads with positioned reads
    // while the stream is open for reading only: each block straight into
    // its array, with the heads that follow it in the same read. The
    // windows are filled with positioned reads too while they can be.
    const bool index = mask == 0;
    LuAfxsUserLink& owner = *m_link;
    auto readOnly = [&owner] {
      return afxs::readOnlyStream(owner.m_file, owner.m_fileOpenForWrite);
    };
    StreamSource stream(*m_link);
    afxs::ReadOnlyStreamSource streamReads(readOnly, stream, afxs::Readahead::None);
    afxs::WindowSource streamWindow(streamReads);
    afxs::LinkStreamSource link([&owner](long at) { return owner.openFile(at, false); });
    afxs::ReadOnlyStreamSource linkReads(readOnly, link, afxs::Readahead::None);
    afxs::WindowSource linkWindow(linkReads);
    afxs::ReadOnlyStreamSource positioned(readOnly, link, afxs::Readahead::Window);
    afxs::ByteSource& heads = index ? static_cast<afxs::ByteSource&>(streamWindow) : positioned;
    afxs::ByteSource& records = index ? static_cast<afxs::ByteSource&>(linkWindow) : positioned;
    afxs::FailOnDamage reporter;
    afxs::SubsetChainBounds bounds(m_link->m_fileSize);  // over every plane's chain
    afxs::BodyBudget budget(m_link->m_fileSize);
    for (const auto& entry : m_link->m_planeIndex) {
      const uint32_t planeId = entry.first;
      uint32_t first = 0;
      if (!records.u32At(entry.second, first)) afxs::fail();
      afxs::walkSubsetChain(heads, first, bounds, reporter, [&](const afxs::SubsetHead& head) {
        LuAfxsUserData* data = newRecord(
            static_cast<long>(head.offset) + afxs::kSubsetFirstFieldOffset, planeId, head.subsetId);
        data->m_bodyBudget = &budget;
        data->m_recordSource = index ? static_cast<afxs::ByteSource*>(&linkWindow) : &positioned;
        const bool loaded = data->load(mask);
        data->m_bodyBudget = nullptr;
        data->m_recordSource = nullptr;
        if (!loaded) afxs::fail();
        return true;
      });
    }
  } catch (...) {
    clear(false);
    return false;
  }
  m_loaded = true;
  return true;
}

// Rewrites the file without the groups in mask through "<path>.tmp". The
// original is held locked against other processes and must still be the
// file that was loaded; it is deleted only once the rewrite is complete on
// the device, so a failure or a kill on the way leaves it byte for byte as
// it was (see docs/RELIABILITY.md for what a kill leaves at each step).
// Intended: result points and distances never survive a rewrite, and the
// new file's version is 0 (the link never keeps the VER value).
bool LuAfxsUserDataSet::remove(unsigned long mask) {
  if (!load(~mask)) return false;
  bool anyToRemove = false;
  for (const LuAfxsUserData* data : m_dataList) {
    if ((data->fileState() & mask) != 0) anyToRemove = true;
  }
  if (!anyToRemove) return true;

  // The original is held exclusively until it is replaced (another process
  // reading or changing it makes the rewrite fail: 0xc41b0008 with the busy
  // text), and must still be the file that was loaded.
  luio::FileLock original;
  FILE* f = m_link->openFile(0, false);
  if (f == nullptr) return false;
  if (!original.acquire(f, luio::LockMode::Exclusive)) {
    afxs::reportWithSystemText(afxs::kErrOpenFile, afxs::kUserSource, m_link->fileName(), EBUSY);
    return false;
  }
  if (!m_link->fileIsAsSeen(f)) return false;

  std::wstring tmpPath = m_link->fileName() + L".tmp";
  if (tmpPath.size() > kPathBuffer - 1) tmpPath.resize(kPathBuffer - 1);
  LuAfxsCreateLink out(tmpPath.c_str());
  out.setHeader(getHeader());
  out.setCameras(m_link->getCameras());
  // A cameras record whose table could not be read (a failed read, or
  // damage) would be dropped by the rewrite without a word: the rewrite is
  // refused instead and the file stays as it is.
  if (out.getCameras().cameras.empty() && m_link->m_recordIndex.count(LU_AFXS_REC_CAMERAS) != 0)
    return false;
  if (!out.create(true)) return false;
  for (LuAfxsUserData* data : m_dataList) {
    if (!data->copy(out, ~mask)) {
      // Intended: the temporary file stays behind; a writer that failed
      // deletes its partial file itself.
      out.release();
      return false;
    }
  }
  // The rewrite and its name are on the device before the original goes; a
  // rewrite that cannot be completed is deleted by its link (not OK).
  if (!out.closeDurably()) return false;
  if (!luio::syncFolderOf(tmpPath)) {
    out.isOK(false);
    return false;
  }
  out.release();
  m_link->closeFile(true);
  if (!luio::lockSurvivesDelete()) original.release();
  LuDeleteFile(m_link->fileName().c_str());
  // The results of the delete and the move are not checked.
  LuMoveFile(tmpPath.c_str(), m_link->fileName().c_str(), 0);
  luio::syncFolderOf(m_link->fileName());
  return true;
}

LuAfxsUserDataSet::iterator LuAfxsUserDataSet::find(unsigned long planeId, unsigned long subsetId) {
  for (auto it = m_dataList.begin(); it != m_dataList.end(); ++it) {
    const LuAfxsPlane& plane = (*it)->getPlaneData();
    if (plane.planeId == planeId && plane.subsetId == subsetId) return it;
  }
  return m_dataList.end();
}

bool LuAfxsUserDataSet::flushResults() {
  LuAfxsUserLink::ResultsMark mark = m_link->resultsMark();
  std::vector<LuAfxsUserData*> flushed;
  for (LuAfxsUserData* data : m_dataList) {
    if (!data->hasUnflushedResults()) continue;
    const uint32_t linkBlock = data->resultsLinkBlock();
    if (linkBlock != 0 && data->flush()) {
      mark.linkBlocks.push_back(linkBlock);
      flushed.push_back(data);
      continue;
    }
    // Taken back, the records are as before: results in memory, none in the file.
    if (m_link->takeBackResults(mark))
      for (LuAfxsUserData* done : flushed) done->m_resultsOffset = 0;
    return false;
  }
  return true;
}

void LuAfxsUserDataSet::closefile() { m_link->closeFile(true); }

// Made in the set's arena and entered at the end of the list; a failure
// leaves neither object nor entry behind.
LuAfxsUserData* LuAfxsUserDataSet::newRecord(long recordOffset, uint32_t planeId,
                                             uint32_t subsetId) {
  if (!m_records)
    m_records =
        std::make_shared<afxs::RecordArena>(sizeof(LuAfxsUserData), alignof(LuAfxsUserData));
  auto* data =
      ::new (m_records->allocate()) LuAfxsUserData(*m_link, recordOffset, planeId, subsetId);
  try {
    push_back(data);
  } catch (...) {
    data->~LuAfxsUserData();
    throw;
  }
  return data;
}

// Objects of the arena are destroyed in place and their storage goes with
// the arena; any other object was a heap object of its own.
void LuAfxsUserDataSet::clear(bool keepOpen) {
  for (LuAfxsUserData* data : m_dataList) {
    if (m_records && m_records->holds(data)) {
      data->~LuAfxsUserData();
    } else {
      delete data;
    }
  }
  m_dataList.clear();
  m_records.reset();
  m_link->closeFile(!keepOpen);
}

void LuAfxsUserDataSet::push_back(LuAfxsUserData* const& data) { m_dataList.push_back(data); }

LuAfxsHeader LuAfxsUserDataSet::getHeader() {
  const LuAfxsHeader& source = m_link->getHeader();
  LuAfxsHeader header;
  header.version = source.version;
  for (int i = 0; i < 3; ++i) {
    header.point[i] = source.point[i];
    header.normal[i] = source.normal[i];
  }
  header.numPlanes = source.numPlanes;
  header.distBwPlanes = source.distBwPlanes;
  return header;
}

unsigned int LuAfxsUserDataSet::getSubsetsIds(std::vector<unsigned int>& ids) {
  for (const LuAfxsUserData* data : m_dataList) {
    unsigned int id = data->getPlaneData().subsetId;
    bool seen = false;
    for (unsigned int known : ids) {
      if (known == id) {
        seen = true;
        break;
      }
    }
    if (!seen) ids.push_back(id);
  }
  return static_cast<unsigned int>(ids.size());
}

unsigned int LuAfxsUserDataSet::getCurrentSubsetsPlanes(std::vector<const LuAfxsPlane*>* planes,
                                                        unsigned int subsetId, unsigned long mask) {
  for (LuAfxsUserData* data : m_dataList) {
    data->load(mask);  // a failure is ignored: the entry still counts
    if (data->getPlaneData().subsetId == subsetId) planes->push_back(&data->getPlaneData());
  }
  return static_cast<unsigned int>(planes->size());
}
