#!/usr/bin/env python3
"""What fresh memory costs on this machine, by how long it lay free.

    /usr/bin/python3 bench/fresh_memory.py [--mib 1024] [--rounds 6] [--idle 0 3]

For each idle time: `--rounds` times, fill `--mib` MiB of newly allocated
memory (numpy.ones: the system hands out and clears every page), free it,
and wait that many seconds before the next round. Prints milliseconds per
GiB of every round. On bare metal every round costs about the same. In a
virtual machine whose balloon device reports free pages to its host, memory
that lay free for longer than the guest's reporting delay (2 s in Linux) is
given back to the host, and the next touch of each page waits for the host
to provide it again: rounds after a long idle time are then many times
slower than rounds that reuse memory freed a moment ago. Loads into fresh
memory, glibc giving freed arrays back, a worker that starts a task after a
pause and a tmpfs file written after another was deleted all pay it.
Timing only: nothing is asserted.
"""

import argparse
import pathlib
import statistics
import time

import numpy as np


def reporting_enabled():
    """Whether a virtio balloon here offers free page reporting (feature bit 5)."""
    for device in pathlib.Path("/sys/bus/virtio/devices").glob("*"):
        driver = device / "driver"
        if driver.exists() and driver.resolve().name == "virtio_balloon":
            features = (device / "features").read_text().strip()
            return len(features) > 5 and features[5] == "1"
    return False


def round_ms(mib):
    started = time.perf_counter()
    block = np.ones(mib << 17)  # mib MiB of doubles
    seconds = time.perf_counter() - started
    del block
    return seconds * 1000 * 1024 / mib


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--mib", type=int, default=1024)
    parser.add_argument("--rounds", type=int, default=6)
    parser.add_argument("--idle", type=float, nargs="+", default=[0.0, 3.0])
    args = parser.parse_args()
    print(f"free page reporting to the host: {'on' if reporting_enabled() else 'off or unknown'}")
    print("| idle before each round (s) | ms per GiB of fresh memory, each round | median |")
    print("|---|---|---|")
    for idle in args.idle:
        times = []
        for _ in range(args.rounds):
            times.append(round_ms(args.mib))
            time.sleep(idle)
        # The first round follows the previous idle time, not this one.
        print(f"| {idle:g} | " + " ".join(f"{t:.0f}" for t in times)
              + f" | {statistics.median(times[1:]):.0f} |")


if __name__ == "__main__":
    main()
