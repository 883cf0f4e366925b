"""A parent of the real helper, which keeps every line that it is told and every file that it finds."""

import json
import os
import secrets
import signal
import subprocess
import threading
import time

HELPER = os.path.join("build", "release", "BrindleManagedWhatsAppBackend")
PATIENCE_SECONDS = 120
LOOK_AGAIN_SECONDS = 0.05
RUNTIME_FILES = {
    "runtime-status.json": "ManagedWhatsAppRuntimeStatusRecord",
    "worker-control.json": "ManagedWhatsAppWorkerControlRecord",
    "worker-status.json": "ManagedWhatsAppWorkerStatusRecord",
}


class RunningHelper:
    def __init__(self, directory, settings):
        self.directory = directory
        token, token_file = secrets.token_hex(32), os.path.join(directory, "token")
        with open(token_file, "w", encoding="utf-8") as file:
            file.write(token)
        environment = {name: value for name, value in os.environ.items() if not name.startswith("BRINDLE_")} | settings
        environment["BRINDLE_HELPER_LAUNCH_TOKEN"] = token
        environment["BRINDLE_HELPER_LAUNCH_TOKEN_FILE"] = token_file
        environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = self.data = os.path.join(directory, "exchange")
        self.diagnostics = open(os.path.join(directory, "diagnostics"), "wb")
        self.process = subprocess.Popen(
            [HELPER], env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.diagnostics
        )
        self.events, self.ended = [], False
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind:
            self.process.send_signal(signal.SIGKILL)
        else:
            self.process.stdin.close()
        status = self.process.wait(PATIENCE_SECONDS)
        self.reader.join()
        self.diagnostics.close()
        if status != 0 and not kind:
            raise RuntimeError(f"The helper ended with status {status}.")

    def _read(self):
        for line in self.process.stdout:
            with self.changed:
                self.events.append(json.loads(line))
                self.changed.notify()
        with self.changed:
            self.ended = True
            self.changed.notify()

    def send(self, document):
        self.process.stdin.write(json.dumps(document).encode() + b"\n")
        self.process.stdin.flush()

    def wait_for_event(self, wanted, since=0):
        """The number of the first event from `since` on that is wanted."""
        end = time.monotonic() + PATIENCE_SECONDS
        with self.changed:
            while True:
                for number in range(since, len(self.events)):
                    if wanted(self.events[number]):
                        return number
                since = len(self.events)
                if self.ended or not self.changed.wait(end - time.monotonic()):
                    raise RuntimeError(f"What was waited for did not come; the last was {self.events[-1:]}.")

    def wait_until(self, condition):
        end = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            if time.monotonic() > end or self.process.poll() is not None:
                raise RuntimeError("What was waited for did not happen.")
            time.sleep(LOOK_AGAIN_SECONDS)

    def files(self):
        """The records that lie in the data directory, each with the title of its schema."""
        for name, title in RUNTIME_FILES.items():
            yield from self._read_files("runtime", title, [name])
        yield from self._read_files("outbound", "ManagedWhatsAppOutboundRecord")
        for folder in ("inbound", "processed"):
            yield from self._read_files(folder, "ManagedWhatsAppInboundRecord")

    def _read_files(self, folder, title, names=None):
        folder = os.path.join(self.data, folder)
        for name in names or sorted(os.listdir(folder)):
            try:
                with open(os.path.join(folder, name), encoding="utf-8") as file:
                    yield title, json.load(file)
            except FileNotFoundError:
                # It has moved on, or nobody has written it yet.
                continue
