// The part of the blending machinery that a client may call directly: dropping
// the data sets registered for one cross-section.
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

// Destroys every non-null data set registered under xsId and erases the entry
// (a no-op when there is none). The blending scratch state is left as it is:
// it describes the last P/Q pair blended, whichever cross-section that was.
// m_VecCurrDataSets is not touched either, so after clearing the current id it
// still holds the (now destroyed) pointers; callers start a new unification
// before they use it again.
void LuAfxsUserDataSet::ClearXSBlendingInfo(unsigned int xsId) {
  auto entry = m_MapXSId2DataSet.find(xsId);
  if (entry != m_MapXSId2DataSet.end()) {
    // A copy, so that the entry can be erased whatever the destructors do.
    std::vector<LuAfxsUserDataSet*> dataSets = entry->second;
    for (LuAfxsUserDataSet* dataSet : dataSets) delete dataSet;  // delete of null is a no-op
  }
  m_MapXSId2DataSet.erase(xsId);
}
