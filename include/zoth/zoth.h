/// \file
/// The whole public interface of ZOTH Common in one include.
#pragma once

#include "zoth/platform/MemoryHint.h"
#include "zoth/platform/Win32File.h"
#include "zoth/platform/Win32Format.h"
#include "zoth/platform/Win32Guid.h"
#include "zoth/platform/Win32Inet.h"
#include "zoth/platform/Win32Path.h"
#include "zoth/platform/Win32Text.h"
#include "zoth/platform/Win32Thread.h"
#include "zoth/platform/Win32Time.h"
#include "zoth/platform/Win32Types.h"
#include "zoth/platform/Win32Version.h"
#include "zoth/platform/ZothExport.h"

#include "zoth/text/CTimeHelper.h"
#include "zoth/text/STRING_UTIL.h"

#include "zoth/task/CSimpleThread.h"
#include "zoth/task/CTaskBase.h"
#include "zoth/task/CTesselControlBase.h"
#include "zoth/task/CThreadTimer.h"
#include "zoth/task/CTimerBase.h"

#include "zoth/database/CDataBaseInfo.h"
#include "zoth/database/CSqlLiteInternal.h"
#include "zoth/database/CSqlLiteQueryInternal.h"

#include "zoth/file/CFileHepler.h"
#include "zoth/file/CPathHelper.h"

#include "zoth/http/CHttpClientCurl.h"

/// Every class of ZOTH Common: the HTTP client (CHttpClientCurl), tasks, threads and timers
/// (CSimpleThread, CTaskBase, CTesselControlBase, CTimerBase, CThreadTimer), the local database
/// (CDataBaseInfo, CSqlLiteInternal, CSqlLiteQueryInternal), files and directories (CFileHepler,
/// CPathHelper), and text, encoding and time (STRING_UTIL, CTimeHelper).
namespace ZOTH {}
