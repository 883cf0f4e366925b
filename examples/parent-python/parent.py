#!/usr/bin/env python3
"""A parent application in small: it shows the messages of one chat and sends what is typed.

    parent.py [--helper PATH] [--state DIRECTORY] CHAT-ID CHAT-TITLE

Messages go to standard output, everything else to standard error. Which worker the helper runs, the environment says
(docs/embedding.md). The end of the input, Ctrl-C or SIGTERM ends it. It needs Python 3.9 and nothing else.
"""

import argparse
import collections
import json
import os
import pathlib
import queue
import re
import secrets
import shutil
import signal
import subprocess
import sys
import threading
import time

PLATFORM = "whatsapp"
BRIDGE_VERSION = "managed-whatsapp-backend-3"
# The helper's exit status when it does not take the launch token: trying again does not help.
REFUSED = 64
# States of the worker that are final for this helper. A fresh helper starts a fresh worker.
WORKER_IS_LOST = ("exited", "launch_failed")
LOOK_SECONDS = 1.0
END_SECONDS = 10.0
FIRST_PAUSE_SECONDS, LONGEST_PAUSE_SECONDS = 1.0, 60.0
# Whoever has run for so long has not failed at once.
GOOD_RUN_SECONDS = 60.0
# What a terminal obeys, and what turns the reading direction. Messages come from strangers.
UNSHOWABLE = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]")

END, HELPER_ENDED, FAILED, TYPED = "end", "helper ended", "failed", "typed"


def shown(text):
    return UNSHOWABLE.sub("?", text).replace("\n", "\n    ")


def say(text):
    print(shown(text), file=sys.stderr, flush=True)


class GivenUp(Exception):
    """What no further try can mend."""


class Journal:
    """The messages that came in, one JSON document a line: this application's database.

    The helper delivers a message twice rather than never, so what is here already is not taken again."""

    def __init__(self, path):
        self._file = open(os.open(path, os.O_RDWR | os.O_CREAT, 0o600), "r+b")
        content = self._file.read()
        # A crash in the middle of a line leaves a part of it.
        whole = content[: content.rfind(b"\n") + 1]
        self._file.truncate(len(whole))
        self._file.seek(len(whole))
        self._known = {json.loads(line)["messageId"] for line in whole.splitlines()}

    def add(self, event):
        """Whether the message is new. It is on the disk when this returns."""
        if event["messageId"] in self._known:
            return False
        self._file.write(json.dumps(event).encode() + b"\n")
        self._file.flush()
        os.fsync(self._file.fileno())
        self._known.add(event["messageId"])
        return True


class Helper:
    """One life of the helper, from its launch token to its end."""

    def __init__(self, program, state, on_envelope, events):
        self.is_greeted = False
        self._on_envelope = on_envelope
        self._events = events
        self._token_file = state / "launch-token"
        self._start = time.monotonic()
        self._process = subprocess.Popen(
            [program, "--platform", PLATFORM],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env={**os.environ, **self._make_token(), "BRINDLE_MANAGED_BRIDGE_DATA_DIR": str(state / "data")},
            # Ctrl-C is for us alone; we end the helper in order.
            start_new_session=True,
        )
        # Both streams are read all the time, each without waiting for the other.
        self._readers = [threading.Thread(target=reader, daemon=True) for reader in (self._read_output, self._read_error)]
        for reader in self._readers:
            reader.start()

    def _make_token(self):
        """A fresh secret for each start, which nobody else can read."""
        token = secrets.token_hex(32)
        self._token_file.unlink(missing_ok=True)
        descriptor = os.open(self._token_file, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
        with open(descriptor, "w", encoding="ascii") as file:
            file.write(token)
        return {"BRINDLE_HELPER_LAUNCH_TOKEN": token, "BRINDLE_HELPER_LAUNCH_TOKEN_FILE": str(self._token_file)}

    def _read_output(self):
        # Bytes are split at line feeds only. Text would also be split at characters that stand within messages.
        try:
            for line in self._process.stdout:
                self._on_envelope(self, json.loads(line))
        except (OSError, ValueError) as problem:
            # Nothing more is read: what is read and cannot be stored would be lost.
            self._events.put((FAILED, problem))
            return
        self._events.put((HELPER_ENDED, self))

    def _read_error(self):
        for line in self._process.stderr:
            say("helper| " + line.decode("utf-8", "replace").rstrip("\n"))

    def request(self, case, **fields):
        """Sends one line. OSError when the helper is gone; whether it has read earlier lines is not known then."""
        self._process.stdin.write(json.dumps({case: {"_0": {"platform": PLATFORM, **fields}}}).encode() + b"\n")
        self._process.stdin.flush()

    def seconds(self):
        return time.monotonic() - self._start

    def end(self):
        """Closes the helper's input, reads what it still says and returns its exit status; negative: a signal."""
        try:
            self._process.stdin.close()
        except OSError:
            pass
        for stop in (None, self._process.terminate, self._process.kill):
            if stop is not None:
                stop()
            try:
                status = self._process.wait(END_SECONDS)
                break
            except subprocess.TimeoutExpired:
                continue
        for reader in self._readers:
            reader.join()
        # Not earlier: the built-in worker reads it too, after the helper has greeted.
        self._token_file.unlink(missing_ok=True)
        return status


class Parent:
    def __init__(self, program, state, chat_id, title):
        self._program = program
        self._state = state
        self._scope = {"conversation": {"id": chat_id, "title": title}}
        self._chat_id = chat_id
        # Unlike others, this kind of queue may be filled by a signal handler.
        self._events = queue.SimpleQueue()
        self._journal = Journal(state / "messages.jsonl")
        self._unsent = []
        self._worker = None
        self._words = None

    def run(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda *_: self._events.put((END, None)))
        threading.Thread(target=self._read_typed, daemon=True).start()
        pause = FIRST_PAUSE_SECONDS
        while True:
            helper = Helper(self._program, self._state, self._take, self._events)
            try:
                is_over = self._serve(helper)
            except GivenUp:
                helper.end()
                raise
            was_good = helper.seconds() > GOOD_RUN_SECONDS
            status = helper.end()
            if is_over:
                return
            if status == REFUSED:
                raise GivenUp("The helper does not take our launch token.")
            pause = FIRST_PAUSE_SECONDS if was_good else pause
            say(f"The helper has ended with status {status}; it is started again in {pause:g} s.")
            if self._wait(pause):
                return
            pause = min(2 * pause, LONGEST_PAUSE_SECONDS)

    def _read_typed(self):
        # Without a buffer: at our end this thread may still be waiting in it, which Python does not bear.
        for line in open(sys.stdin.fileno(), "rb", buffering=0, closefd=False):
            self._events.put((TYPED, line.decode("utf-8", "replace").strip()))
        self._events.put((END, None))

    def _serve(self, helper):
        """Until this helper is of no use any more. Whether we are to end."""
        self._worker = None
        self._words = collections.deque(maxlen=2)
        next_look = time.monotonic() + LOOK_SECONDS
        while True:
            what, value = self._next_event(next_look)
            if what == END:
                # What was typed is still sent.
                self._send_typed(helper)
                return True
            if what == HELPER_ENDED and value is helper:
                return False
            if what == TYPED and value:
                self._unsent.append(value)
            if helper.is_greeted:
                self._send_typed(helper)
            if what is None:
                next_look = time.monotonic() + LOOK_SECONDS
                if helper.is_greeted and self._worker_is_lost():
                    return False

    def _wait(self, seconds):
        """Lets the time pass. Whether we are to end."""
        until = time.monotonic() + seconds
        while True:
            what, value = self._next_event(until)
            if what in (None, END):
                return what == END
            if what == TYPED and value:
                self._unsent.append(value)

    def _next_event(self, until):
        try:
            what, value = self._events.get(timeout=max(0.0, until - time.monotonic()))
        except queue.Empty:
            return None, None
        if what == FAILED:
            raise GivenUp(f"What the helper said cannot be taken: {value}")
        return what, value

    def _take(self, helper, envelope):
        """What the helper says, on the thread that reads it: the next line is read when this one is stored."""
        ((case, content),) = envelope.items()
        record = content["_0"]
        if case == "hello":
            self._greet(helper, record)
        elif case == "inboundEvent":
            event = record["event"]
            if self._journal.add(event):
                print(shown(f"{event['senderDisplayName']}: {event['text']}"), flush=True)
        elif case == "stateChanged":
            say("connection: " + next(iter(record["state"])))
        elif case == "error":
            say("The helper could not carry out a request: " + record["message"])

    def _greet(self, helper, hello):
        if hello["bridgeVersion"] != BRIDGE_VERSION:
            say(f"The helper speaks {hello['bridgeVersion']}, this program {BRIDGE_VERSION}.")
        try:
            helper.request("connect")
            helper.request("startListening", scope=self._scope)
        except OSError:
            return
        helper.is_greeted = True
        self._events.put((TYPED, ""))

    def _send_typed(self, helper):
        while self._unsent:
            try:
                helper.request("sendMessage", message={"conversationId": self._chat_id, "text": self._unsent[0]})
            except OSError:
                return
            self._unsent.pop(0)
            worker = self._worker or {}
            if "workerLastHeartbeatISO8601" in worker and not worker["workerSupportsOutbound"]:
                say("This worker does not send; the message is kept until one comes that does.")

    def _worker_is_lost(self):
        """Looks at the helper's status file, says what is new about the worker, and whether it is gone for good."""
        runtime = self._state / "data" / "runtime"
        try:
            status = json.loads((runtime / "runtime-status.json").read_bytes())
        except (OSError, ValueError):
            return False
        word = status["workerState"]
        # The built-in worker alternates between two words for as long as two things are true.
        if word not in self._words:
            self._words.append(word)
            say(f"worker: {word}: {status.get('workerDetail', '')}")
            if word == "waiting_for_qr":
                say(f"Scan {runtime / 'worker-qr.png'} with the phone.")
        self._worker = status
        return word in WORKER_IS_LOST


def arguments():
    base = os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state")
    parser = argparse.ArgumentParser(description="Shows the messages of one chat and sends what is typed.")
    parser.add_argument("--helper", default="BrindleManagedWhatsAppBackend", help="the helper's program")
    parser.add_argument("--state", type=pathlib.Path, default=pathlib.Path(base) / "brindle-sample-parent")
    parser.add_argument("id", help="how we call the chat")
    parser.add_argument("title", help="its title as the service shows it")
    return parser.parse_args()


def main():
    options = arguments()
    try:
        program = shutil.which(options.helper)
        if program is None:
            raise GivenUp(f"There is no program {options.helper}; name it with --helper.")
        # Private: who can write here can speak as the worker, and who can read here has the messages.
        try:
            options.state.mkdir(mode=0o700, parents=True, exist_ok=True)
        except OSError as problem:
            raise GivenUp(f"Cannot make {options.state}: {problem.strerror}; name another with --state.") from problem
        Parent(program, options.state.resolve(), options.id, options.title).run()
    except (GivenUp, OSError) as problem:
        say(str(problem))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
