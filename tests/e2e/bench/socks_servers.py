"""Two real SOCKS5 servers of Debian on a namespace's loopback address: dante (TCP and UDP) and microsocks (TCP)."""

import os
import signal
import subprocess

from .waiting import wait_for

DANTE_PORT, MICROSOCKS_PORT = 1080, 1081
DANTE_CONFIGURATION = f"""
logoutput: stderr
internal: 127.0.0.1 port = {DANTE_PORT}
external: uplink
clientmethod: none
socksmethod: none
user.privileged: root
user.unprivileged: nobody
client pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}
socks pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}
"""


class SocksServers:
    """Both servers in the namespace `host`; names are asked for at `resolver`. `close` ends them."""

    def __init__(self, bench, resolver="1.1.1.1"):
        self._directory = bench.directory
        resolv = self._directory / "resolv.conf"
        resolv.write_text(f"nameserver {resolver}\n", encoding="ascii")
        configuration = self._directory / "danted.conf"
        configuration.write_text(DANTE_CONFIGURATION, encoding="ascii")
        # In a mount namespace of their own: the machine's file stays as it is.
        self._enter = [*bench.network.enter("host"), "unshare", "--mount", "sh", "-c",
                       f'mount --bind "{resolv}" /etc/resolv.conf && exec "$@"', "sh"]
        self._running = []
        try:
            self._start("danted", "-f", configuration, "-p", self._directory / "danted.pid")
            self._start("microsocks", "-i", "127.0.0.1", "-p", MICROSOCKS_PORT)
            for port in (DANTE_PORT, MICROSOCKS_PORT):
                wait_for(lambda port=port: self._listens(bench, port), 20, f"a server at port {port}")
        except BaseException:
            self.close()
            raise

    def _start(self, program, *options):
        with open(self._directory / f"{program}.log", "wb") as log:
            self._running.append(subprocess.Popen(
                [*self._enter, program, *map(str, options)], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                start_new_session=True))

    @staticmethod
    def _listens(bench, port):
        words = [*bench.network.enter("host"), "ss", "-Hltn", f"sport = {port}"]
        return subprocess.run(words, capture_output=True, timeout=20, check=True).stdout.strip()

    def close(self):
        for process in self._running:
            try:
                os.killpg(process.pid, signal.SIGKILL)  # dante has children
            except ProcessLookupError:
                pass
            process.wait(10)
