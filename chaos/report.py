"""The table at the end of a run, and its exit status."""

import threading
import time
import traceback


class Report:
    """What was tried, wanted and seen. Rows may come from several threads."""

    def __init__(self):
        self._rows = []
        self._lock = threading.Lock()

    def run(self, name, wanted, attempt):
        """Calls `attempt`, whose result is what was seen; a failure is a failed row."""
        begin = time.monotonic()
        try:
            ok, seen = True, attempt()
        except Exception as failure:
            ok, seen = False, f"{type(failure).__name__}: {failure}"
            traceback.print_exc()
        self.add(name, wanted, seen, ok, time.monotonic() - begin)

    def add(self, name, wanted, seen, ok, seconds=None):
        seen = " ".join(str(seen).split())[:200]
        with self._lock:
            self._rows.append((name, wanted, seen, ok))
            taken = "" if seconds is None else f" ({seconds:.1f} s)"
            print(f"{'ok    ' if ok else 'FAILED'} {name}: {seen}{taken}", flush=True)

    def finish(self):
        """Prints the table. Returns the exit status."""
        print("\n| fault | wanted | seen |\n|---|---|---|")
        for name, wanted, seen, ok in self._rows:
            shown = seen.replace("|", "\\|")
            print(f"| {name} | {wanted} | {'' if ok else '**FAILED** '}{shown} |")
        failed = sum(not row[3] for row in self._rows)
        print(f"\n{len(self._rows)} tried, {failed} failed", flush=True)
        return 1 if failed else 0
