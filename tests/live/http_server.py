"""The program of http_host.cpp, started and told what to do."""
import codecs
import os
import resource
import subprocess
from pathlib import Path

# Names of inputs as somebody may have them who means no good, or no harm.
HOSTILE = {
    "labels": b'a"b\\c\nd{e="f"} 1',
    "script": b"<script>document.title='owned'</script><img src=x onerror=\"document.title='owned'\">",
    "no UTF-8": b"Kan\xe4l \xff\xc0\x80",
    "controls": bytes(range(1, 32)) + b"\x7f",
    "to the left": "\u202eevil \U0001f4fa \u00e4\u00f6\u00fc".encode(),
    "prototype": b"__proto__",
    "long": b"x" * 2000,
    "backslashes": b"\\",
}


codecs.register_error("hex", lambda e: ("".join(f"\\x{b:02X}" for b in e.object[e.start:e.end]), e.end))


def shown(name):
    """A name as it is shown: what is no UTF-8 in hexadecimal."""
    return name.decode("utf-8", "hex")


class Host:
    """Serves while the context lasts."""

    program = None

    def __init__(self, inputs, *names, descriptors=1024):
        """`descriptors`: the limit that it has."""
        command = os.environ.get("QUARN_EMULATOR", "").split() + [Host.program, str(inputs), *names]
        self._process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors)))
        self.address = ("127.0.0.1", int(self._process.stdout.readline()))
        self.url = f"http://127.0.0.1:{self.address[1]}"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.stdin.close()
        assert self._process.wait(timeout=30) == 0, "the host crashed"

    def tell(self, line):
        self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()

    def memory(self):
        """Resident bytes."""
        pages = Path(f"/proc/{self._process.pid}/statm").read_text().split()[1]
        return int(pages) * os.sysconf("SC_PAGE_SIZE")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self._process.pid}/fd"))
