#include <zyldb/db/ODBBase.h>

ODBBase::~ODBBase() = default;
