#pragma once

// The table's sort machinery for other sorters of records (views).

#include <cstdint>
#include <vector>

class dbrecord;

namespace zyl {

// The stable order of `records` under the comparison state that the last
// sortPrepare set: ascending as dbr_cmp orders them, descending (direction
// < 0) as dbr_backcmp does; records that compare equal keep their order. A
// null record counts as a blank one. Each record is read once to build a sort
// key, so this is several times faster than sorting with the comparators on
// large inputs; comco counts the comparisons as they do.
// Returns indexes into `records`. Throws Qm::Exception::BadAlloc.
std::vector<uint32_t> stableSortOrder(const std::vector<dbrecord*>& records, int direction);

}  // namespace zyl
