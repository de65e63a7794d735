// Unifies two files of one cross-section into a third, blending the planes
// where both carry an overlapping contour.
//
//   example_unify_blend first.afxs second.afxs unified.afxs
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s first.afxs second.afxs unified.afxs\n", argv[0]);
    return 2;
  }
  auto wide = [](const char* s) { return std::wstring(s, s + std::char_traits<char>::length(s)); };

  // Progress and failures of the unification arrive as log records.
  luEnvSetLogSink([](const LuLogRecord& r) {
    std::fprintf(r.level >= 5 ? stderr : stdout, "[%d] %ls\n", r.level, r.message.c_str());
  });

  // The links outlive the data sets; the data sets live on the heap because
  // the registry keeps them until ClearXSBlendingInfo destroys them.
  LuAfxsUserLink first(wide(argv[1]).c_str()), second(wide(argv[2]).c_str());
  std::vector<LuAfxsUserDataSet*> sets = {new LuAfxsUserDataSet(first),
                                          new LuAfxsUserDataSet(second)};
  // Output subset ids: planes of the first file are written as subset 1, of
  // the second as subset 2 (0xFFFFFFFF would keep their own ids).
  std::vector<uint32_t> ids = {1, 2};

  // The output takes the first file's header.
  LuAfxsHeader header;
  if (first.verify(false)) header = first.getHeader();
  {
    LuAfxsCreateLink output(wide(argv[3]).c_str());
    output.setHeader(header);
    LuAfxsUserDataSet::SupportXSectionBlending(true);
    LuAfxsUserDataSet::SetCurrentXSId(1);
    // Returns false on every path by design: the log and the output tell.
    sets.front()->UnifyMultipleDataSets(sets, ids, output, LU_AFXS_MASK_ALL);
  }
  LuAfxsUserDataSet::ClearXSBlendingInfo(1);
  return LuFileExist(wide(argv[3]).c_str()) ? 0 : 1;
}
