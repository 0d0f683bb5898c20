/*
 * LD_PRELOAD library for the Wine process that runs a Windows test program.
 *
 * A pseudo-terminal has no modem lines, so TIOCMGET/TIOCMSET/TIOCMBIS/TIOCMBIC fail on it and
 * Wine reports EscapeCommFunction(SETRTS...) as unsupported; Wine also ends every pending
 * WaitCommEvent as cancelled when it cannot read the modem status. This library answers those
 * four requests itself for pty descriptors, keeping the RTS and DTR bits per descriptor, so the
 * program under test runs its real line-control code against the simulator.
 *
 * With VELMORA_MODEM_LOG set to a file name, one line is appended per event, timestamped in
 * CLOCK_MONOTONIC microseconds:
 *   <us> RTS 1 | <us> RTS 0 | <us> DTR 1 | <us> DTR 0     (on a change only)
 *   <us> WRITE <hex bytes>                               (data written to such a pty)
 * Each line is a single write() on an O_APPEND descriptor, so several processes can share a log.
 *
 * A pseudo-terminal left with odd parity by an earlier master refuses parity again (EINVAL from
 * tcsetattr), which Wine passes on as a failed SetCommState; it has no parity bit on its wire, so
 * the settings are taken without parity then, as a real port would take them with it.
 *
 * Every open() also gets O_NOCTTY. The wine server is a session leader without a terminal and
 * opens the COM port's pty itself; without O_NOCTTY the pty becomes its controlling terminal, and
 * when the simulator goes away the kernel's SIGHUP makes the server dump its whole object table to
 * standard error and stall for a while.
 *
 * Build: gcc -shared -fPIC -O2 -Wall -Wextra -Werror -o modem_shim.so modem_shim.c -ldl
 */
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#ifndef ENOIOCTLCMD
#define ENOIOCTLCMD 515 /* kernel-internal code; normally turned into ENOTTY before user space */
#endif

#define MAX_FDS 16384
#define LOG_PATH_MAX 1024
#define HEX_LIMIT 1024 /* bytes written out in full per WRITE line; the rest is counted */

typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef ssize_t (*write_fn)(int, const void *, size_t);
typedef ssize_t (*writev_fn)(int, const struct iovec *, int);
typedef int (*close_fn)(int);
typedef int (*open_fn)(const char *, int, ...);
typedef int (*openat_fn)(int, const char *, int, ...);
typedef int (*open2_fn)(const char *, int);
typedef int (*openat2_fn)(int, const char *, int);

/* One slot per descriptor. rdev identifies the terminal the state belongs to (0 = unused), so a
 * descriptor number reused for another file is not mistaken for the old pty. */
struct slot {
  _Atomic uint64_t rdev;
  _Atomic int bits;
};

static struct slot slots[MAX_FDS];
static _Atomic(ioctl_fn) real_ioctl_ptr;
static _Atomic(write_fn) real_write_ptr;
static _Atomic(writev_fn) real_writev_ptr;
static _Atomic(close_fn) real_close_ptr;
static char log_path[LOG_PATH_MAX];
static int log_enabled;

static void resolve(void) {
  if (!atomic_load(&real_ioctl_ptr)) atomic_store(&real_ioctl_ptr, (ioctl_fn)dlsym(RTLD_NEXT, "ioctl"));
  if (!atomic_load(&real_write_ptr)) atomic_store(&real_write_ptr, (write_fn)dlsym(RTLD_NEXT, "write"));
  if (!atomic_load(&real_writev_ptr)) atomic_store(&real_writev_ptr, (writev_fn)dlsym(RTLD_NEXT, "writev"));
  if (!atomic_load(&real_close_ptr)) atomic_store(&real_close_ptr, (close_fn)dlsym(RTLD_NEXT, "close"));
}

__attribute__((constructor)) static void shim_init(void) {
  resolve();
  const char *path = getenv("VELMORA_MODEM_LOG");
  if (path && *path && strlen(path) < sizeof log_path) {
    memcpy(log_path, path, strlen(path) + 1);
    log_enabled = 1;
  }
}

static int raw_ioctl(int fd, unsigned long request, void *arg) {
  ioctl_fn f = atomic_load(&real_ioctl_ptr);
  if (!f) {
    resolve();
    f = atomic_load(&real_ioctl_ptr);
  }
  if (f) return f(fd, request, arg);
  return (int)syscall(SYS_ioctl, fd, request, arg);
}

static ssize_t raw_write(int fd, const void *buf, size_t count) {
  write_fn f = atomic_load(&real_write_ptr);
  if (!f) {
    resolve();
    f = atomic_load(&real_write_ptr);
  }
  if (f) return f(fd, buf, count);
  return syscall(SYS_write, fd, buf, count);
}

static ssize_t raw_writev(int fd, const struct iovec *iov, int iovcnt) {
  writev_fn f = atomic_load(&real_writev_ptr);
  if (!f) {
    resolve();
    f = atomic_load(&real_writev_ptr);
  }
  if (f) return f(fd, iov, iovcnt);
  return syscall(SYS_writev, fd, iov, iovcnt);
}

static int raw_close(int fd) {
  close_fn f = atomic_load(&real_close_ptr);
  if (!f) {
    resolve();
    f = atomic_load(&real_close_ptr);
  }
  if (f) return f(fd);
  return (int)syscall(SYS_close, fd);
}

/* Looks a libc function up once; dlsym may allocate, but only on the first call. */
static void *next_symbol(void *_Atomic *cache, const char *name) {
  void *f = atomic_load(cache);
  if (!f) {
    f = dlsym(RTLD_NEXT, name);
    atomic_store(cache, f);
  }
  return f;
}

static int has_mode(int flags) { return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE; }

#define OPEN_WRAPPER(name)                                                         \
  int name(const char *path, int flags, ...) {                                     \
    static void *_Atomic cache;                                                    \
    mode_t mode = 0;                                                               \
    if (has_mode(flags)) {                                                         \
      va_list ap;                                                                  \
      va_start(ap, flags);                                                         \
      mode = va_arg(ap, mode_t);                                                   \
      va_end(ap);                                                                  \
    }                                                                              \
    open_fn f = (open_fn)next_symbol(&cache, #name);                               \
    if (!f) return (int)syscall(SYS_openat, AT_FDCWD, path, flags | O_NOCTTY, mode); \
    return f(path, flags | O_NOCTTY, mode);                                        \
  }

#define OPENAT_WRAPPER(name)                                                       \
  int name(int dirfd, const char *path, int flags, ...) {                          \
    static void *_Atomic cache;                                                    \
    mode_t mode = 0;                                                               \
    if (has_mode(flags)) {                                                         \
      va_list ap;                                                                  \
      va_start(ap, flags);                                                         \
      mode = va_arg(ap, mode_t);                                                   \
      va_end(ap);                                                                  \
    }                                                                              \
    openat_fn f = (openat_fn)next_symbol(&cache, #name);                           \
    if (!f) return (int)syscall(SYS_openat, dirfd, path, flags | O_NOCTTY, mode);  \
    return f(dirfd, path, flags | O_NOCTTY, mode);                                 \
  }

OPEN_WRAPPER(open)
OPEN_WRAPPER(open64)
OPENAT_WRAPPER(openat)
OPENAT_WRAPPER(openat64)

/* The checked variants that fortified callers use. */
int __open_2(const char *path, int flags) {
  static void *_Atomic cache;
  open2_fn f = (open2_fn)next_symbol(&cache, "__open_2");
  return f ? f(path, flags | O_NOCTTY) : (int)syscall(SYS_openat, AT_FDCWD, path, flags | O_NOCTTY, 0);
}

int __open64_2(const char *path, int flags) {
  static void *_Atomic cache;
  open2_fn f = (open2_fn)next_symbol(&cache, "__open64_2");
  return f ? f(path, flags | O_NOCTTY) : (int)syscall(SYS_openat, AT_FDCWD, path, flags | O_NOCTTY, 0);
}

int __openat_2(int dirfd, const char *path, int flags) {
  static void *_Atomic cache;
  openat2_fn f = (openat2_fn)next_symbol(&cache, "__openat_2");
  return f ? f(dirfd, path, flags | O_NOCTTY) : (int)syscall(SYS_openat, dirfd, path, flags | O_NOCTTY, 0);
}

int __openat64_2(int dirfd, const char *path, int flags) {
  static void *_Atomic cache;
  openat2_fn f = (openat2_fn)next_symbol(&cache, "__openat64_2");
  return f ? f(dirfd, path, flags | O_NOCTTY) : (int)syscall(SYS_openat, dirfd, path, flags | O_NOCTTY, 0);
}

/* --- log lines, built without stdio or malloc --- */

static char *put_str(char *p, const char *s) {
  while (*s) *p++ = *s++;
  return p;
}

static char *put_u64(char *p, uint64_t v) {
  char tmp[24];
  int n = 0;
  do {
    tmp[n++] = (char)('0' + v % 10);
    v /= 10;
  } while (v);
  while (n) *p++ = tmp[--n];
  return p;
}

static uint64_t now_us(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000000u + (uint64_t)ts.tv_nsec / 1000u;
}

/* Opened per line: the program may close or reuse any descriptor we kept open. */
static void log_line(const char *line, size_t len) {
  int saved = errno;
  int fd = open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) {
    (void)!raw_write(fd, line, len);
    raw_close(fd);
  }
  errno = saved;
}

static void log_line_change(uint64_t t, int old_bits, int new_bits) {
  static const struct {
    int bit;
    const char *name;
  } lines[] = {{TIOCM_RTS, " RTS "}, {TIOCM_DTR, " DTR "}};
  if (!log_enabled) return;
  for (size_t i = 0; i < sizeof lines / sizeof lines[0]; ++i) {
    if ((old_bits ^ new_bits) & lines[i].bit) {
      char buf[64];
      char *p = put_u64(buf, t);
      p = put_str(p, lines[i].name);
      *p++ = (new_bits & lines[i].bit) ? '1' : '0';
      *p++ = '\n';
      log_line(buf, (size_t)(p - buf));
    }
  }
}

/* --- descriptor classification --- */

/* The terminal id of fd if it is a pseudo-terminal slave, else 0. */
static uint64_t pty_id(int fd) {
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode)) return 0;
  char link[32] = "/proc/self/fd/";
  char *p = put_u64(link + strlen(link), (uint64_t)fd);
  *p = '\0';
  char target[64];
  ssize_t n = readlink(link, target, sizeof target - 1);
  if (n < 0) {
    /* No /proc: go by the device number (UNIX98 pty slaves have majors 136-143). */
    if (major(st.st_rdev) < 136 || major(st.st_rdev) > 143) return 0;
  } else if (n < 9 || memcmp(target, "/dev/pts/", 9) != 0) {
    return 0;
  }
  /* Never 0: a device number of 0 would read as "unused". */
  return (uint64_t)st.st_rdev | (1ull << 63);
}

/* The slot of a pty descriptor whose modem requests we answer, or NULL. */
static struct slot *claim(int fd) {
  if (fd < 0 || fd >= MAX_FDS) return NULL;
  uint64_t id = pty_id(fd);
  if (!id) return NULL;
  struct slot *s = &slots[fd];
  uint64_t old = atomic_load(&s->rdev);
  if (old != id) {
    /* First sight of this terminal on this descriptor: lines start deasserted. */
    if (atomic_compare_exchange_strong(&s->rdev, &old, id)) atomic_store(&s->bits, 0);
  }
  return s;
}

/* The slot of fd if it is a pty we have answered modem requests for, checked cheaply. */
static struct slot *known(int fd) {
  if (fd < 0 || fd >= MAX_FDS) return NULL;
  struct slot *s = &slots[fd];
  uint64_t id = atomic_load(&s->rdev);
  if (!id) return NULL;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode) || ((uint64_t)st.st_rdev | (1ull << 63)) != id) return NULL;
  return s;
}

static int is_modem_request(unsigned long request) {
  return request == TIOCMGET || request == TIOCMSET || request == TIOCMBIS || request == TIOCMBIC;
}

static int emulate(struct slot *s, unsigned long request, int *arg) {
  if (!arg) {
    errno = EFAULT;
    return -1;
  }
  const int mask = TIOCM_RTS | TIOCM_DTR;
  if (request == TIOCMGET) {
    *arg = atomic_load(&s->bits);
    return 0;
  }
  uint64_t t = now_us();
  int old = atomic_load(&s->bits);
  int want;
  do {
    if (request == TIOCMSET)
      want = *arg & mask;
    else if (request == TIOCMBIS)
      want = old | (*arg & mask);
    else
      want = old & ~(*arg & mask);
  } while (!atomic_compare_exchange_weak(&s->bits, &old, want));
  log_line_change(t, old, want);
  return 0;
}

int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  int saved = errno;
  int r = raw_ioctl(fd, request, arg);
  if (r != -1 || !is_modem_request(request)) return r;
  int err = errno;
  if (err != EINVAL && err != ENOTTY && err != ENOIOCTLCMD) return r;
  struct slot *s = claim(fd);
  if (!s) {
    errno = err;
    return r;
  }
  errno = saved;
  return emulate(s, request, (int *)arg);
}

static void log_write(int fd, const struct iovec *iov, int iovcnt, size_t total, uint64_t t) {
  if (!log_enabled || total == 0 || !known(fd)) return;
  static const char hex[] = "0123456789ABCDEF";
  char buf[64 + 2 * HEX_LIMIT + 32];
  char *p = put_u64(buf, t);
  p = put_str(p, " WRITE ");
  size_t shown = 0;
  for (int i = 0; i < iovcnt && shown < total && shown < HEX_LIMIT; ++i) {
    const unsigned char *b = iov[i].iov_base;
    for (size_t j = 0; j < iov[i].iov_len && shown < total && shown < HEX_LIMIT; ++j, ++shown) {
      *p++ = hex[b[j] >> 4];
      *p++ = hex[b[j] & 15];
    }
  }
  if (shown < total) {
    p = put_str(p, " +");
    p = put_u64(p, total - shown);
  }
  *p++ = '\n';
  log_line(buf, (size_t)(p - buf));
}

ssize_t write(int fd, const void *buf, size_t count) {
  uint64_t t = log_enabled ? now_us() : 0;
  ssize_t r = raw_write(fd, buf, count);
  if (r > 0) {
    int saved = errno;
    struct iovec one = {(void *)buf, (size_t)r};
    log_write(fd, &one, 1, (size_t)r, t);
    errno = saved;
  }
  return r;
}

ssize_t writev(int fd, const struct iovec *iov, int iovcnt) {
  uint64_t t = log_enabled ? now_us() : 0;
  ssize_t r = raw_writev(fd, iov, iovcnt);
  if (r > 0) {
    int saved = errno;
    log_write(fd, iov, iovcnt, (size_t)r, t);
    errno = saved;
  }
  return r;
}

/* Closing the terminal drops RTS and DTR, as a real port does with HUPCL set. */
int close(int fd) {
  if (fd >= 0 && fd < MAX_FDS && atomic_load(&slots[fd].rdev)) {
    struct slot *s = &slots[fd];
    int old = atomic_exchange(&s->bits, 0);
    atomic_store(&s->rdev, 0);
    if (old) log_line_change(now_us(), old, 0);
  }
  return raw_close(fd);
}

typedef int (*tcsetattr_fn)(int, int, const struct termios *);
static void *_Atomic real_tcsetattr_ptr;

int tcsetattr(int fd, int actions, const struct termios *tio) {
  tcsetattr_fn f = (tcsetattr_fn)next_symbol(&real_tcsetattr_ptr, "tcsetattr");
  if (!f) {
    errno = ENOSYS;
    return -1;
  }
  int result = f(fd, actions, tio);
  if (result != 0 && errno == EINVAL && tio && (tio->c_cflag & PARENB) && pty_id(fd) != 0) {
    struct termios without = *tio;
    without.c_cflag &= ~(tcflag_t)(PARENB | PARODD);
    result = f(fd, actions, &without);
  }
  return result;
}
