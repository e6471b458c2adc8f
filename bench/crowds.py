"""Thousands of hosts on addresses of loopback (load/crowd.c)."""

import resource
import subprocess

from servers import free_port


def addresses(net, count):
    """So many addresses: "127.44" gives 127.44.0.1 and so on."""
    return [f"{net}.{n // 250}.{n % 250 + 1}" for n in range(count)]


class Crowd:
    """Hosts that answer, or that are dead because they take no connection; at
    one port. A process for as many as it has descriptors for."""

    def __init__(self, bench, hosts, dead=(), port=None):
        self.port = port or free_port()
        self.bench = bench
        self.processes = []
        limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        most = limit * 2 // 5 if limit > 0 else 8000
        for group, way in ((hosts, "answer"), (dead, "dead")):
            for first in range(0, len(group), most):
                self._start(group[first:first + most], way)

    def _start(self, hosts, way):
        process = subprocess.Popen(
            [str(self.bench.tool("crowd")), str(self.port), way],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.bench.at_end(lambda: self._stop(process))
        process.stdin.write("\n".join(hosts) + "\n\n")
        process.stdin.flush()
        if process.stdout.readline() != "ready\n":
            raise RuntimeError("the hosts of the measurement do not listen")
        if way == "answer":
            self.processes.append(process)

    @staticmethod
    def _stop(process):
        process.kill()
        process.wait()
        process.stdin.close()
        process.stdout.close()

    def told(self):
        """How many requests since the last time, and when the last one came."""
        count, last = 0, 0
        for process in self.processes:
            process.stdin.write("\n")
            process.stdin.flush()
            some, when = map(int, process.stdout.readline().split())
            count += some
            last = max(last, when)
        return count, last
