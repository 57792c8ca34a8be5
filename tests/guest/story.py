"""A paper whose commands are typed and whose answers are compared: console blocks of docs/*.md.

In a block a line that begins with "# " is typed, what follows is what it answers: "..." stands for anything within
a line, alone for any lines, and "[status N]" for how it ends, if not with 0.
"""

import os
import re
import subprocess

import kit


class Step:
    """A command and what it is to answer."""

    def __init__(self, command):
        self.command = command
        self.lines = []
        self.status = 0

    def pattern(self):
        text = ""
        for line in self.lines:
            if line == "...":
                text += r"(?:.*\n)*?"
            else:
                text += r"[^\n]*".join(re.escape(part) for part in line.split("...")) + r"\n"
        return re.compile(text)

    def take(self):
        """Types it, and reads what a terminal would show, line by line as they come."""
        found = subprocess.run(["stdbuf", "-oL", "sh", "-c", self.command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, check=False)
        print(f"# {self.command}\n{found.stdout}", end="")
        kit.equal(found.returncode, self.status, f"how `{self.command}` ends ({found.stdout})")
        kit.check(self.pattern().fullmatch(found.stdout),
                  f"`{self.command}` answers\n{found.stdout}\nand not\n" + "\n".join(self.lines))


def steps(path):
    """By heading, each part's steps."""
    parts, heading, inside = {}, "", False
    with open(path, encoding="utf-8") as text:
        for line in text.read().splitlines():
            if line.startswith("```"):
                inside = line == "```console"
            elif line.startswith("## ") and not inside:
                heading = line[3:]
            elif not inside:
                continue
            elif line.startswith("# "):
                parts.setdefault(heading, []).append(Step(line[2:]))
            elif match := re.fullmatch(r"\[status (\d+)\]", line):
                parts[heading][-1].status = int(match[1])
            else:
                parts[heading][-1].lines.append(line)
    return parts


class Story:
    def __init__(self, path):
        self.parts = steps(path)

    def tell(self, *beginnings):
        """Types the parts whose headings begin so, which must be there."""
        for beginning in beginnings:
            [heading] = [one for one in self.parts if one.startswith(beginning)]
            for step in self.parts[heading]:
                step.take()


def of(name):
    return Story(os.path.join(os.path.dirname(__file__), "..", "..", "docs", name))
