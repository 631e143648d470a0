#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: timed_on_device.py REPETITIONS COMMANDS

On a device: how many seconds commands take, as one JSON object of lists. COMMANDS is a JSON object: for
each name a list of the words. They take turns. One that does not end with 0 ends this, and is named.
"""
import json
import subprocess
import sys
import time


def seconds(command):
    begin = time.monotonic()
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, check=False)
    spent = time.monotonic() - begin
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}")
    return spent


def main():
    commands = json.loads(sys.argv[2])
    found = {name: [] for name in commands}
    for _ in range(int(sys.argv[1])):
        for name, command in commands.items():
            found[name].append(seconds(command))
    print(json.dumps(found))


if __name__ == "__main__":
    main()
