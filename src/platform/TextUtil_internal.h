#pragma once

// Shared by the text code of the platform layer.

namespace zyl::detail {

struct LowerTable {
  constexpr LowerTable();
  unsigned char map[256];
};
// kLower.map[c]: c with ASCII upper-case letters made lower-case.
extern const LowerTable kLower;

}  // namespace zyl::detail
