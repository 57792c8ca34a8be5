"""The debug kernels themselves: a defect of each kind, planted, must turn up in what the runner reads."""

import os

import kit
import watch

# A boot for each: the first report of one kind can switch the next kind off.
BUGS = ["use-after-free", "lock-order", "lock-state", "sleep", "live-object", "leak", "race"]

GUEST = {
    "kernels": "debug",
    "limit": 120,
    "flavours": {"kasan": ["use-after-free", "lock-order", "lock-state", "sleep", "live-object", "leak"],
                 "kcsan": ["race"]},
    "expect": {"use-after-free": r"KASAN: (slab-)?use-after-free", "lock-order": "possible circular locking dependency",
               "lock-state": "inconsistent lock state", "sleep": "sleeping function called from invalid context",
               "live-object": "ODEBUG: free active", "leak": "unreferenced object", "race": "KCSAN: data-race in"},
}


def planter(bug):
    def plant():
        watch.leaks = bug == "leak"
        kit.run("insmod", os.environ["SNBF_PLANTED"], f"bug={bug}")
        kit.run("rmmod", "planted")
    plant.__name__ = f"a_planted_{bug.replace('-', '_')}_is_reported"
    return plant


for name in BUGS:
    kit.case(planter(name), boot=name)


if __name__ == "__main__":
    kit.main()
