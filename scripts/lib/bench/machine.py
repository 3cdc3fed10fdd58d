"""The machine that the figures come from."""

import os
import platform
import subprocess


def cpu_model(cpuinfo):
    for line in cpuinfo.splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "unknown"


def read_text(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except OSError:
        return ""


def describe_machine():
    memory = [line.split()[1] for line in read_text("/proc/meminfo").splitlines() if line.startswith("MemTotal")]
    return {
        "cpu": cpu_model(read_text("/proc/cpuinfo")),
        "cores": os.cpu_count(),
        "memoryMb": int(memory[0]) // 1024 if memory else 0,
        "kernel": f"{platform.system()} {platform.release()} {platform.machine()}",
        "loadAtStart": [round(load, 2) for load in os.getloadavg()],
    }


def first_line(command):
    """Of what a program prints; empty if it cannot."""
    try:
        done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    except (OSError, subprocess.CalledProcessError):
        return ""
    return next(iter(done.stdout.decode(errors="replace").splitlines()), "")


def describe_versions(tree, uucp):
    """Of this tree and of the peers, as far as they can be told."""
    packages = {name: first_line(["dpkg-query", "-W", "-f", "${Version}", name]) for name in ("lrzsz", "ckermit")}
    commit = first_line(["git", "-C", tree, "describe", "--always", "--dirty", "--abbrev=12"])
    versions = {"commit": commit, **packages, "uucp": first_line([uucp / "usr/lib/uucp/uucico", "--version"])}
    return {name: version for name, version in versions.items() if version}


def machine_lines(result):
    machine = result["machine"]
    versions = ", ".join(f"{name} {version}" for name, version in result.get("versions", {}).items())
    return [f"machine: {machine['cpu']}, {machine['cores']} cores, {machine['memoryMb']} MB",
            f"kernel:  {machine['kernel']}",
            "load at start: " + " ".join(f"{load:.2f}" for load in machine["loadAtStart"]),
            *([f"versions: {versions}"] if versions else [])]
