#!/usr/bin/env python3
"""Starts and stops simulated field devices for Windows test programs running under Wine.

A Windows program cannot start a Linux process, so it asks through files in a control directory:

  <id>.start    velmora-sim arguments, one per line (may be empty). The broker starts the
                simulator, links a free WINEPREFIX/dosdevices/comN (N >= 10) to its pty and
                answers <id>.ready with "COMN" or "error: <why>".
  <id>.restart  same content; kills that id's simulator, starts a new one and points the SAME
                comN at the new pty; answers <id>.ready again.
  <id>.kill     SIGKILL the simulator (the device vanishes); the link is left dangling;
                answers <id>.killed.
  <id>.stop     SIGTERM the simulator, wait for it, remove the link; answers <id>.stopped.
  quit          stop everything and exit.

Clients write a request as a temporary name and rename it; answers are written the same way.
The broker removes each request file once it has read it. SIGTERM, SIGINT and SIGHUP stop
everything too, and every simulator is killed by the kernel should the broker itself die.
"""

import argparse
import ctypes
import glob
import os
import re
import select
import signal
import subprocess
import sys
import time

REQUESTS = ("start", "restart", "kill", "stop")
FIRST_COM = 10
LAST_COM = 255
START_TIMEOUT_S = 10.0
STOP_TIMEOUT_S = 5.0
PR_SET_PDEATHSIG = 1
# Ids become file names on both sides; keep them to characters both systems accept.
ID_PATTERN = re.compile(r"^[A-Za-z0-9_-][A-Za-z0-9_.-]*$")


def log(message):
    sys.stderr.write("%.3f sim_broker: %s\n" % (time.monotonic(), message))
    sys.stderr.flush()


def write_answer(directory, name, text):
    """Writes a complete answer under a temporary name, then renames it into place."""
    tmp = os.path.join(directory, ".%s.%d.tmp" % (name, os.getpid()))
    with open(tmp, "w", newline="\n") as f:
        f.write(text)
    os.replace(tmp, os.path.join(directory, name))


def host_serial_ports():
    """Wine's mount manager numbers the host's serial devices from COM1 up at start-up, replacing
    existing links, so numbers up to their count are never handed out."""
    return sum(len(glob.glob(p)) for p in ("/dev/ttyS[0-9]*", "/dev/ttyUSB[0-9]*", "/dev/ttyACM[0-9]*"))


def die_with_parent(parent_pid):
    """Runs in the child before exec: the kernel kills it when the broker goes away."""
    def setup():
        libc = ctypes.CDLL(None, use_errno=True)
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
        if os.getppid() != parent_pid:  # the broker died before prctl took effect
            os._exit(1)
    return setup


class Sim:
    """One simulator process and the COM port linked to its pty."""

    def __init__(self, ident, com, link):
        self.ident = ident
        self.com = com
        self.link = link
        self.proc = None
        self.pty = None
        self.log_file = None

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def drain(self):
        """Copies whatever the simulator printed after its first line into its log, so it never
        blocks on a full pipe."""
        if self.proc is None or self.proc.stdout is None:
            return
        try:
            data = os.read(self.proc.stdout.fileno(), 65536)
        except BlockingIOError:
            return
        if data:
            self.log_file.write(data)
            self.log_file.flush()
        else:
            self.proc.stdout.close()
            self.proc.stdout = None

    def end(self, sig):
        """Signals the simulator and reaps it; SIGTERM falls back to SIGKILL after a while."""
        if self.proc is None:
            return
        if self.proc.poll() is None:
            try:
                self.proc.send_signal(sig)
                self.proc.wait(timeout=STOP_TIMEOUT_S)
            except subprocess.TimeoutExpired:
                log("%s: no exit after SIGTERM, killing" % self.ident)
                self.proc.kill()
                self.proc.wait()
            except ProcessLookupError:
                pass
        if self.proc.stdout is not None:
            self.drain()
            if self.proc.stdout is not None:
                self.proc.stdout.close()
        if self.log_file is not None:
            self.log_file.close()
            self.log_file = None
        log("%s: simulator pid %d ended, status %s" % (self.ident, self.proc.pid, self.proc.returncode))
        self.proc = None


class Broker:
    def __init__(self, directory, sim_path, prefix):
        self.dir = directory
        self.sim_path = sim_path
        self.dosdevices = os.path.join(prefix, "dosdevices")
        self.sims = {}
        self.first_com = max(FIRST_COM, host_serial_ports() + 1)
        self.stopping = False

    # --- simulator processes ---

    def launch(self, sim, args):
        """Starts the simulator for sim and waits for its pty name. Returns None or an error."""
        log_path = os.path.join(self.dir, sim.ident + ".log")
        sim.log_file = open(log_path, "ab")
        log_start = sim.log_file.tell()
        try:
            proc = subprocess.Popen([self.sim_path] + args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                    stderr=sim.log_file, preexec_fn=die_with_parent(os.getpid()),
                                    close_fds=True)
        except OSError as e:
            sim.log_file.close()
            sim.log_file = None
            return "cannot run %s: %s" % (self.sim_path, e.strerror)
        sim.proc = proc
        os.set_blocking(proc.stdout.fileno(), False)
        line, rest = self.first_line(proc)
        if line is None or not line.startswith("velmora-sim: "):
            status = proc.poll()
            sim.end(signal.SIGKILL)
            detail = self.log_head(log_path, log_start)
            if status is not None:
                why = "velmora-sim exited with status %d" % status
            elif line is None:
                why = "velmora-sim printed no pty name within %.0f s" % START_TIMEOUT_S
            else:
                why = "unexpected first line from velmora-sim: %r" % line
            return why + (": " + detail if detail else "")
        if rest:
            sim.log_file.write(rest)
            sim.log_file.flush()
        sim.pty = line[len("velmora-sim: "):].strip()
        log("%s: simulator pid %d on %s, args %s" % (sim.ident, proc.pid, sim.pty, args))
        return None

    @staticmethod
    def first_line(proc):
        """Reads the first stdout line; returns (line or None, bytes after it)."""
        data = b""
        deadline = time.monotonic() + START_TIMEOUT_S
        fd = proc.stdout.fileno()
        while b"\n" not in data:
            left = deadline - time.monotonic()
            if left <= 0:
                return None, b""
            ready, _, _ = select.select([fd], [], [], left)
            if not ready:
                continue
            try:
                chunk = os.read(fd, 4096)
            except BlockingIOError:
                continue
            if not chunk:
                return None, b""
            data += chunk
        line, rest = data.split(b"\n", 1)
        return line.decode("utf-8", "replace").rstrip("\r"), rest

    @staticmethod
    def log_head(path, offset):
        """The first lines this run of the simulator wrote to its log: its complaint, if any."""
        try:
            with open(path, "rb") as f:
                f.seek(offset)
                text = f.read(4000).decode("utf-8", "replace")
        except OSError:
            return ""
        lines = [l.strip() for l in text.splitlines() if l.strip()]
        return " | ".join(lines[:2])

    # --- COM port links ---

    def link_path(self, com):
        return os.path.join(self.dosdevices, "com%d" % com)

    def claim_port(self, target):
        """Creates the first free comN link (N >= 10) to target; the link's creation is the claim,
        so a link left by anyone else, dangling or not, is never taken over."""
        for com in range(self.first_com, LAST_COM + 1):
            if any(s.com == com for s in self.sims.values()):
                continue
            link = self.link_path(com)
            try:
                os.symlink(target, link)
            except FileExistsError:
                continue
            return com, link
        return None, None

    def repoint(self, link, target):
        tmp = link + ".broker-tmp"
        try:
            os.unlink(tmp)
        except FileNotFoundError:
            pass
        os.symlink(target, tmp)
        os.replace(tmp, link)

    def remove_link(self, sim):
        try:
            if os.path.islink(sim.link):
                os.unlink(sim.link)
        except OSError as e:
            log("%s: cannot remove %s: %s" % (sim.ident, sim.link, e))

    # --- requests ---

    def on_start(self, ident, args):
        if ident in self.sims:
            return "ready", "error: %s is already in use (stop it first)\n" % ident
        sim = Sim(ident, None, None)
        error = self.launch(sim, args)
        if error:
            return "ready", "error: %s\n" % error
        com, link = self.claim_port(sim.pty)
        if com is None:
            sim.end(signal.SIGTERM)
            return "ready", "error: no free COM port between %d and %d\n" % (self.first_com, LAST_COM)
        sim.com, sim.link = com, link
        self.sims[ident] = sim
        log("%s: COM%d -> %s" % (ident, com, sim.pty))
        return "ready", "COM%d\n" % com

    def on_restart(self, ident, args):
        sim = self.sims.get(ident)
        if sim is None:
            return "ready", "error: %s was not started\n" % ident
        sim.end(signal.SIGKILL)
        error = self.launch(sim, args)
        if error:
            return "ready", "error: %s\n" % error
        self.repoint(sim.link, sim.pty)
        log("%s: COM%d -> %s (restarted)" % (ident, sim.com, sim.pty))
        return "ready", "COM%d\n" % sim.com

    def on_kill(self, ident, _args):
        sim = self.sims.get(ident)
        if sim is None:
            return "killed", "error: %s was not started\n" % ident
        sim.end(signal.SIGKILL)
        return "killed", "COM%d\n" % sim.com

    def on_stop(self, ident, _args):
        sim = self.sims.pop(ident, None)
        if sim is None:
            return "stopped", "error: %s was not started\n" % ident
        sim.end(signal.SIGTERM)
        self.remove_link(sim)
        return "stopped", "COM%d\n" % sim.com

    def handle(self, name):
        ident, _, kind = name.rpartition(".")
        path = os.path.join(self.dir, name)
        try:
            with open(path, "r", encoding="utf-8", errors="replace") as f:
                text = f.read()
        except FileNotFoundError:
            return
        try:
            os.unlink(path)
        except FileNotFoundError:
            pass
        args = [line.rstrip("\r") for line in text.split("\n")]
        args = [a for a in args if a.strip()]
        log("request %s %s" % (kind, ident))
        handler = {"start": self.on_start, "restart": self.on_restart, "kill": self.on_kill, "stop": self.on_stop}[kind]
        try:
            answer, text = handler(ident, args)
        except Exception as e:  # an answer is owed whatever happens, or the client waits forever
            log("%s: %s failed: %r" % (ident, kind, e))
            answer = {"start": "ready", "restart": "ready", "kill": "killed", "stop": "stopped"}[kind]
            text = "error: broker: %s\n" % e
        write_answer(self.dir, "%s.%s" % (ident, answer), text)

    def poll_once(self):
        names = sorted(os.listdir(self.dir), key=self.request_order)
        for name in names:
            if name == "quit":
                try:
                    os.unlink(os.path.join(self.dir, name))
                except FileNotFoundError:
                    pass
                log("quit requested")
                self.stopping = True
                return
            ident, dot, kind = name.rpartition(".")
            if not dot or kind not in REQUESTS or not ID_PATTERN.match(ident):
                continue
            self.handle(name)

    def request_order(self, name):
        """Oldest request first, so a client's kill-then-restart keeps its order."""
        try:
            return (os.stat(os.path.join(self.dir, name)).st_mtime_ns, name)
        except FileNotFoundError:
            return (0, name)

    def watch_sims(self):
        """Drains the simulators' output and notices the ones that ended on their own."""
        live = [s for s in self.sims.values() if s.proc is not None and s.proc.stdout is not None]
        if live:
            ready, _, _ = select.select([s.proc.stdout.fileno() for s in live], [], [], 0)
            for s in live:
                if s.proc.stdout is not None and s.proc.stdout.fileno() in ready:
                    s.drain()
        for s in self.sims.values():
            if s.proc is not None and s.proc.poll() is not None:
                log("%s: simulator exited by itself, status %s" % (s.ident, s.proc.returncode))
                s.end(signal.SIGKILL)

    def shutdown(self):
        for sim in list(self.sims.values()):
            sim.end(signal.SIGTERM)
            self.remove_link(sim)
        self.sims.clear()

    def run(self, poll_s):
        while not self.stopping:
            self.poll_once()
            if self.stopping:
                break
            self.watch_sims()
            time.sleep(poll_s)
        self.shutdown()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--dir", required=True, help="control directory (created if missing)")
    parser.add_argument("--sim", required=True, help="path of velmora-sim")
    parser.add_argument("--prefix", required=True, help="WINEPREFIX whose dosdevices get the COM links")
    parser.add_argument("--poll-ms", type=float, default=10.0, help="control directory poll period")
    opts = parser.parse_args()

    if not os.access(opts.sim, os.X_OK):
        parser.error("%s is not an executable" % opts.sim)
    if not os.path.isdir(os.path.join(opts.prefix, "dosdevices")):
        parser.error("%s has no dosdevices directory (not an initialised Wine prefix)" % opts.prefix)
    os.makedirs(opts.dir, exist_ok=True)

    broker = Broker(os.path.abspath(opts.dir), os.path.abspath(opts.sim), os.path.abspath(opts.prefix))

    def on_signal(signum, _frame):
        log("signal %d: stopping" % signum)
        broker.stopping = True

    for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(sig, on_signal)
    write_answer(broker.dir, "broker.pid", "%d\n" % os.getpid())
    log("watching %s, COM%d and up in %s" % (broker.dir, broker.first_com, broker.dosdevices))
    try:
        broker.run(opts.poll_ms / 1000.0)
    finally:
        broker.shutdown()
        try:
            os.unlink(os.path.join(broker.dir, "broker.pid"))
        except FileNotFoundError:
            pass
    log("stopped")
    return 0


if __name__ == "__main__":
    sys.exit(main())
