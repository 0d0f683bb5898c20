// velmora.h: the interface of the Velmora HART master driver library.
//
// Velmora is a HART master on ordinary serial ports. A client registers a notice window with a
// port, hands in requests, gets a posted notice when a reply is in, and fetches the reply. Beside
// that the library offers a line monitor, a history of exchanges as text, and a toolbox of HART
// data handling.
//
// Threads. Every export may be called from any thread. Each open port has one worker thread that
// runs the whole link layer; it never waits for an application. Results reach applications as
// notices posted to their notice window (a mailbox; see "Notice windows"), never by callback.
// The tables are open: accessors hand out pointers to rows, and a client may write through them.
// Words that the worker shares with application threads are atomics, so reading and writing them
// through a row pointer is safe; queue words are guarded (see LockTransmitQueue).
//
// Errors are results: 1 for success, 0 for failure, -1 (all bits set) for a handle or count that
// could not be had. No export throws. Handles: hApp is a row of the application table (0..99),
// hServ a row of the service table (0..999), nDriverId a port row (0..31, the port number minus 1).
// 65535 as a service number marks a burst frame.
#ifndef VELMORA_H
#define VELMORA_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "velmora_strings.h"

#if defined(_WIN32)
// On Windows the window types and messages are the system's own: a client passes any window it
// owns (a message-only one serves a console program), and notices arrive through its message
// queue. The exports are listed in the DLL's .def file.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#define VELMORA_API
#else
#if defined(VELMORA_BUILDING)
#define VELMORA_API __attribute__((visibility("default")))
#else
#define VELMORA_API
#endif
#endif

// ---------------------------------------------------------------------------------------------
// Basic types. u32 is unsigned int; pointer-sized where a pointer or handle is carried.
#if !defined(_WIN32)
typedef unsigned int UINT;
typedef int BOOL;
typedef std::uintptr_t WPARAM;
typedef std::intptr_t LPARAM;
typedef void *HANDLE;
typedef struct VelmoraNoticeWindow *HWND;  // opaque; made by CreateNoticeWindow
#endif
struct CWinThread;  // opaque: a port's worker thread

#define VELMORA_INVALID_HANDLE (reinterpret_cast<HANDLE>(~static_cast<std::uintptr_t>(0)))
#define VELMORA_NONE 0xFFFFFFFFu    // -1 in a u32 handle or result
#define VELMORA_BURST_SERVICE 65535u // service number of a burst frame
#define VELMORA_BUSY_NOTICE 1167u   // message number of the busy notice
// Link events (wParam of the nLinkEventMsg notice): 1 transmission starts, 2 it ended,
// 3 reception starts, 4 reception ended; 5 the line went away (device unplugged or its far end
// closed), sent to every application on the port. Then every request of the port ends with a
// failure notice, the port reads closed, and a new registration opens it again.
#define VELMORA_LINK_LOST 5u

#if !defined(_WIN32)
// A posted notice.
struct MSG {
  HWND hwnd;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
  unsigned int time;  // clock value (ms) when posted
};
#define PM_NOREMOVE 0u
#define PM_REMOVE 1u

// Placeholder for the platform's per-operation I/O record; kept for the row layout only.
struct OVERLAPPED {
  std::uintptr_t Internal;
  std::uintptr_t InternalHigh;
  unsigned int Offset;
  unsigned int OffsetHigh;
  HANDLE hEvent;
};
#endif

typedef std::atomic<unsigned int> VelmoraWord;  // a 32-bit word shared between threads

// ---------------------------------------------------------------------------------------------
// Queue elements and queues.

// One request or reply with its own copy of the bytes. On a transmit queue and while in
// service the data is the whole request frame (preambles and checksum included); after
// delivery it is the reply's data field (two status bytes, then the payload), or nothing.
struct typQueueElement {
  typQueueElement *pNext;
  HANDLE hSelf;  // the element's own block; non-zero while it lives
  HANDLE hData;  // the data block; 0 if none
  unsigned int bUnposted;
  HWND hPostWnd;
  unsigned int nPostMsg;
  unsigned int wParam;
  unsigned int lParam;
  unsigned int nAppHandle;
  unsigned int dwSpare1;
  unsigned int nReplyCommand;
  unsigned int nClearMark;
  unsigned int nServiceHandle;  // hServ, or 65535 for a burst frame
  unsigned int nDriverId;
  unsigned int dwSpare2;
  unsigned int dwReplySpare;
  unsigned int nDataLen;
  unsigned char *pData;
};

// A singly linked queue. pTail is null while fewer than two elements are held.
// bLocked: set by the application side around its work on the queue; while it is set the
// worker thread leaves the queue alone.
struct typQueue {
  typQueueElement *pHead;
  typQueueElement *pTail;
  unsigned int nCount;
  unsigned int nMaxCount;  // 1000: a queue holds at most 999 elements
  VelmoraWord bLocked;
};

// ---------------------------------------------------------------------------------------------
// Per-port records.

// Parser record of a port: the frame being received.
struct typRxFrameStruct {
  unsigned char nRxState;  // 0 between frames, 1 hunting, 2 preambles, 3 in frame, 4 discarding
  unsigned char abFrame[512];
  unsigned char nFrameLen;
  unsigned char nExpectedLen;
  unsigned char nHeaderLen;
  unsigned char bChecksum;
  unsigned int nMsgType;  // 1..9, see the message types of the receiver
  unsigned int nPreambleCount;
  unsigned int bRxRolePrimary;
  unsigned int bFrameValid;
  unsigned int nBytesThisCycle;
  unsigned char abMonitor[512];
  unsigned int nMonitorLen;
};

// Time-out record of a port. Times are clock values in milliseconds; tStart 0 means not armed.
struct typTimerControlStruct {
  unsigned int tStart;
  unsigned int tLastRx;
  unsigned int nTimeOutMs;
  unsigned int tNow;
  unsigned int nCharTimeOutMs;
  unsigned int nDriverId;
  VelmoraWord nBaudCode;
};

// One row per port (32). Handed out whole by GetComPortInfo and RegisterApplication.
struct tagCOMPORTINFO {
  unsigned int bPortInUse;
  unsigned int dwReserved04;
  unsigned int nOpenCount;
  unsigned int nDriverId;
  unsigned char abRxFrame[256];
  unsigned int nRxFrameLen;
  VelmoraWord dwDebugFlags;  // 1 state trace, 2 receive details, 8 service details
  unsigned int tTraceBase;
  unsigned int tLastNotify;
  unsigned int tFrameStart;
  unsigned int tTxStart;
  typQueue *pTransmitQueue;
  typQueueElement *pActiveElement;
  unsigned char abTxFrame[256];
  unsigned int nTxFrameLen;
  unsigned char abSimResponse[256];
  unsigned int nSimResponseLen;
  unsigned int nTxBusy;
  VelmoraWord nPreambles;
  VelmoraWord bLongPreambleFix;
  VelmoraWord bPrimaryMaster;
  typRxFrameStruct *pRxFrame;
  typTimerControlStruct *pTimer;
  unsigned int nNonPreambleBytes;
  unsigned int bBurstSeen;
  unsigned int bRequestPending;
  unsigned int nRetryCount;
  unsigned int nRetryAux;
  VelmoraWord nRetries;
  VelmoraWord nMacState;
  std::atomic<HANDLE> hComPort;  // -1 while the port is closed
  CWinThread *pThread;
  OVERLAPPED ovlRead;
  OVERLAPPED ovlWrite;
  unsigned int adwReserved[5];
  VelmoraWord bThreadRun;
  VelmoraWord bThreadDone;
  std::atomic<HWND> hHistoryWnd;
  VelmoraWord nHistoryMsg;
  VelmoraWord nTxRequest;  // 0 idle, 1 frame waiting in abTxFrame, 2 sent, answer awaited
  VelmoraWord nMonitorMsg;
  std::atomic<HWND> hMonitorWnd;
  VelmoraWord nBaudCode;  // 0 = 1200, 1 = 9600, 2 = 19200 baud
  VelmoraWord nExtraRtsDelay;
  unsigned int nFailedCycles;
};

// One row per registered application (100).
struct tagAPPINFO {
  VelmoraWord bInUse;
  VelmoraWord nDriverId;
  VelmoraWord nAppKey;
  VelmoraWord nBurstAppKey;  // non-zero: burst frames wanted; sent as lParam of their notice
  std::atomic<HWND> hWnd;
  VelmoraWord nReplyCount;
  VelmoraWord nLinkEventMsg;
  VelmoraWord nReplyMsg;
  VelmoraWord bRepeatIfBusy;  // non-zero: repeat a request the device answers with busy
};

// One row per request under way (1000). nServiceState: 0 free, 1 in use, 4 owner gone.
struct tagSERVICEINFO {
  VelmoraWord nServiceState;
  VelmoraWord nAppHandle;
  VelmoraWord bRequestSent;
  VelmoraWord nAppId;
};

// ---------------------------------------------------------------------------------------------
// Records of the request interface. The caller owns them.

struct tagHARTREQUEST {
  unsigned int nCommand;           // request: command (low byte); reply: command byte, 0 if none
  unsigned char nAddressFormat;    // 2: long frame; anything else: short frame
  unsigned char nPollingAddress;   // short frame address, 0..15
  unsigned char abLongAddress[5];  // long frame address
  unsigned char *pData;            // request: data to send; reply: room for 253 bytes
  unsigned int dwSpare;
  unsigned int nDataCount;         // request: data bytes (low byte); reply: bytes written
  unsigned char nResponseCode;     // reply: first status byte; 128 when the transaction failed
  unsigned char nDeviceStatus;     // reply: second status byte; 0 when it failed
  unsigned int dwReplySpare;       // reply: always 0
};

struct tagHARTREGISTRATION {
  HWND hWnd;
  unsigned int nPort;  // 1..32
  unsigned int nBaudCode;
  unsigned int nLinkEventMsg;
  unsigned int nReplyMsg;
  unsigned int nHistoryMsg;
  unsigned int nAppKey;
};

struct tagHARTCONFIG {
  unsigned int nMasterType;  // write: 1 primary, else secondary; read: 1 primary, 2 secondary
  unsigned int nPreambles;   // 5..20
  unsigned int nRetries;     // 0..10
  unsigned int nBaudCode;    // 0, 1, 2
  unsigned int nExtraRtsDelay;
};

// One record of the history store.
struct typHistoryRecord {
  unsigned int tRecordStart;
  unsigned int nRspPreambles;
  CByteArray *pRequestBytes;
  CString *psRequestTime;
  CByteArray *pResponseBytes;
  CString *psResponseTime;
  CString *psReceiveDetails;
  CString *psStates;
  CString *psQueueDetails;
  CString *psServiceDetails;
};

// The display columns of one monitored frame (FrameDump).
struct typFrameDumpStruct {
  unsigned int adwCaller[5];
  CString sPreamble;
  CString sDelimiter;
  CString sAddress;
  CString sCommand;
  CString sByteCount;
  CString sStatus;
  CString sData;
  CString sChecksum;
  CString sFrameType;
  CString sRest;
  CString sError;
  CString sGapTime;
  CString sFrameTime;
  CString sRemark;
  CString sLinkEvent;
  unsigned int bUseSyntax;
  unsigned int bShowCommandName;
  unsigned int nError;
  unsigned int nReserved;
  unsigned int nFrameKind;
  unsigned int nLinkEvent;
  unsigned int bDecimal;
  unsigned int bSecondaryMaster;
  unsigned int bStatusBinary;
  unsigned int bRawData;
  int nCommand;
  int nMaster;
};

// A simulated-response hook: given the request frame as sent (preambles included), it may
// place a response (preambles included) in pResponse (256 bytes) and its length in
// *pnResponseLen; the worker then reads that instead of the line. 0 leaves the line in use.
typedef void (*VelmoraSimResponseFn)(const unsigned char *pRequest, unsigned int nRequestLen,
                                     unsigned char *pResponse, unsigned int *pnResponseLen);

extern "C" {

// ---------------------------------------------------------------------------------------------
// Notice windows. A monitor notice carries a CByteArray* in lParam that the receiver must delete.
// On POSIX a window is a mailbox owned by the client. Posting never blocks; it fails for a null
// or destroyed window and when 10,000 notices wait.
// On Windows a notice window is a message-only window of the calling thread, and notices are
// that thread's messages: fetch them on it (GetMessageTimeout, or the system's own calls), and
// destroy the window on it. Any other window of the client serves as well.
VELMORA_API HWND CreateNoticeWindow(void) noexcept;
VELMORA_API void DestroyNoticeWindow(HWND hWnd) noexcept;  // pending notices are dropped
#if !defined(_WIN32)
VELMORA_API BOOL PostMessageA(HWND hWnd, UINT nMsg, WPARAM wParam, LPARAM lParam) noexcept;
// Filter nMin..nMax (both 0: any message). nRemove: PM_REMOVE or PM_NOREMOVE. Never blocks.
VELMORA_API BOOL PeekMessageA(MSG *pMsg, HWND hWnd, UINT nMin, UINT nMax, UINT nRemove) noexcept;
#endif
// Waits up to nTimeoutMs for a notice and removes it. 0 on time-out or a bad window.
VELMORA_API BOOL GetMessageTimeout(MSG *pMsg, HWND hWnd, unsigned int nTimeoutMs) noexcept;
// A descriptor that polls readable while notices wait; -1 for a bad window, and always on
// Windows, where MsgWaitForMultipleObjects waits for the thread's messages.
VELMORA_API int GetNoticeWindowFd(HWND hWnd) noexcept;

// Maps port nPort (1..32) to a device path, or to "mem:NAME" for an in-memory line. Null or
// empty restores the default: /dev/ttyS<nPort-1> on POSIX, COM<nPort> on Windows (where a name
// without a backslash is opened as \\.\NAME, so that COM10 and above work). Read at the port's
// next open. 1 done, 0 bad port.
VELMORA_API unsigned int SetComPortDevice(unsigned int nPort, const char *szDevice) noexcept;
// Installs (or with null removes) the simulated-response hook for all ports.
VELMORA_API void SetSimResponseHook(VelmoraSimResponseFn pfnHook) noexcept;

// ---------------------------------------------------------------------------------------------
// Table accessors. Pointers point into the tables and live as long as the library. An
// out-of-range handle gives null, 0 or -1.
VELMORA_API tagAPPINFO *GetAppInfo(unsigned int hApp) noexcept;
VELMORA_API unsigned int GetAppKey(unsigned int hApp) noexcept;
VELMORA_API typQueue *GetAppReceiveQueue(unsigned int hApp) noexcept;
VELMORA_API HWND GetApphWnd(unsigned int hApp) noexcept;
VELMORA_API unsigned int GetBurstAppKey(unsigned int hApp) noexcept;
VELMORA_API HANDLE GetComPortHandle(unsigned int hApp) noexcept;  // -1 for hApp -1 or a closed port
VELMORA_API tagCOMPORTINFO *GetComPortInfo(unsigned int hApp) noexcept;
VELMORA_API unsigned int GetDriverId(unsigned int hApp) noexcept;
VELMORA_API unsigned int GetRepeatIfBusy(unsigned int hApp) noexcept;
VELMORA_API tagSERVICEINFO *GetServiceInfo(unsigned int hServ) noexcept;  // null for -1

// ---------------------------------------------------------------------------------------------
// Registration and request entry. RegisterApplication opens the port on its first
// registration (and blocks until the worker has started); UnRegisterApplication closes it on
// the last (and blocks until the worker has stopped, at most 5 s).
// The calls below that act on a registration (unregistering, the monitor, service handles,
// appending, and the HART_ calls from HART_UnRegisterDriver on) refuse a row that is not
// registered now: they answer 0 (-1 for a handle) and change nothing. Unregistering clears the
// row's window and burst key, so its next owner inherits neither.
VELMORA_API unsigned int RegisterApplication(unsigned int nPort, HWND hWnd, unsigned int nBaudCode,
                                             unsigned int nReplyMsg, unsigned int nLinkEventMsg,
                                             unsigned int nHistoryMsg, unsigned int nAppKey,
                                             unsigned int *phApp, tagCOMPORTINFO **ppPortInfo,
                                             tagAPPINFO **ppAppInfo) noexcept;
VELMORA_API unsigned int UnRegisterApplication(unsigned int hApp) noexcept;
VELMORA_API unsigned int RegisterLLMonitor(unsigned int hApp, HWND hWnd, unsigned int nMsg) noexcept;
VELMORA_API unsigned int UnRegisterLLMonitor(unsigned int hApp) noexcept;
VELMORA_API unsigned int GetServiceHandle(unsigned int hApp, tagSERVICEINFO **ppService,
                                          tagAPPINFO **ppApp, tagCOMPORTINFO **ppPort) noexcept;
// Takes the transmit queue of the application's port (waits while another thread holds it;
// a second call on the holding thread is a no-op) and sets bLocked. Always 1.
VELMORA_API unsigned int LockTransmitQueue(unsigned int hApp) noexcept;
VELMORA_API unsigned int UnLockTransmitQueue(unsigned int hApp) noexcept;
VELMORA_API unsigned int AppendTransmitQueue(unsigned int hApp, typQueueElement *pElement) noexcept;
VELMORA_API unsigned int SetBaudRate(tagCOMPORTINFO *pPort) noexcept;

// ---------------------------------------------------------------------------------------------
// The request interface.
// Registers a notice window with a port (see RegisterApplication). 1 registered; 0 not, *phApp -1.
VELMORA_API unsigned int HART_RegisterDriver(tagHARTREGISTRATION *pReg, unsigned int *phApp) noexcept;
VELMORA_API unsigned int HART_UnRegisterDriver(unsigned int hApp) noexcept;
// Stores the five settings of the application's port, clamped (preambles 5..20, retries 0..10,
// baud code 0..2 with anything above 2 as 0), and puts the rate into effect at once. Reading gives
// nMasterType 1 for a primary master and 2 for a secondary one. 1 done; 0 for a row not registered
// or a null record.
VELMORA_API unsigned int HART_SetConfiguration(unsigned int hApp, tagHARTCONFIG *pConfig) noexcept;
VELMORA_API unsigned int HART_GetConfiguration(unsigned int hApp, tagHARTCONFIG *pConfig) noexcept;
// Queues a request; returns hServ, or -1 (no service row, no memory, queue full, or a frame
// that would pass 256 bytes). The reply notice carries hServ in wParam.
VELMORA_API unsigned int HART_SendRequest(unsigned int hApp, tagHARTREQUEST *pRequest,
                                          unsigned int nAppId) noexcept;
// 1 reply delivered into *pRequest; 0 no reply for hServ at present (also for hServ 65535). A
// failed transaction is delivered as a reply of no data, response code 128, status 0. Copies at
// most 253 bytes to pRequest->pData.
VELMORA_API unsigned int HART_ReceiveRequest(unsigned int hApp, unsigned int hServ,
                                             tagHARTREQUEST *pRequest, unsigned int *pnAppId) noexcept;
// These accept their call from a registered application, change nothing and return 1. Write
// the row fields instead.
VELMORA_API unsigned int HART_DiscardRequests(unsigned int hApp) noexcept;
VELMORA_API unsigned int HART_SetTestDLL(unsigned int hApp, const char *szModule) noexcept;
VELMORA_API unsigned int HART_RegisterBurstAppKey(unsigned int hApp, unsigned int nKey) noexcept;
VELMORA_API unsigned int HART_SetRepeatIfBusy(unsigned int hApp) noexcept;
VELMORA_API unsigned int HART_ClearRepeatIfBusy(unsigned int hApp) noexcept;
VELMORA_API unsigned int HART_ClearBurstQueue(unsigned int hApp) noexcept;
VELMORA_API unsigned int HART_GetNumberOfBurst(unsigned int hApp, unsigned int *pnCount) noexcept;
VELMORA_API unsigned int HART_GetBurst(unsigned int hApp, tagHARTREQUEST *pRequest) noexcept;
VELMORA_API unsigned int HART_SetDebugFlags(unsigned int hApp, unsigned int dwFlags) noexcept;

// ---------------------------------------------------------------------------------------------
// Queue elements and queues. No checks of buffer sizes: the caller's buffers must be large
// enough. These take no lock; see LockTransmitQueue for the guarded forms.
VELMORA_API typQueueElement *fncCreateQueueElement(void) noexcept;
VELMORA_API unsigned int fncInitQueueElement(typQueueElement *pElement) noexcept;
VELMORA_API unsigned int fncDestroyQueueElement(typQueueElement *pElement) noexcept;
VELMORA_API unsigned int fncSetQueueElementData(typQueueElement *pElement, unsigned char *pData,
                                                unsigned int nLength) noexcept;
VELMORA_API unsigned int fncGetQueueElementData(typQueueElement *pElement, unsigned char *pBuffer,
                                                unsigned int *pnLength) noexcept;
VELMORA_API unsigned int fncGetQueueElementHartData(typQueueElement *pElement, unsigned char *pBuffer,
                                                    unsigned int *pnLength) noexcept;
VELMORA_API unsigned int fncCopyQueueElement(typQueueElement *pDest, typQueueElement *pSource) noexcept;
VELMORA_API unsigned int fncInitQueue(typQueue *pQueue) noexcept;
VELMORA_API unsigned int fncDeleteQueue(typQueue *pQueue) noexcept;
VELMORA_API unsigned int fncAppendQueueElement(typQueue *pQueue, typQueueElement *pElement) noexcept;
VELMORA_API unsigned int fncRemoveQueueElement(typQueue *pQueue, typQueueElement *pElement) noexcept;
VELMORA_API unsigned int fncIfLocked(typQueue *pQueue) noexcept;
VELMORA_API unsigned int fncInitAllQueues(void) noexcept;

// Searches and clearing.
VELMORA_API typQueueElement *fncFindTransmitService(unsigned int hApp, unsigned int hServ) noexcept;
VELMORA_API typQueueElement *fncFindReceiveService(unsigned int hApp, unsigned int hServ) noexcept;
VELMORA_API typQueueElement *fncFindTransmitApplication(unsigned int nDriverId, unsigned int hApp) noexcept;
VELMORA_API typQueueElement *fncFindReceiveApplication(unsigned int hAppQueue, unsigned int hApp) noexcept;
VELMORA_API typQueueElement *fncAppQueueExists(unsigned int hApp) noexcept;
VELMORA_API unsigned int fncClearAllQueues(void) noexcept;
// Drops the application's queued requests and its results; their service handles are free again
// and may be handed out anew, so notices of cleared results still in the window are stale.
VELMORA_API unsigned int fncClearQueuesOfApp(unsigned int nDriverId, unsigned int hApp) noexcept;
VELMORA_API unsigned int fncClearQueuesOfCom(unsigned int nDriverId) noexcept;
VELMORA_API unsigned int fncClearBurstQueue(unsigned int hApp) noexcept;
VELMORA_API unsigned int fncGetBurstCount(unsigned int hApp) noexcept;

// Delivery.
VELMORA_API unsigned int fncPassToApplication(tagCOMPORTINFO *pPort, unsigned int bGood,
                                              typQueueElement *pElement, unsigned int bFree,
                                              unsigned short bBurstBit) noexcept;
VELMORA_API unsigned int fncPassReceivePendingQueue(void) noexcept;
VELMORA_API void subSendOutstandingMessages(void) noexcept;

// ---------------------------------------------------------------------------------------------
// Time-outs, port control and frame hand-over.
VELMORA_API void toSetTimeOutSys(typTimerControlStruct *pTimer, unsigned int nCode) noexcept;
VELMORA_API void toSetTimeOutEv(typTimerControlStruct *pTimer, unsigned int nCode) noexcept;
VELMORA_API void toSetTimeOutRcv(typTimerControlStruct *pTimer, unsigned int nCode) noexcept;
VELMORA_API void toModifyTimeOut(typTimerControlStruct *pTimer, unsigned int nCode) noexcept;
VELMORA_API unsigned int toIfTimeOut(typTimerControlStruct *pTimer) noexcept;

// Opens a port for HART and starts its worker: the handle, or -1. Only 8 data bits (nDataBits 8),
// odd parity (nParity 1) and one stop bit (nStopBits 0) are supported; anything else gives -1.
// A port open already gives its handle again and counts one more user.
VELMORA_API HANDLE OpenComPort(unsigned int nPort, unsigned int nBaudCode, unsigned int nDataBits,
                               unsigned int nParity, unsigned int nStopBits, HWND hHistoryWnd,
                               unsigned int nHistoryMsg) noexcept;
// Stops the port's worker (at once; at most 5 s) and closes it for every application on it: what
// they still wait for ends with failure notices, and the next registration opens it again.
// 1 closed; 0 for a handle no open port has (a second close included).
VELMORA_API unsigned int CloseComPort(HANDLE hComPort) noexcept;
// Puts the port row's baud code into effect; the port's worker changes the line's rate.
VELMORA_API unsigned int ComSetBaudRate(tagCOMPORTINFO *pPort) noexcept;
// 1 taken, 0 the port is busy, -1 no port has this handle (also for -1 and over 256 bytes).
VELMORA_API unsigned int WriteToCom(HANDLE hComPort, unsigned char *pFrame, unsigned int nLength) noexcept;

// ---------------------------------------------------------------------------------------------
// Diagnostics: monitor notices (the argument is the port's tagCOMPORTINFO row) and the history.
VELMORA_API void NotifyLLmonitor(char *pPort) noexcept;
VELMORA_API void NotifyLLmonitorTimeOut(char *pPort, unsigned int nCode) noexcept;
VELMORA_API void NotifyLLmonitorTransmit(char *pPort) noexcept;

VELMORA_API void InitHistory(void) noexcept;
VELMORA_API void FlushHistory(void) noexcept;
VELMORA_API void StartHistory(void) noexcept;
VELMORA_API unsigned int IncrementHistory(void) noexcept;
VELMORA_API unsigned int GetHistorySize(void) noexcept;
VELMORA_API void SetRspPAs(unsigned int nPreambles) noexcept;
VELMORA_API unsigned int GetRspPAs(void) noexcept;
VELMORA_API void putHistRequest(unsigned char *pBytes, unsigned int nLength) noexcept;
VELMORA_API void putHistResponse(unsigned char *pBytes, unsigned int nLength) noexcept;
VELMORA_API void addHistReceiveDetails(char *szLine) noexcept;
VELMORA_API void addHistStates(char *szLine) noexcept;
VELMORA_API void addHistQueueDetails(char *szLine) noexcept;
VELMORA_API void addHistServiceDetails(char *szLine) noexcept;
// nFlags: 2 receive details, 4 state trace, 8 service details, 16 decoded frames.
VELMORA_API CString GetHistory(unsigned int nFlags) noexcept;

// ---------------------------------------------------------------------------------------------
// Field codec. Multi-byte fields are most significant byte first. No index is checked.
VELMORA_API unsigned int Swapl(unsigned int nValue) noexcept;
VELMORA_API unsigned int DoubleToIEEE754(double dValue) noexcept;
VELMORA_API double IEEE754ToFlp(unsigned int nRaw) noexcept;
VELMORA_API unsigned char PickInt8(unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API void PutInt8(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API unsigned int PickInt16(unsigned char *pBuffer, unsigned int nIndex, unsigned int bLowFirst) noexcept;
VELMORA_API void PutInt16(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API unsigned int PickInt24(unsigned char *pBuffer, unsigned int nIndex, unsigned int bLowFirst) noexcept;
VELMORA_API void PutInt24(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API unsigned int PickInt32(unsigned char *pBuffer, unsigned int nIndex, unsigned int bLowFirst) noexcept;
VELMORA_API void PutInt32(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API double PickFloat(unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API void PutFloat(double dValue, unsigned char *pBuffer, unsigned int nIndex) noexcept;
VELMORA_API void PutPackedASCII(CString &sText, unsigned char *pBuffer, unsigned int nIndex, int nCount) noexcept;
VELMORA_API CString PickPackedASCII(unsigned char *pBuffer, unsigned int nLength, int nIndex) noexcept;
VELMORA_API void PutString(CString &sText, unsigned char *pBuffer, unsigned int nIndex, int nCount) noexcept;
VELMORA_API CString PickString(unsigned char *pBuffer, unsigned int nLength, int nIndex) noexcept;

// Text and hex.
VELMORA_API unsigned int CutPiece(CString &sText, CString &sPiece) noexcept;
VELMORA_API unsigned int CutPieceTrim(CString &sText, CString &sPiece) noexcept;
VELMORA_API CString GetHexCharacter(unsigned char nValue) noexcept;
VELMORA_API CString HexToText(unsigned char nValue) noexcept;
VELMORA_API void BufferToHex(unsigned char *pBuffer, int nLength, CString &sResult) noexcept;
VELMORA_API unsigned int GetHexVal(CString &sText) noexcept;
VELMORA_API unsigned int GetBinVal(CString &sText) noexcept;
VELMORA_API CString HexDump(unsigned char *pBuffer, unsigned int nLength) noexcept;
VELMORA_API void GetSelectedBuffer(CString sText, CByteArray *pBytes) noexcept;
VELMORA_API CString IntToBin(unsigned int nValue) noexcept;
VELMORA_API CString SimpleHexDump(unsigned char *pBuffer, unsigned int nLength) noexcept;

// Data syntax language.
VELMORA_API void DataSyntaxToBuffer(CString &sSyntax, CByteArray *pLongAddress, unsigned char nPollAddress,
                                    CString &sResult) noexcept;
// Writes one byte per comma-separated piece of sNumbers: pBuffer must hold that many, which is at
// most the text's length plus one. Nothing checks it.
VELMORA_API void NumStrToBuffer(CString &sNumbers, unsigned char *pBuffer, unsigned int *pnLength) noexcept;

// Unit and manufacturer names ("unknown" for codes without a name).
VELMORA_API CString GetHartUnit(unsigned int nCode) noexcept;
VELMORA_API CString GetHartVendor(unsigned int nCode) noexcept;

// Frame dump of a monitor notice's array (frame bytes, then gap and frame time).
VELMORA_API void FrameDump(unsigned char *pFrame, unsigned int nLength, typFrameDumpStruct *pDump,
                           CString *asRequestSyntax, CString *asResponseSyntax) noexcept;

}  // extern "C"

#endif  // VELMORA_H
