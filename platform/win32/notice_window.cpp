// The notice helpers on Windows: a notice window is a message-only window of the calling thread,
// and its notices are that thread's posted messages.
#include <windows.h>

#include "platform/clock.h"
#include "velmora.h"

namespace {

constexpr char kClassName[] = "VelmoraNoticeWindow";

// The module this code is linked into: the DLL, or a program that links the library statically.
HINSTANCE ThisModule() {
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&ThisModule), &module);
  return module;
}

bool RegisterNoticeClass() {
  static const bool registered = [] {
    WNDCLASSEXA window_class{};
    window_class.cbSize = sizeof window_class;
    window_class.lpfnWndProc = DefWindowProcA;
    window_class.hInstance = ThisModule();
    window_class.lpszClassName = kClassName;
    return RegisterClassExA(&window_class) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
  }();
  return registered;
}

}  // namespace

extern "C" {

HWND CreateNoticeWindow(void) noexcept {
  if (!RegisterNoticeClass()) return nullptr;
  // Message-only: no display is needed, and it never shows or receives broadcasts.
  return CreateWindowExA(0, kClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, ThisModule(), nullptr);
}

void DestroyNoticeWindow(HWND hWnd) noexcept {
  if (!hWnd || !IsWindow(hWnd)) return;
  if (GetWindowThreadProcessId(hWnd, nullptr) == GetCurrentThreadId()) {
    DestroyWindow(hWnd);
    // Notices still queued for it would be fetched by nobody.
    MSG msg;
    while (PeekMessageA(&msg, hWnd, 0, 0, PM_REMOVE)) {
    }
  } else {
    // Only the owning thread may destroy a window: it does so when it next looks at its messages.
    PostMessageA(hWnd, WM_CLOSE, 0, 0);
  }
}

BOOL GetMessageTimeout(MSG *pMsg, HWND hWnd, unsigned int nTimeoutMs) noexcept {
  if (!pMsg || !hWnd || !IsWindow(hWnd)) return FALSE;
  const uint64_t deadline = velmora::platform::os::MonotonicMicros() + uint64_t{nTimeoutMs} * 1000u;
  for (;;) {
    if (PeekMessageA(pMsg, hWnd, 0, 0, PM_REMOVE)) return TRUE;
    const uint64_t now = velmora::platform::os::MonotonicMicros();
    if (now >= deadline) return FALSE;
    const DWORD wait_ms = static_cast<DWORD>((deadline - now + 999) / 1000);
    // Wakes for messages that arrive from now on and for those already queued but not yet seen.
    MsgWaitForMultipleObjectsEx(0, nullptr, wait_ms, QS_POSTMESSAGE | QS_SENDMESSAGE, MWMO_INPUTAVAILABLE);
  }
}

int GetNoticeWindowFd(HWND) noexcept { return -1; }

}  // extern "C"
