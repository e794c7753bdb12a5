#!/usr/bin/python3
"""tql-pendant-latency: the pendant's own latency, measured on a running pendant.

    tql-pendant-latency ws://127.0.0.1:8765/ws [--jogs 10] [--seconds 5]

Takes control, jogs joint 6 back and forth (--jogs short hold-to-run jogs at
a tenth of the jog speed) and prints:
  - press to first set-point: from a jog request's arrival at the pendant to
    the first set-point of the jog (the pendant measures it), and the
    client's round trip of a request that does not move the arm (what the
    network and the server's thread add);
  - the state update rate the page receives, over --seconds.
Goals: under 50 ms, at least 20 Hz. Exit status 1 when a goal is missed.
"""
import argparse
import os
import statistics
import sys
import time

here = os.path.dirname(os.path.realpath(__file__))
for candidate in (os.path.join(here, "..", "python"), os.path.join(here, "python"),
                  os.path.join(here, "..", "lib", "python3", "dist-packages")):
    if os.path.exists(os.path.join(candidate, "tql_pendant.py")):
        sys.path.insert(0, candidate)
        break
from tql_pendant import Pendant  # noqa: E402

GOAL_MS = 50.0
GOAL_HZ = 20.0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("url", help="the pendant's WebSocket, ws://HOST:PORT/ws")
    parser.add_argument("--token", help="the pendant's token (listening beyond loopback)")
    parser.add_argument("--jogs", type=int, default=10)
    parser.add_argument("--seconds", type=float, default=5.0)
    parser.add_argument("--verbose", action="store_true", help="each jog's figure")
    args = parser.parse_args()
    with Pendant(args.url, token=args.token) as arm:
        first, trips = [], []
        for k in range(args.jogs):
            reply = arm.jog("joint", 5, 1 if k % 2 == 0 else -1, seconds=0.2, speed=0.1)
            if "first_setpoint_ms" in reply:
                first.append(reply["first_setpoint_ms"])
                if args.verbose:
                    print(f"jog {k + 1}: {first[-1]:.1f} ms")
            sent = time.monotonic()
            arm.load_program()
            trips.append(1e3 * (time.monotonic() - sent))
        # Counted between two arrivals, so the window holds whole periods.
        arm.state(fresh=True)
        count0, t0 = arm.states, time.monotonic()
        time.sleep(args.seconds)
        arm.state(fresh=True)
        rate = (arm.states - count0) / (time.monotonic() - t0)
    if not first:
        print("no jog reached its first set-point", file=sys.stderr)
        return 1
    worst = max(first) + statistics.median(trips)
    print(f"press to first set-point: median {statistics.median(first):.1f} ms, max {max(first):.1f} ms "
          f"over {len(first)} jogs (pendant-side); request round trip median {statistics.median(trips):.1f} ms")
    print(f"state updates: {rate:.1f} per second")
    ok = worst < GOAL_MS and rate >= GOAL_HZ
    print(f"goals (under {GOAL_MS:.0f} ms, at least {GOAL_HZ:.0f} Hz): {'met' if ok else 'MISSED'}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
