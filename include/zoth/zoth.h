/// \file
/// The whole public interface of ZOTH Common in one include: the classes and the Win32 types and
/// constants their declarations use (see zoth/platform/ZothTypes.h; each macro only where the client
/// has not defined it). The Win32 calls and error codes of the platform layer come with
/// "zoth/win32.h". Needs C++20.
#pragma once

// First, so that a compiler in an older language mode stops with a message naming C++20.
#include "zoth/platform/ZothTypes.h"

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
