"""The command-line tool, as the guest tests call it."""

import json
import os
import subprocess

import kit

TOOL = os.path.join(os.environ.get("SNBF_BUILD", ""), "snbf")


def tool(*words):
    """(exit status, stdout, stderr) of the tool."""
    found = subprocess.run([TOOL, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           stdin=subprocess.DEVNULL, check=False)
    print(f"$ snbf {' '.join(words)}\n{found.stdout}{found.stderr}status {found.returncode}")
    return found.returncode, found.stdout, found.stderr


def good(*words):
    """Its stdout; it must succeed."""
    status, out, err = tool(*words)
    kit.check(status == 0, f"snbf {' '.join(words)}: status {status}: {err}")
    return out


def answer(*words):
    return json.loads(good(*words, "--json"))


def refused(wanted, *words):
    """All that it said; it must refuse with that status, and say why."""
    status, out, err = tool(*words)
    kit.equal(status, wanted, f"status of snbf {' '.join(words)} ({err})")
    kit.check(err.strip() != "", "a refusal says why")
    return out + err
