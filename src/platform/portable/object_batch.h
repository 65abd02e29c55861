#pragma once
// Delete and Move take a list of objects: each gets its own result, and the
// call answers the one object's result, or S_FALSE when some of several failed.
#include <string>
#include <vector>

#include "platform/system/codes.h"
#include "platform/system/wintypes.h"

namespace qb::portable {

template <class Fn>
HRESULT ForEachObject(const std::vector<std::string>& ids, std::vector<PROPVARIANT>* results, Fn fn) {
  if (results) results->clear();
  HRESULT last = S_OK;
  size_t failed = 0;
  for (const auto& id : ids) {
    const HRESULT one = fn(id);
    if (results) results->push_back(PROPVARIANT::Error(one));
    if (FAILED(one)) {
      ++failed;
      last = one;
    }
  }
  if (failed == 0) return S_OK;
  return ids.size() == 1 ? last : S_FALSE;
}

}  // namespace qb::portable
