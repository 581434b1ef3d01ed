#!/usr/bin/env python3
"""When does a scan's progress line first move past the listing stage?

    progress_probe.py COMMAND [ARG...]

Runs COMMAND (a `vksecurity scan`) on a pseudo-terminal, so that it draws its live progress
line (about every 0.1 s: "[listing] ..." while the total is unknown, "[ NN%] ..." once it is),
and prints one line:

    total_s=T first_percent_s=F first_percent_share=F/T samples=N errors=E

where F is the time of the first line that shows a percentage (the progress past 0.01),
and errors is the largest gap, in percentage points, between a shown percentage and the
share of the run's time elapsed by then (a rough check that the progress means something).
The resolution is the drawing interval, 0.1 s.
"""
import os
import pty
import re
import select
import sys
import time

PERCENT = re.compile(rb"\[\s*(\d+)%\]")


def main():
    if len(sys.argv) < 2:
        sys.stderr.write(__doc__)
        return 2
    start = time.monotonic()
    pid, fd = pty.fork()
    if pid == 0:
        os.execvp(sys.argv[1], sys.argv[1:])
    samples = []  # (seconds, percent or None for the listing stage)
    pending = b""
    pending_timed = False  # the line in `pending` was timed already

    def sample(line, now):
        m = PERCENT.search(line)
        if m:
            samples.append((now, int(m.group(1))))
        elif b"[listing]" in line:
            samples.append((now, None))
        return bool(m) or b"[listing]" in line
    while True:
        ready, _, _ = select.select([fd], [], [], 1.0)
        if not ready:
            continue
        try:
            chunk = os.read(fd, 65536)
        except OSError:
            break
        if not chunk:
            break
        now = time.monotonic() - start
        pending += chunk
        parts = re.split(rb"[\r\n]", pending)
        pending = parts.pop()
        # Each draw starts with "\r", so a line is timed as soon as its head arrives, not
        # when the next draw ends it; a line already timed that way is not timed again.
        if parts and pending_timed:
            parts.pop(0)
        elif not parts and pending_timed:
            continue
        pending_timed = False
        for part in parts:
            sample(part, now)
        pending_timed = sample(pending, now)
    _, status = os.waitpid(pid, 0)
    total = time.monotonic() - start
    first = next((t for t, p in samples if p is not None), None)
    gap = max((abs(p - 100.0 * t / total) for t, p in samples if p is not None), default=0)
    print("total_s=%.2f first_percent_s=%s first_percent_share=%s samples=%d errors=%.0f "
          "exit=%d" % (total, "%.2f" % first if first is not None else "none",
                       "%.3f" % (first / total) if first is not None else "none",
                       len(samples), gap, os.waitstatus_to_exitcode(status)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
