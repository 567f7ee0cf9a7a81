"""Runs zendrelctl."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json

DONE, DIFFERENT = 0, 2

# Where it is when root's PATH, as a connection without a login has it, does not say so.
PLACES = ["/usr/local/sbin", "/usr/sbin", "/sbin"]

PROGRAM_ARGUMENT = dict(type="str", default="zendrelctl")


class Trouble(Exception):
    """Why something cannot be done, in one line."""


class Zendrelctl(object):
    """The program on this host."""

    def __init__(self, module):
        self.module = module
        name = module.params["program"]
        self.program = name if "/" in name else module.get_bin_path(name, True, PLACES)

    def run(self, words, accepted=(DONE,)):
        """Runs a command, and gives what it prints."""
        status, out, err = self.module.run_command([self.program] + words, environ_update=dict(LC_ALL="C"))
        if status not in accepted:
            raise Trouble(reasons(err) or "zendrelctl %s ended with status %d" % (words[0], status))
        return out

    def read(self, words, accepted=(DONE,)):
        """Runs a command that prints JSON."""
        out = self.run(words + ["--json"], accepted)
        try:
            return json.loads(out)
        except ValueError as e:
            raise Trouble("zendrelctl %s printed no JSON: %s" % (words[0], e))

    def instances(self):
        """All that is recorded."""
        return self.read(["instances"])


def reasons(text):
    """What was printed on standard error: what has failed, which is the last line, then why."""
    lines = []
    for line in text.splitlines():
        line = line.split("zendrelctl: ", 1)[-1].strip()
        if line and line not in lines:
            lines.append(line)
    return summary(lines[-1:] + lines[:-1])


def summary(lines):
    """Some lines in one."""
    shown = 5
    rest = " and %d more" % (len(lines) - shown) if len(lines) > shown else ""
    return "; ".join(lines[:shown]) + rest
