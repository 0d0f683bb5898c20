// Notice windows: mailboxes owned by the client, which the library posts notices to.
#ifndef VELMORA_PLATFORM_NOTICE_BOX_H
#define VELMORA_PLATFORM_NOTICE_BOX_H

#include <cstddef>

namespace velmora::platform {

constexpr size_t kMailboxLimit = 10000;  // notices a window holds before posts fail

// Notices waiting in a window, or 0 for a bad window; for tests and diagnostics.
size_t PendingNotices(void *window);

}  // namespace velmora::platform

#endif
