# SPDX-License-Identifier: Apache-2.0
"""Whether what a power cut left keeps the promises: a table of files for each scenario,
and what the next commands must answer. docs/interruption.md states the same for people.
"""

import hashlib
import json
import os

# Exit codes of fw-update that a command after the cut may have, by its outcome.
WORKED = ("updated", "nothing-to-do", "ok")


class Kept:
    """A file, and what it may be: before any success, and from a success on.

    Contents are digests; None is a file that is not there. made_good: the next commands
    bring about what is to be there after the success. removed_with: a path and the content
    there from which on this file is being removed.
    """

    def __init__(self, path, allowed, since=None, then=None, made_good=True, removed_with=None):
        self.path, self.allowed, self.made_good = path, set(allowed), made_good
        self.since, self.then = since, set(then if then is not None else allowed)
        self.removed_with = removed_with

    def is_being_removed(self, root):
        return self.removed_with and digest_of_file(os.path.join(root, self.removed_with[0])) == self.removed_with[1]


def digest(content):
    return hashlib.sha256(content).hexdigest()


def digest_of_file(path):
    try:
        with open(path, "rb") as file:
            return digest(file.read())
    except FileNotFoundError:
        return None


def judge_files(kept, root, reported, reuses_blocks=False):
    """What is broken in a tree that can be seen when these successes were reported.

    reuses_blocks: the file system gives the blocks of a removed file to others before the
    removal is on the disk, so that the file can come back with their bytes.
    """
    broken = []
    for rule in kept:
        if reuses_blocks and rule.is_being_removed(root):
            continue
        found = digest_of_file(os.path.join(root, rule.path))
        if found not in rule.allowed | rule.then:
            broken.append(f"{rule.path} is neither old nor new")
        elif rule.since in reported and found not in rule.then:
            broken.append(f"{rule.path} is old although success had been reported ({rule.since})")
    return broken


def judge_commands(results, refusals):
    """What is broken in the answers; refusals: outcomes that are as good as having worked."""
    broken = []
    for result in results:
        if result.get("hung"):
            broken.append(f"next: {result['command']} did not end")
        elif "--json" in result["command"].split():
            broken += judge_document(result, refusals)
        elif result["code"] != 0:
            broken.append(f"next: {result['command']}: exit code {result['code']}: {result['errors'][-300:]}")
    return broken


def judge_document(result, refusals):
    try:
        document = json.loads(result["output"])
    except ValueError:
        return [f"next: {result['command']}: no answer: {result['errors'][-300:]}"]
    if document.get("outcome") in (*WORKED, *refusals):
        return []
    return [f"next: {result['command']}: {document.get('outcome')}: {document.get('message')}"]
