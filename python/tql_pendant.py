"""Client of tql-pendant's WebSocket API (docs/pendant-api.md).

    from tql_pendant import Pendant
    with Pendant("ws://127.0.0.1:8765/ws") as arm:
        arm.jog("joint", 0, +1, seconds=1.0)
        print(arm.teach("MOVJ"))

Angles in degrees, lengths in millimetres, times in seconds, as the pendant
and the program files have them. Needs only websocket-client (Debian's
python3-websocket).
"""
from __future__ import annotations

import itertools
import json
import threading
import time
from typing import Any, Dict, List, Optional

import websocket

Json = Dict[str, Any]
HEARTBEAT_S = 0.1  # a held jog is let go after 0.3 s without a heartbeat


class PendantError(RuntimeError):
    """A refused or failed request: the pendant's error text, and in `messages`
    a program check's [{"line": N, "text": ...}] (line 0: the whole file)."""

    def __init__(self, reply: Json):
        self.reply = reply
        self.messages: List[Json] = reply.get("messages", [])
        lines = "".join(f"\n  line {m['line']}: {m['text']}" for m in self.messages)
        super().__init__(reply.get("error", "request failed") + lines)


class Call:
    """A request on its way; result() waits for its reply."""

    def __init__(self, op: str) -> None:
        self.op = op
        self.reply: Json = {}
        self._done = threading.Event()

    def result(self, timeout: Optional[float] = None, verdict: bool = False) -> Json:
        """The reply (timeout in s, None: as long as it takes). PendantError when it
        failed, unless `verdict` and it is a program check's answer."""
        if not self._done.wait(timeout):
            raise TimeoutError(f"no reply from the pendant within {timeout} s")
        if not self.reply.get("ok") and not (verdict and "messages" in self.reply):
            raise PendantError(self.reply)
        return self.reply


class Pendant:
    """One connection: reads `hello` and, unless control=False (a watcher), takes
    control, which every request that moves the arm needs. timeout: seconds
    to wait for a reply that does not wait on a motion."""

    def __init__(self, url: str, token: Optional[str] = None, timeout: float = 10.0, control: bool = True):
        self.timeout = timeout
        header = [f"Authorization: Bearer {token}"] if token else []
        # No Origin header: this is no browser page (the pendant checks one only when sent).
        self._ws = websocket.create_connection(url, timeout=timeout, header=header, suppress_origin=True)
        self.hello: Json = json.loads(self._ws.recv())
        self._ids = itertools.count(1)
        self._calls: Dict[int, Call] = {}
        self._unaddressed: List[Json] = []  # replies to messages the pendant could not read
        self._state: Json = {}
        self._states = 0  # states received
        self._free: Optional[Call] = None
        self._closed = False
        self._seen = threading.Condition()
        self._reader = threading.Thread(target=self._read, name="tql-pendant", daemon=True)
        self._reader.start()
        try:
            if control:
                self.request("control")
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> "Pendant":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def close(self) -> None:
        """Closes the connection; the pendant lets go of a held jog and of control."""
        self._closed = True
        self._reader.join(timeout=2)  # it ends at the next message (a state every 50 ms)
        self._ws.close()

    def _read(self) -> None:
        while not self._closed:
            try:
                message = json.loads(self._ws.recv())
            except websocket.WebSocketTimeoutException:
                continue
            except Exception:  # closed, or the close frame's empty text
                break
            with self._seen:
                if message.get("type") == "state":
                    self._state, self._states = message, self._states + 1
                elif message.get("type") == "reply":
                    call = self._calls.pop(message.get("id"), None)  # type: ignore[arg-type]
                    if call is None:
                        self._unaddressed.append(message)
                    else:
                        call.reply = message
                        call._done.set()
                self._seen.notify_all()
        with self._seen:
            self._closed = True
            for call in self._calls.values():
                call.reply = {"ok": False, "error": "the connection to the pendant closed"}
                call._done.set()
            self._calls.clear()
            self._seen.notify_all()

    def _wait(self, ready: Any, what: str) -> None:
        if not self._seen.wait_for(lambda: ready() or self._closed, self.timeout) or not ready():
            raise TimeoutError(f"no {what} from the pendant")

    def send(self, op: str, **fields: Any) -> Call:
        """Sends a request without waiting for its reply."""
        call, ident = Call(op), next(self._ids)
        with self._seen:
            self._calls[ident] = call
        self._ws.send(json.dumps({"op": op, "id": ident, **fields}))
        return call

    def request(self, op: str, wait: Optional[float] = -1, **fields: Any) -> Json:
        """Any request; its reply (wait: s, None: as long as it takes, -1: timeout)."""
        return self.send(op, **fields).result(self.timeout if wait == -1 else wait)

    def send_text(self, text: str) -> Json:
        """Sends `text` as it is; the pendant's reply to a message it cannot read."""
        with self._seen:
            self._unaddressed.clear()
        self._ws.send(text)
        with self._seen:
            self._wait(lambda: self._unaddressed, "reply")
            return self._unaddressed.pop(0)

    @property
    def states(self) -> int:
        """How many states have arrived (one every 50 ms)."""
        return self._states

    def state(self, fresh: bool = False) -> Json:
        """The latest state: joints_deg (degrees), pose (x, y, z mm, rx, ry, rz
        degrees, the flange in the base frame), activity, ... With fresh, one
        sent after this call (states come every 50 ms)."""
        with self._seen:
            after = self._states if fresh else 0
            self._wait(lambda: self._states > after, "state")
            return self._state

    def jog(self, kind: str, index: int, direction: int, seconds: float, speed: float = 0.5) -> Json:
        """Holds a jog button for `seconds`: joint `index` (0-based, degrees), or
        kind "cartesian" along/about base x, y, z, rx, ry, rz (0..5; mm, degrees),
        in `direction` +1 or -1 at `speed` (0, 1] of hello's jog_deg_s
        (jog_mm_s, jog_turn_deg_s); then lets go. Returns with the arm at rest."""
        call = self.send("jog", kind=kind, index=index, direction=direction, speed=speed)
        end = time.monotonic() + seconds
        while not call._done.is_set() and time.monotonic() < end:
            time.sleep(min(HEARTBEAT_S, max(0.0, end - time.monotonic())))
            self._ws.send('{"op":"heartbeat"}')
        if not call._done.is_set():
            self.request("release")
        return call.result(self.timeout)

    def teach(self, move: str = "MOVJ") -> Optional[str]:
        """Appends the present pose to the program as a MOVJ, MOVL or MOVC; the line
        written (None for a MOVC's first call, which keeps its auxiliary point)."""
        return self.request("teach", move=move).get("line")

    def load_program(self) -> str:
        """The program file's text."""
        return self.request("load_program")["text"]

    def check_program(self, text: str) -> Json:
        """Checks `text` as a run would, without moving: the verdict {"ok", "moves",
        "messages": [{"line", "text"}]}. A bad program is an answer, not an error."""
        return self.send("check_program", text=text).result(self.timeout, verdict=True)

    def save_program(self, text: str) -> Json:
        """Writes the program file whole, then checks it: the verdict as above."""
        return self.send("save_program", text=text).result(self.timeout, verdict=True)

    def run(self, cycle: str = "once", override: float = 1.0, blend: bool = False, wait: bool = True) -> Any:
        """Runs the program (cycle "once", "continuous" or "step"; override 0.1..1 of
        its speeds; blend through z zones) to its end, or with wait=False returns
        its Call at once (a step run then goes on by step()). A program that does
        not check out raises PendantError with the check's messages; nothing moves."""
        call = self.send("run", cycle=cycle, override=override, blend=blend)
        return call.result(None) if wait else call

    def step(self, direction: str = "forward") -> None:
        """The next move ("forward") or the one before ("backward") of a step run."""
        self.request("step", direction=direction)

    def stop(self) -> None:
        """Braking stop of whatever moves; ends hand guiding and a step run."""
        self.request("stop")

    def free(self) -> None:
        """Hand guiding: the arm floats under gravity compensation until hold()."""
        self._free = free = self.send("free")
        with self._seen:  # floating once a state shows mode 0 (hand guiding)
            after = self._states
            self._wait(lambda: free._done.is_set() or (self._states > after and self._state.get("mode") == 0), "hand guiding")
        if free._done.is_set():
            free.result(0)

    def hold(self) -> None:
        """Ends hand guiding: the arm is held where it stands."""
        self.request("hold")
        if self._free is not None:
            self._free, free = None, self._free
            free.result(self.timeout)

    def record_start(self) -> None:
        """While free: records the joints every 4 ms."""
        self.request("record_start")

    def record_stop(self) -> int:
        """Saves the recording as the trajectory file; its number of samples."""
        return self.request("record_stop")["samples"]

    def replay(self, override: float = 1.0) -> None:
        """Replays the trajectory file once at `override` (0.1..1: a sample every
        4 / override ms); returns at its end."""
        self.request("replay", wait=None, override=override)

    def home(self) -> None:
        """All joints to 0 degrees; returns once there."""
        self.request("home", wait=None)
