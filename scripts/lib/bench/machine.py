"""The machine that the figures come from."""

import os
import platform


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


def machine_lines(machine):
    return [f"machine: {machine['cpu']}, {machine['cores']} cores, {machine['memoryMb']} MB",
            f"kernel:  {machine['kernel']}",
            "load at start: " + " ".join(f"{load:.2f}" for load in machine["loadAtStart"])]
