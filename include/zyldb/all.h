#pragma once

// The whole public API of zyldb. Hosts include this one header and link
// zyldb::zyldb (or -lzyldb).

#include <zyldb/audit/Audit.h>
#include <zyldb/container/QMContainerFile.h>
#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/LoadError.h>
#include <zyldb/db/ODBBase.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/export.h>
#include <zyldb/fieldmap/FieldMap.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/AssocList.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/CriticalSection.h>
#include <zyldb/platform/GrowString.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/Notifier.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/QmPtr.h>
#include <zyldb/platform/SystemWatchdog.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextSearch.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/platform/configb.h>
#include <zyldb/platform/time_def.h>
#include <zyldb/sexpr/SExpr.h>
#include <zyldb/version.h>
#include <zyldb/view/ODBView.h>
#include <zyldb/view/ODBViewCursor.h>
#include <zyldb/view/ViewIndex.h>
#include <zyldb/zyldbDllVersion.h>
