// olutil.h: the whole of olutil in one include.
//
// Family: all. Programs that use a few subjects may include their headers alone
// (<olutil/olString.h>, <olutil/olDisSocket.h>, ...); this header brings in every
// public header, lowest layer first.
// Not OLUTIL_OLUTIL_H: that guard belongs to olUtil.h, whose name differs only in case.
#ifndef OLUTIL_UMBRELLA_H
#define OLUTIL_UMBRELLA_H

// Text and values
#include <olutil/olString.h>
#include <olutil/olFilename.h>
#include <olutil/olUtil.h>
#include <olutil/olUuid.h>
#include <olutil/olStringUtil.h>

// Containers
#include <olutil/olList.h>
#include <olutil/olLockfreeQueue.h>
#include <olutil/olThreadSafe.h>
#include <olutil/olHashKeys.h>
#include <olutil/olHashlist.h>
#include <olutil/olHash.h>

// Diagnostics
#include <olutil/olPrint.h>
#include <olutil/olExceptions.h>
#include <olutil/olAssert.h>
#include <olutil/olFatal.h>
#include <olutil/olLogFileInfo.h>
#include <olutil/olMiniDumper.h>

// Concurrency and time
#include <olutil/olMutex.h>
#include <olutil/olThread.h>
#include <olutil/olThreadedObject.h>
#include <olutil/olIoServiceRunnable.h>
#include <olutil/olTime.h>
#include <olutil/olObserver.h>

// Addressing
#include <olutil/olInetAddr.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetDevice.h>
#include <olutil/olInetPlatformUtils.h>
#include <olutil/olInetEndpoint.h>

// Sockets
#include <olutil/olInetSocket.h>
#include <olutil/olInetSocketUtils.h>
#include <olutil/olInetUdpSocket.h>
#include <olutil/olInetTcpSocket.h>
#include <olutil/olInetSocketMgr.h>
#include <olutil/olInetFileTransport.h>

// DIS
#include <olutil/olPduFilterTest.h>
#include <olutil/olDisSocket.h>

// Messaging
#include <olutil/olShmQueue.h>
#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>
#include <olutil/olShmPool.h>
#include <olutil/olCliServer.h>

// Platform
#include <olutil/olProcessControl.h>
#include <olutil/olDynamic.h>
#include <olutil/olKeyboard.h>
#include <olutil/olMemUtil.h>

// FOM
#include <olutil/olFedTarget.h>

#endif  // OLUTIL_UMBRELLA_H
