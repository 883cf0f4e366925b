#!/usr/bin/env python3
"""A native worker without a messaging service behind it: it answers each message with its echo.

Start from it: put your service into `send`, and write what the service receives the way `receive` does. All else is what
every worker has to do. docs/native-worker.md explains the rules; it needs Python 3.9 and nothing else.
"""

import json
import os
import secrets
import signal
import stat
import sys
import time
import uuid

ROUND_SECONDS = 0.2
HEARTBEAT_SECONDS = 1.0
END_SIGNALS = {signal.SIGTERM, signal.SIGINT, signal.SIGHUP}
# How a program ends that was started in the wrong way, and one that cannot work as it is set up (sysexits.h).
USAGE, CONFIGURATION = 64, 78
ECHO = "-echo-"
NUMBER_DIGITS = 20


class Unusable(Exception):
    """A record that will never get better."""


class Usage(Exception):
    """The worker was started by hand."""


def say(stream, text):
    """One line in one write, so that the helper passes it on whole. Nobody may be reading any more."""
    try:
        os.write(stream.fileno(), (text + "\n").encode("utf-8", "replace"))
    except OSError:
        pass


def now():
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())


def failure(verb, path, error):
    return OSError(f"Cannot {verb} {path}: {error.strerror}.")


# Files.


def write(path, content, flush):
    """Makes the file appear in one step: readers see the old content or the new, never a part.

    The helper clears away hidden files of this name that a killed worker has left."""
    directory = os.path.dirname(path)
    temporary = os.path.join(directory, ".brindle-" + secrets.token_hex(3))
    try:
        with open(os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as file:
            file.write(content.encode())
            if flush:
                file.flush()
                os.fsync(file.fileno())
        os.rename(temporary, path)
        if flush:
            flush_directory(directory)
    except OSError as error:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise failure("write", path, error) from error


def flush_directory(directory):
    """A name is on the disk only when its directory is."""
    descriptor = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def write_record(path, record, flush):
    present = {name: value for name, value in record.items() if value is not None}
    write(path, json.dumps(present, indent=2, sort_keys=True) + "\n", flush)


def read_record(path):
    """The JSON object in a file. OSError: it may be readable later. Unusable: it never will be."""
    try:
        # A FIFO in the place of a file would be waited for.
        if not stat.S_ISREG(os.stat(path).st_mode):
            raise Unusable("It is not a regular file.")
        with open(path, "rb") as file:
            content = file.read()
    except OSError as error:
        raise OSError(error.errno, failure("read", path, error).args[0]) from error
    try:
        record = json.loads(content)
    except (ValueError, RecursionError) as error:
        raise Unusable(f"It is not JSON: {error}.") from None
    if not isinstance(record, dict):
        raise Unusable("It is not a JSON object.")
    return record


def text_of(record, name, optional=False):
    value = record.get(name)
    if isinstance(value, str) or (optional and value is None):
        return value
    raise Unusable(f"Its {name} is missing or not a text.")


def visible_names(directory):
    try:
        return sorted(name for name in os.listdir(directory) if not name.startswith("."))
    except OSError as error:
        raise failure("read", directory, error) from error


def waiting_records(directory):
    """The records in the order of their names, which is the order of the messages.

    A long listing is read in portions and may show a later file without an earlier one. What stood before the last one of
    a first listing is surely in the second."""
    first = [name for name in visible_names(directory) if name.endswith(".json")]
    if not first:
        return []
    return [name for name in visible_names(directory) if name.endswith(".json") and name <= first[-1]]


class Names:
    """Names that sort as they were made, also behind those that an earlier worker left, and whatever the clock does."""

    def __init__(self, directory):
        left = [name.split(ECHO)[0] for name in visible_names(directory) if ECHO in name]
        self._last = max((int(number) for number in left if number.isascii() and number.isdecimal()), default=0)

    def next(self):
        self._last = max(self._last + 1, time.time_ns())
        # As text 10 sorts before 9, but not when both have the same number of digits.
        return f"{self._last:0{NUMBER_DIGITS}d}"


# The worker.


class Worker:
    def __init__(self, directory, platform, must_end):
        self._platform = platform
        self._must_end = must_end
        self._inbound = os.path.join(directory, "inbound")
        self._outbound = os.path.join(directory, "outbound")
        self._handled = [os.path.join(directory, name) for name in ("processed", "rejected")]
        runtime = os.path.join(directory, "runtime")
        self._sent = os.path.join(runtime, "worker-processed-outbound")
        self._refused = os.path.join(runtime, "worker-rejected-outbound")
        self._control = os.path.join(runtime, "worker-control.json")
        self._status = os.path.join(runtime, "worker-status.json")
        self._pid = os.path.join(runtime, "worker.pid")
        self._names = Names(self._inbound)
        self._watched = None
        self._echoed = None
        self._published = None
        self._heartbeat = 0.0
        self._problems = []

    def start(self):
        write(self._pid, str(os.getpid()), flush=False)
        self._publish_status()

    def round(self):
        problems = []
        # Each step by itself: a full disk must not keep the heartbeat from being tried.
        for step in (self._follow_control, self._send_waiting, self._publish_status):
            try:
                step()
            except (OSError, Unusable) as problem:
                problems.append(str(problem.strerror if getattr(problem, "strerror", None) else problem))
        # What stays wrong is said once, not five times a second.
        if problems and problems != self._problems:
            say(sys.stderr, "\n".join(problems))
        self._problems = problems

    def remove_own_files(self):
        """By now the next helper may have started a worker of its own, whose files these are."""
        try:
            with open(self._pid, encoding="ascii") as file:
                if file.read() != str(os.getpid()):
                    return
            os.unlink(self._status)
            os.unlink(self._pid)
        except (OSError, ValueError):
            pass

    def _follow_control(self):
        """What to watch. No file, no scope, or one that cannot be read: nothing."""
        try:
            control = read_record(self._control)
            if text_of(control, "platform") != self._platform:
                return
            self._watched = self._scope_of(control)
        except FileNotFoundError:
            self._watched = None
        except (OSError, Unusable) as problem:
            self._watched = None
            raise Unusable(f"Cannot use {self._control}: {problem}") from None

    def _scope_of(self, control):
        scope = control.get("activeScope")
        if scope is None:
            return None
        if not isinstance(scope, dict):
            raise Unusable("Its activeScope is not an object.")
        identifier, title = text_of(scope, "id", optional=True), text_of(scope, "title", optional=True)
        # A self-test is the helper's own business, and so is any kind that we do not know.
        if text_of(scope, "kind") not in ("conversation", "channel", "thread") or identifier is None:
            return None
        return {"kind": scope["kind"], "id": identifier, "title": identifier if title is None else title}

    def _send_waiting(self):
        waiting = waiting_records(self._outbound)
        if waiting and self._echoed is None:
            self._echoed = self._echoed_among(waiting)
        for name in waiting:
            # Nobody waits for a worker that was asked to end, so even a long round breaks off.
            if self._must_end():
                return
            try:
                record = self._outgoing(name)
            except Unusable as problem:
                say(sys.stderr, f"Rejected outbound record {' '.join(name.split())}: {problem}")
                self._move(name, self._refused)
                continue
            self.send(record)
            # Last of all: a worker that dies before this line finds the record again.
            self._move(name, self._sent)
            self._echoed.discard(record["messageId"])

    def _outgoing(self, name):
        """The record in that file. OSError: those behind it must not overtake it and wait as well."""
        record = read_record(os.path.join(self._outbound, name))
        for field in ("conversationId", "text", "createdAtISO8601"):
            text_of(record, field)
        # It becomes part of a file name; it can be trusted when it already is one.
        if text_of(record, "messageId") + ".json" != name:
            raise Unusable("Its message identifier is not its file name.")
        return record

    def send(self, record):
        """Your service sends here. Done twice it must have the effect of once, because a crash may come right after."""
        if record["messageId"] in self._echoed:
            return
        self.receive(record)
        self._echoed.add(record["messageId"])
        say(sys.stdout, f"Echoed message {record['messageId']}.")

    def _echoed_among(self, waiting):
        """The messages that wait although an earlier worker has echoed them. Looked for once: later on we know ourselves.

        In the order in which the helper moves the file, so that one on its way is not missed."""
        waiting = set(waiting)
        names = [name for place in [self._inbound, *self._handled] for name in visible_names(place) if ECHO in name]
        return {name.split(ECHO, 1)[1][: -len(".json")] for name in names if name.split(ECHO, 1)[1] in waiting}

    def receive(self, record):
        """Writes a message that came in. The name begins with a number, because messages are delivered in the order of
        their names, and ends with the message that is echoed, so that the echo is known again after a crash."""
        message_id = self._names.next() + ECHO + record["messageId"]
        chat = self._watched or {"kind": "conversation", "id": record["conversationId"], "title": record["conversationId"]}
        echo = {
            "messageId": message_id,
            "conversationId": chat["id"],
            "conversationTitle": chat["title"],
            "senderId": "echo",
            "senderDisplayName": "Echo",
            "text": "Echo: " + record["text"],
            "timestampISO8601": now(),
            "isDirectMessage": chat["kind"] == "conversation",
            "rawReference": record["messageId"],
        }
        write_record(os.path.join(self._inbound, message_id + ".json"), echo, flush=True)

    def _move(self, name, directory):
        source, target = os.path.join(self._outbound, name), os.path.join(directory, name)
        if os.path.lexists(target):
            target = os.path.join(directory, f"{str(uuid.uuid4()).upper()}-{name}")
        try:
            os.rename(source, target)
        except OSError as error:
            raise failure("move", source, error) from error

    def _publish_status(self):
        """At every change, and once a second: whoever watches tells by the heartbeat whether we are alive."""
        state = "watching_chat" if self._watched else "linked"
        detail = f"Watching {self._watched['title']}." if self._watched else "Linked; no chat is being watched."
        if self._published == (state, detail) and time.monotonic() - self._heartbeat < HEARTBEAT_SECONDS:
            return
        status = {
            "state": state,
            "detail": detail,
            "displayName": "Echo",
            "lastHeartbeatISO8601": now(),
            "supportsLiveCapture": True,
            "supportsOutbound": True,
        }
        write_record(self._status, status, flush=False)
        self._published, self._heartbeat = (state, detail), time.monotonic()


# The process.


def required(key):
    value = os.environ.get(key, "").strip()
    if not value:
        raise Usage(f"This worker is started by the helper, which sets {key}; that variable is missing.")
    return value


def backend_process():
    key = "BRINDLE_MANAGED_BRIDGE_PARENT_PID"
    text = required(key)
    if not (text.isascii() and text.isdecimal() and int(text) > 0):
        raise ValueError(f'{key} must be a process id, not "{text}".')
    return int(text)


def run():
    if len(sys.argv) > 1:
        raise Usage("This worker takes no arguments; the helper configures it.")
    directory, platform = required("BRINDLE_MANAGED_BRIDGE_DATA_DIR"), required("BRINDLE_MANAGED_BRIDGE_PLATFORM")
    backend = backend_process()
    # Blocked signals wait until they are asked for, so none interrupts a record.
    signal.pthread_sigmask(signal.SIG_BLOCK, END_SIGNALS)
    asked = False

    def must_end(seconds=0.0):
        """Whether a signal asks for the end, or comes within that time, or the helper is gone: an orphan gets another parent."""
        nonlocal asked
        asked = asked or signal.sigtimedwait(END_SIGNALS, seconds) is not None
        return asked or os.getppid() != backend

    worker = Worker(directory, platform, must_end)
    try:
        worker.start()
        while not must_end(ROUND_SECONDS):
            worker.round()
    finally:
        worker.remove_own_files()


def main():
    try:
        run()
    except Usage as problem:
        say(sys.stderr, str(problem))
        return USAGE
    except (OSError, ValueError) as problem:
        say(sys.stderr, str(problem))
        return CONFIGURATION
    return 0


if __name__ == "__main__":
    sys.exit(main())
