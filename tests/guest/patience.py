"""How long a write waits, beside how late everything comes in the guest meanwhile.

The guest shares its processors with others of the host: what takes ten seconds of the driver's clock ends later than that,
by what nobody can say beforehand. So it is measured in the same seconds: a thread that does nothing but sleep and look at
the clock is as late as everybody. A wait may last as long as is promised, and be late in addition as that thread is.
"""

import threading
import time

import kit
import worker

NAP_S = 0.05
SLACK_S = 1.5  # for what a write, its marks and the threads on its way take on a machine that is not late
SHARE = 3  # a wait is ended by several threads in turn, each of which may be as late as the one that looks


class Patience(worker.Worker):
    """For the time of a block; what is asked of it may be asked inside it."""

    def __init__(self):
        super().__init__(self.look)
        self.late_s = 0
        self.left = threading.Event()

    def look(self):
        while not self.left.is_set():
            began = time.monotonic()
            time.sleep(NAP_S)
            self.late_s += time.monotonic() - began - NAP_S

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.left.set()
        self.finish()

    def allows(self, promised_s):
        """The longest that a wait of this block may have lasted."""
        return promised_s + SLACK_S * kit.SLOWNESS + SHARE * self.late_s

    def judge(self, waited_s, promised_s, what):
        words = f"{what}: {waited_s:.1f} s, of {self.allows(promised_s):.1f} s that may be ({self.late_s:.1f} s late)"
        print(words)
        kit.check(waited_s <= self.allows(promised_s), words)
