"""What there is to look at: files and commits, of a change or of the whole tree."""

import os
import subprocess

# What a change is compared with, the first that there is.
UPSTREAMS = ("@{upstream}", "origin/main", "main")
# Of a tree without git: what no developer has written.
NOT_OURS = {".git", ".cache", "build"}
# The subjects of older commits are as they are.
RULES_STAND_SINCE = "scripts/lint"


class NotFound(Exception):
    """There is no such commit, or nothing to compare with."""


def git(tree, *words):
    """What git says, or None where it refuses or there is none."""
    try:
        told = subprocess.run(["git", "-c", "core.quotePath=off", *words], cwd=tree, capture_output=True, text=True)
    except FileNotFoundError:
        return None
    return told.stdout if told.returncode == 0 else None


def commit(tree, name):
    found = git(tree, "rev-parse", "--verify", "--quiet", name + "^{commit}")
    return found.strip() if found else None


def base(tree, since):
    """The commit that the change starts from."""
    names = [since] if since else UPSTREAMS
    for name in names:
        found = commit(tree, name)
        if found:
            # In a shallow clone the two may have no ancestor in common.
            return (git(tree, "merge-base", found, "HEAD") or found).strip()
    if since:
        raise NotFound(f"there is no commit {since}")
    raise NotFound(f"nothing to compare with: none of {', '.join(UPSTREAMS)} is here; use --since COMMIT or --all")


def _that_stand(tree, listed):
    names = sorted(set(listed.split("\0")) - {""})
    return [name for name in names if os.path.isfile(os.path.join(tree, name))]


def changed_files(tree, start):
    """Those that differ from the commit, committed or not, and new ones."""
    return _that_stand(tree, git(tree, "diff", "--name-only", "-z", start) + _untracked(tree))


def _untracked(tree):
    return git(tree, "ls-files", "--others", "--exclude-standard", "-z")


def all_files(tree):
    tracked = git(tree, "ls-files", "-z")
    if tracked:
        return _that_stand(tree, tracked + _untracked(tree))
    found = []
    for directory, directories, names in os.walk(tree):
        if directory == str(tree):
            directories[:] = [name for name in directories if name not in NOT_OURS]
        found += [os.path.relpath(os.path.join(directory, name), tree) for name in names]
    return sorted(found)


def _rules_came(tree):
    """The commit that brought the rules; in a shallow clone the oldest that is there; None before it."""
    added = (git(tree, "log", "--diff-filter=A", "--format=%H", "--", RULES_STAND_SINCE) or "").split()
    return added[-1] if added else None


def subjects(tree, start):
    """(commit, subject) of each commit behind start, or of all if that is None, that came under the rules; oldest first."""
    came = _rules_came(tree)
    if not start and not came:
        return []
    without = [f"^{commit}" for commit in (start, came) if commit]
    log = git(tree, "log", "--reverse", "--no-merges", "--format=%h %s", "HEAD", *without) or ""
    return [tuple(line.split(" ", 1)) for line in log.splitlines()]
