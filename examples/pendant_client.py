#!/usr/bin/env python3
"""Driving the arm through a running tql-pendant from a program of your own.

    tql-pendant --port 8765            # in the arm's working directory
    /usr/bin/python3 examples/pendant_client.py ws://127.0.0.1:8765/ws

Reads the arm's state, jogs joint 1 for 1 s, teaches a joint move (MOVJ) to
that pose, jogs joint 2, teaches again, goes home, runs the program once (the
two taught lines come last in it) and prints where the arm ended. It takes
control of the arm: close the pendant's page first, or release control there.

tql_pendant comes from the source tree (python/ beside examples/), else from
the install: the tql package puts it beside the tql module in
<prefix>/lib/python3/dist-packages, on the system interpreter's path for the
/usr packages (for another prefix: PYTHONPATH=<prefix>/lib/python3/dist-packages).
"""
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
# The source tree's copy; <prefix>/lib/python3/dist-packages seen from a copy
# of this file in <prefix>/share/tql/examples.
for where in (os.path.join(HERE, "..", "python"), os.path.join(HERE, "..", "..", "..", "lib", "python3", "dist-packages")):
    if os.path.exists(os.path.join(where, "tql_pendant.py")):
        sys.path.insert(0, os.path.abspath(where))
        break

import websocket  # noqa: E402  (Debian's python3-websocket, which tql_pendant uses)
from tql_pendant import Pendant, PendantError  # noqa: E402


def show(what, state):
    joints = " ".join(f"{q:8.3f}" for q in state["joints_deg"])
    x, y, z, rx, ry, rz = state["pose"]
    print(f"{what:>9}: joints (deg) {joints}")
    print(f"{'':>9}  flange x y z (mm) {x:.1f} {y:.1f} {z:.1f}, rx ry rz (deg) {rx:.1f} {ry:.1f} {rz:.1f}")


def main():
    url = sys.argv[1] if len(sys.argv) > 1 else "ws://127.0.0.1:8765/ws"
    try:
        with Pendant(url) as arm:
            show("start", arm.state())
            speed = 0.5  # of the jog speed: hello's jog_deg_s is a joint's at 1
            print(f"jogging joint 1 at {arm.hello['joints'][0]['jog_deg_s'] * speed:.2f} deg/s for 1 s")
            arm.jog("joint", 0, +1, seconds=1.0, speed=speed)
            print("taught:", arm.teach("MOVJ"))
            print(f"jogging joint 2 at {arm.hello['joints'][1]['jog_deg_s'] * speed:.2f} deg/s for 1 s")
            arm.jog("joint", 1, +1, seconds=1.0, speed=speed)
            print("taught:", arm.teach("MOVJ"))
            arm.home()
            show("home", arm.state(fresh=True))
            print("running", arm.hello["program"], "once")
            arm.run(cycle="once")
            show("end", arm.state(fresh=True))
    except PendantError as error:
        sys.exit(f"the pendant refused: {error}")
    except (OSError, websocket.WebSocketException) as error:  # refused, closed, timed out
        sys.exit(f"the pendant at {url}: {error}")


if __name__ == "__main__":
    main()
