#pragma once

// The two message types a table and its views send, interned once.

namespace zyl {

// The type of "recordsDeleted": a text listing deleted row numbers.
int recordsDeletedType();
// The type of "recordsChanged".
int recordsChangedType();

}  // namespace zyl
