#!/usr/bin/env python3
"""Measures the programs of this repository against peers that do the same work in the same run.

Every comparison is made of alternating pairs (ours, peer, ours, peer, ...). The table shows the median ratio with the interval that holds
the true median with at least 90 % confidence (order statistics). A row fails only when the whole interval lies beyond its budget.
Processor time is that of client and server together; what the kernel does later for either is in the wall-clock time only.
"""
import argparse
import itertools
import json
import math
import os
import re
import resource
import shutil
import signal
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

MIB = 1024 * 1024
PASSWORD = b"benchmark-password\n"


def fail(text):
    sys.exit(f"bench: {text}")


def median_interval(values):
    """The narrowest symmetric pair of order statistics with at least 90 % confidence for the median, or the extremes."""
    values = sorted(values)
    n = len(values)
    best = (values[0], values[-1])
    for k in range(n // 2):
        tail = sum(math.comb(n, i) for i in range(k + 1)) / 2**n
        if 1 - 2 * tail >= 0.90:
            best = (values[k], values[n - 1 - k])
    return best


def timed(command, **kwargs):
    """Runs a command and returns its seconds and its peak memory in MiB."""
    start = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **kwargs)
    output = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    seconds = time.monotonic() - start
    if process.returncode != 0:
        fail(f"{command} ended with {process.returncode}:\n{output.decode(errors='replace')}")
    return seconds, usage.ru_maxrss / 1024, output


class Processor:
    """The processor seconds that processes which live on have used since this object was made, and all children that have ended."""

    def __init__(self, pids):
        self.pids = pids
        self.begin = self.now()

    def now(self):
        ended = resource.getrusage(resource.RUSAGE_CHILDREN)
        total = ended.ru_utime + ended.ru_stime
        for pid in self.pids:
            fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
            total += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        return total

    def seconds(self):
        return self.now() - self.begin


def forget(*directories):
    """Flushes the files there and takes them out of the page cache, so that the next one to store finds memory that was used before.

    A virtual machine gets its memory on first use, which costs more than the copying; who replaces a file would be spared that, who keeps
    versions would not.
    """
    for directory in directories:
        for path in filter(Path.is_file, directory.rglob("*")):
            with open(path, "rb") as file:
                os.fsync(file.fileno())
                os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def wait_for(condition, what, seconds=30):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            fail(f"waited {seconds} s in vain for {what}")
        time.sleep(0.01)


def peer_program(root, package, path):
    """A program of a Debian package, unpacked beside the build and not installed."""
    directory = root / "build" / "bench-peers"
    program = directory / "root" / path.lstrip("/")
    if program.exists():
        return program
    directory.mkdir(parents=True, exist_ok=True)
    subprocess.run(["apt-get", "download", "-q", package], cwd=directory, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    archives = sorted(directory.glob(f"{package}_*.deb"))
    if not archives:
        fail(f"apt-get download {package} brought nothing")
    subprocess.run(["dpkg-deb", "-x", archives[-1], directory / "root"], check=True)
    return program


class Ours:
    """The server and the client of this repository in a directory of their own."""

    def __init__(self, build, work):
        self.bin = build / "bin"
        self.data = work / "server"
        self.cache = work / "cache"
        self.environment = {**os.environ, "HALVANE_CONFIG_DIR": str(work / "config"), "HALVANE_CACHE_DIR": str(self.cache)}
        subprocess.run([self.bin / "halvane-server", "init", "--data", self.data, "--admin", "bench", "--password-stdin"],
                       input=PASSWORD, check=True, stdout=subprocess.DEVNULL)
        port_file = work / "port"
        self.log = open(work / "server.log", "wb")
        self.server = subprocess.Popen([self.bin / "halvane-server", "--data", self.data, "--listen", "127.0.0.1:0", "--port-file", port_file],
                                       stdout=self.log, stderr=self.log)
        wait_for(port_file.exists, "the server's port file")
        self.url = f"http://127.0.0.1:{port_file.read_text().strip()}"
        subprocess.run([self.bin / "halvane", "login", self.url, "--user", "bench", "--password-stdin"], input=PASSWORD, check=True,
                       env=self.environment, stdout=subprocess.DEVNULL)

    def client(self, *arguments):
        return timed([self.bin / "halvane", *map(str, arguments)], env=self.environment)

    def put(self, path, name):
        """Seconds until the client said that the server has the file, peak memory and what it said.

        The client then goes on to put a copy of the file into its cache, which is not in the seconds; it is over when this returns.
        """
        start = time.monotonic()
        process = subprocess.Popen([self.bin / "halvane", "--json", "put", path, "--to", "folder:1", "--as", name], env=self.environment,
                                   stdout=subprocess.PIPE)
        line = process.stdout.readline()
        seconds = time.monotonic() - start
        rest = process.stdout.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode != 0:
            fail(f"putting {path} ended with {process.returncode}:\n{(line + rest).decode(errors='replace')}")
        return seconds, usage.ru_maxrss / 1024, json.loads(line)

    def clear_cache(self):
        shutil.rmtree(self.cache, ignore_errors=True)

    def processor(self):
        return Processor([self.server.pid])

    def server_memory(self):
        text = Path(f"/proc/{self.server.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s+(\d+)", text).group(1)) / 1024

    def stop(self):
        self.server.send_signal(signal.SIGTERM)
        self.server.wait(timeout=30)


class Nginx:
    """nginx with its DAV module as the peer: stores what it is sent, without checksums, versions or flushes."""

    def __init__(self, program, work):
        self.files = work / "nginx" / "files"
        for name in ("files", "temp", "logs"):
            (work / "nginx" / name).mkdir(parents=True)
        self.port = self.free_port()
        user = "user root;" if os.getuid() == 0 else ""
        config = work / "nginx" / "nginx.conf"
        config.write_text(f"""{user}
daemon off; pid {work}/nginx/pid; error_log {work}/nginx/logs/error.log; worker_processes 2;
events {{ worker_connections 512; }}
http {{
  access_log off; sendfile on; tcp_nodelay on; client_max_body_size 0; client_body_temp_path {work}/nginx/temp;
  proxy_temp_path {work}/nginx/temp/p; fastcgi_temp_path {work}/nginx/temp/f; uwsgi_temp_path {work}/nginx/temp/u; scgi_temp_path {work}/nginx/temp/s;
  server {{ listen 127.0.0.1:{self.port}; root {self.files}; location / {{ dav_methods PUT DELETE; create_full_put_path on; }} }}
}}
""")
        self.process = subprocess.Popen([program, "-p", work / "nginx", "-c", config, "-e", work / "nginx" / "logs" / "error.log"],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.url = f"http://127.0.0.1:{self.port}"
        wait_for(lambda: subprocess.run(["curl", "-s", "-o", "/dev/null", self.url + "/"]).returncode == 0, "nginx")

    def processor(self):
        workers = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        return Processor([self.process.pid, *map(int, workers)])

    @staticmethod
    def free_port():
        import socket
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            return probe.getsockname()[1]

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(timeout=30)


def make_file(path, size):
    """Random bytes: nothing on the way can compress or share them."""
    with open(path, "wb") as file:
        for _ in range(size // MIB):
            file.write(os.urandom(MIB))
    os.sync()


class Table:
    def __init__(self):
        self.rows = []
        self.failed = False

    @staticmethod
    def processor_text(pairs):
        ours, peer = (statistics.median(side[1] for side in sides) for sides in zip(*pairs))
        return f"{ours:.2f} s against {peer:.2f} s"

    def ratio(self, name, pairs, budget, note, scale=""):
        """Each pair: (seconds, processor seconds) of ours and of the peer; without a budget it is a figure."""
        ours = [a for (a, _), _ in pairs]
        peer = [b for _, (b, _) in pairs]
        ratios = [a / b for a, b in zip(ours, peer)]
        low, high = median_interval(ratios)
        note = f"{note}; processor time {self.processor_text(pairs)}"
        verdict = "-" if budget is None else "FAIL" if low > budget else "ok"
        self.failed |= verdict == "FAIL"
        self.rows.append((name, f"{statistics.median(ours):.2f} s{scale}", f"{statistics.median(peer):.2f} s",
                          f"{statistics.median(ratios):.2f} [{low:.2f}, {high:.2f}]", "-" if budget is None else f"<= {budget:.2g} x", verdict, note))

    def limit(self, name, value, unit, budget, note):
        verdict = "FAIL" if value > budget else "ok"
        self.failed |= verdict == "FAIL"
        self.rows.append((name, f"{value:.1f} {unit}", "-", "-", f"<= {budget} {unit}", verdict, note))

    def gaps(self, name, loop, floor, budget, note):
        """Milliseconds of each run: the longest stall of the loop, and of a thread that had nothing to do meanwhile.

        A run in which that thread, too, was kept from the processor for long says nothing of the loop; without enough others nothing is said.
        """
        judged = [stall for stall, idle in zip(loop, floor) if idle <= budget / 2]
        verdict = "noisy" if 2 * len(judged) <= len(loop) else "ok" if statistics.median(judged) <= budget else "FAIL"
        self.failed |= verdict == "FAIL"
        every = ", ".join(f"{stall:.0f} ({idle:.0f})" for stall, idle in zip(loop, floor))
        self.rows.append((name, f"{statistics.median(judged or loop):.1f} ms", f"{statistics.median(floor):.1f} ms", "-", f"<= {budget} ms", verdict,
                          f"{note}; {len(judged)} of {len(loop)} runs are judged: {every}"))

    def figure(self, name, text, note):
        self.rows.append((name, text, "-", "-", "-", "-", note))

    def show(self):
        head = ("row", "ours", "peer", "ratio [interval]", "budget", "", "note")
        print("| " + " | ".join(head) + " |")
        print("|" + "---|" * len(head))
        for row in self.rows:
            print("| " + " | ".join(row) + " |")


def pairs_of(count, ours, peer):
    """One warm-up of each, then alternating pairs; each starts with nothing waiting to be written."""
    ours(), peer()
    result = []
    for index in range(count):
        os.sync()
        if index % 2 == 0:
            a = ours()
            os.sync()
            b = peer()
        else:
            b = peer()
            os.sync()
            a = ours()
        result.append((a, b))
    return result


def bench_large_file(table, ours, nginx, work, size, count):
    label = f"{size // MIB} MiB"
    source = work / "source"
    make_file(source, size)
    last = {}
    numbers = itertools.count()

    stores = (ours.data / "blobs", nginx.files)

    def up_ours():
        ours.clear_cache()
        forget(*stores)
        processor = ours.processor()
        seconds, _, last["file"] = ours.put(source, "large.bin")
        return seconds, processor.seconds()

    def up_peer():
        forget(*stores)
        last["peer"] = f"large-{next(numbers)}.bin"  # it keeps them all, as we keep versions
        processor = nginx.processor()
        start = time.monotonic()
        subprocess.run(["curl", "-s", "-f", "-T", source, f"{nginx.url}/{last['peer']}"], check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["sync", nginx.files / last["peer"]], check=True)
        return time.monotonic() - start, processor.seconds()

    table.ratio(f"one {label} file up, durable", pairs_of(count, up_ours, up_peer), 1.0,
                "until the server has acknowledged it; the peer makes no checksum and no version; the sender's file is in the page cache, what was "
                "stored before is not; the processor time holds the copy into the client's cache, which follows")
    target, other, copy = work / "down-ours", work / "down-peer", work / "down-peer-copy"

    def down_ours():
        target.unlink(missing_ok=True)
        ours.clear_cache()
        processor = ours.processor()
        seconds = ours.client("get", f"file:{last['file']['id']}", "--to", target)[0]
        return seconds, processor.seconds()

    def down_peer():
        other.unlink(missing_ok=True)
        copy.unlink(missing_ok=True)
        processor = nginx.processor()
        start = time.monotonic()
        subprocess.run(["curl", "-s", "-f", "-o", other, f"{nginx.url}/{last['peer']}"], check=True)
        subprocess.run(["cp", other, copy], check=True)
        subprocess.run(["sync", other, copy, work], check=True)
        return time.monotonic() - start, processor.seconds()

    table.ratio(f"one {label} file down through the cache into a directory, durable", pairs_of(count, down_ours, down_peer), 1.0,
                "ours verifies the SHA-256; the peer does not, and copies as ours does; the cache is empty before each run")
    if subprocess.run(["cmp", "-s", source, target]).returncode != 0:
        fail("the file that came down differs from the one that went up")
    for path in (source, target, other, copy, *nginx.files.iterdir()):
        path.unlink(missing_ok=True)


def bench_memory(table, ours, work, size):
    source = work / "huge"
    make_file(source, size)
    seconds, memory, file = ours.put(source, "huge.bin")
    label = f"{size // MIB} MiB of random bytes"
    table.limit(f"client memory, {label} up", memory, "MiB", 150, f"high-water mark; {size / MIB / seconds:.0f} MiB/s")
    seconds, memory, _ = ours.client("get", f"file:{file['id']}", "--to", work / "huge-down")
    table.limit(f"client memory, {label} down", memory, "MiB", 150, f"high-water mark; {size / MIB / seconds:.0f} MiB/s")
    table.limit("server memory, all rows so far", ours.server_memory(), "MiB", 150, "high-water mark")
    source.unlink()
    (work / "huge-down").unlink()
    ours.clear_cache()


def bench_growth(table, ours, work, size):
    rates = []
    for factor in (0.25, 1, 4):
        source = work / "growth"
        make_file(source, int(size * factor))
        times = []
        for _ in range(3):
            os.sync()
            times.append(ours.put(source, "growth.bin")[0])
            ours.clear_cache()
        rates.append(f"{size * factor / MIB:.0f} MiB: {statistics.median(times):.2f} s")
        source.unlink()
    table.figure("growth of an upload with its size", ", ".join(rates), "medians of 3; linear is the aim")


def bench_stall(table, ours, build, work, size, count):
    """Each run's longest stall; the median of the runs counts, as everywhere, and the worst one is shown."""
    source = work / "stall"
    make_file(source, size)
    program = build / "bin" / "bench_event_loop"
    runs = []
    for _ in range(count):
        os.sync()
        _, _, output = timed([program, ours.url, "bench", PASSWORD.decode().strip(), source, work / "stall-down",
                              work / "stall-cache"], env=ours.environment)
        runs.append(json.loads(output.decode().strip().splitlines()[-1]))
        (work / "stall-down").unlink()
        shutil.rmtree(work / "stall-cache")
    for name in runs[0]:
        table.gaps(f"longest stall of the event loop, {size // MIB} MiB {name}", [run[name]["loop"] for run in runs],
                   [run[name]["floor"] for run in runs], 50, "a timer of 1 ms in the same loop, against a thread that only sleeps")
    source.unlink()


def bench_tasks(table, build, counts, pairs):
    """Subtasks that do nothing, in one group, against bare objects; the time for each must not grow with their number."""
    each = []
    for count in counts:
        _, _, output = timed([build / "bin" / "bench_tasks", str(count), str(pairs)])
        result = json.loads(output)
        sides = [((group, group), (bare, bare)) for group, bare in zip(result["group"], result["bare"])]
        table.ratio(f"{count} subtasks that do nothing, one group", sides, 3.0, "against as many bare objects with two connections each")
        each.append(f"{count}: {1e6 * statistics.median(result['group']) / count:.2f} us")
    table.figure("growth of subtasks with their number", ", ".join(each), "each; constant is the aim")


def make_tree(root, files):
    """So many files of 4 KB, fifty a folder, in chains of folders of twelve levels.

    The top has one of them: whoever makes a level of uploads is seen by the files in it.
    """
    root.mkdir(parents=True)
    folder = root
    for number in range(files):
        if number % 50 == 0:
            place = number // 50
            folder = folder / f"level {place % 12}" if place % 12 else root / f"chain {place // 12}"
            folder.mkdir(parents=True)
        ((folder if number else root) / f"run {number}.raw").write_bytes(os.urandom(4096))


def few_descriptors():
    resource.setrlimit(resource.RLIMIT_NOFILE, (256, 256))


def folder_of(output):
    """The account of the only directory of a put."""
    objects = [json.loads(line) for line in output.splitlines() if line.startswith(b"{")]
    return next(found for found in objects if found.get("type") == "folder")


def bench_small_files_up(table, ours, nginx, work, files, count):
    """A directory of files of 10 KB up by the command line, then once more unchanged."""
    source = work / "small"
    source.mkdir()
    for number in range(files):
        (source / f"run{number}.raw").write_bytes(os.urandom(10_000))
    names = sorted(path.name for path in source.iterdir())
    last = {}
    numbers = itertools.count()

    def put(what):
        processor = ours.processor()
        seconds, _, output = ours.client("--json", "put", "--no-cache", source, "--to", last["ours"])
        if folder_of(output)[what] != files:
            fail(f"not all of {files} files are {what}: {folder_of(output)}")
        return seconds, processor.seconds()

    def up_ours():
        last["ours"] = f"/small-{next(numbers)}"
        ours.client("mkdir", last["ours"])
        return put("uploaded")

    def up_peer():
        last["peer"] = f"small-{next(numbers)}"
        requests = work / "small-requests"
        requests.write_text("".join(f'url = "{nginx.url}/{last["peer"]}/{name}"\nupload-file = "{source}/{name}"\n' for name in names))
        processor = nginx.processor()
        start = time.monotonic()
        subprocess.run(["curl", "-s", "-f", "-Z", "--parallel-max", "16", "-K", requests], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        stored = nginx.files / last["peer"]
        written = [stored, *stored.iterdir()]
        subprocess.run(["xargs", "-0", "sync"], check=True, input="\0".join(map(str, written)).encode())
        seconds = time.monotonic() - start
        if len(written) != files + 1:
            fail(f"the peer has {len(written) - 1} of {files} files")
        return seconds, processor.seconds()

    table.ratio(f"{files} files of 10 KB up by halvane put, durable", pairs_of(count, up_ours, up_peer), 3.0,
                "each a version with checksums, privileges and a record on either side; the peer: curl -Z, 16 at a time, then sync of each file; "
                "--no-cache")

    def again_peer():
        requests = work / "small-requests"
        requests.write_text("".join(f'url = "{nginx.url}/{last["peer"]}/{name}"\n' for name in names))
        processor = nginx.processor()
        start = time.monotonic()
        subprocess.run(["xargs", "-0", "sha256sum"], check=True, input="\0".join(str(source / name) for name in names).encode(),
                       stdout=subprocess.DEVNULL)
        subprocess.run(["curl", "-s", "-f", "-I", "-Z", "--parallel-max", "16", "-K", requests], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        return time.monotonic() - start, processor.seconds()

    table.ratio(f"the same {files} files by halvane put again, unchanged", pairs_of(count, lambda: put("unchanged"), again_peer),
                None, "a figure: 3 x is the aim, and it was 4.8 x when it was last taken; each is read and compared with the SHA-256 of its record; the peer: sha256sum of each file, then a HEAD request for each by curl -Z")
    shutil.rmtree(source)


def bench_tree_up(table, ours, build, work, files):
    """A deep tree of small files up as a host sends it, then by the command line, then once more unchanged."""
    program = build / "bin" / "bench_tree"

    def put(root):
        shutil.rmtree(work / "up-cache", ignore_errors=True)
        command = [program, "put", ours.url, "bench", PASSWORD.decode().strip(), root, work / "up-cache"]
        return json.loads(timed(command, env=ours.environment, preexec_fn=few_descriptors)[2].splitlines()[-1])

    def put_by_host(root, name, what):
        command = [build / "bin" / "halvane", "--json", "put", root, "--to", "/by-host"]
        seconds, memory, output = timed(command, env=ours.environment, preexec_fn=few_descriptors)
        if folder_of(output)[what] != files:
            fail(f"not all of {files} files are {what}: {folder_of(output)}")
        table.limit(f"halvane put of {name}, memory", memory, "MiB", 300, f"high-water mark; {seconds:.1f} s; 256 descriptors at most")

    def stalls_of_put(root, what):
        """The longest stalls of the job of halvane put, three times into a folder of its own."""
        runs = []
        for number in range(3):
            if what == "uploaded":
                ours.client("mkdir", f"/by-job-{number}")
            shutil.rmtree(work / "up-cache", ignore_errors=True)
            command = [program, "put-command", ours.url, "bench", PASSWORD.decode().strip(), root, f"/by-job-{number}", work / "up-cache"]
            runs.append(json.loads(timed(command, env=ours.environment, preexec_fn=few_descriptors)[2].splitlines()[-1]))
            if runs[-1][what] != files:
                fail(f"{runs[-1][what]} of {files} files are {what} by the job of halvane put")
        most = max(runs, key=lambda run: run["loop"])
        table.gaps(f"longest stall of the event loop, halvane put of that tree, {what}", [run["loop"] for run in runs], [run["floor"] for run in runs], 50,
                   f"a timer of 1 ms in the same loop, against a thread that only sleeps; of the longest {most['loop_processor']:.0f} ms are the processor's; "
                   f"{statistics.median(run['seconds'] for run in runs):.1f} s")

    spent, sums = {}, {}
    for number in (files // 2, files, files * 2):
        root = work / f"tree-{number}"
        make_tree(root, number)
        summed = json.loads(timed([program, "sum", root])[2])
        if summed["listings"] < 12:
            fail(f"the sum of {number} files listed {summed['listings']} directories")
        sums[number] = summed["milliseconds"]
        up = put(root)
        if up["files"] != number:
            fail(f"{up['files']} of {number} files went up")
        spent[number] = up["thread_seconds"]
        if number == files:
            table.limit(f"client memory, tree of {files} files of 4 KB, 12 levels, up", up["memory_mib"], "MiB", 300,
                        f"high-water mark; {up['seconds']:.1f} s; at most {up['descriptors']:.0f} descriptors of 256")
            table.limit("longest stall of the event loop, that tree up", up["longest_gap_ms"], "ms", 50,
                        f"wall time, of which {up['longest_gap_processor_ms']:.0f} ms of the processor; a timer of 1 ms in the same loop; a thread that only slept was kept "
                        f"waiting for {up['floor']:.0f} ms; for itself counts "
                        f"what makes a whole level of uploads at once (at most {up['longest_level_ms']:.0f} ms) and what sums up the maximum beforehand "
                        f"({up['making_ms']:.0f} ms of the processor)")
            ours.client("mkdir", "/by-host")
            put_by_host(root, "the same tree", "uploaded")
            put_by_host(root, "the same tree again, unchanged", "unchanged")
            stalls_of_put(root, "uploaded")
            stalls_of_put(root, "unchanged")
            ours.clear_cache()
        shutil.rmtree(root)
    table.limit(f"sum of the maximum progress, {files * 2} files against {files // 2}", sums[files * 2] / sums[files // 2], "x", 5,
                ", ".join(f"{number}: {taken:.1f} ms" for number, taken in sums.items()) + "; medians of 7, in which nothing is remembered of the directories; 12 levels deep")
    each = ", ".join(f"{number}: {1e6 * seconds / number:.0f} us" for number, seconds in spent.items())
    table.figure("growth of a tree's upload with its files", each, "of the client's thread for each file; constant is the aim")


def bench_tree(table, ours, nginx, build, work, files, few, count):
    """A deep tree of files of 10 KB down through the cache: memory and descriptors of a large one, time of a small one."""
    program = build / "bin" / "bench_tree"
    login = [ours.url, "bench", PASSWORD.decode().strip()]

    def make(number):
        sources = work / "tree-sources"
        sources.mkdir()
        _, _, output = timed([program, "make", *login, str(number), sources], env=ours.environment)
        return json.loads(output)["folder"], sources

    def get(folder, **kwargs):
        for name in ("tree-target", "tree-cache"):
            shutil.rmtree(work / name, ignore_errors=True)
        output = timed([program, "get", *login, str(folder), work / "tree-target", work / "tree-cache"], env=ours.environment, **kwargs)[2]
        return json.loads(output)

    folder, sources = make(files)
    shutil.rmtree(sources)
    down = get(folder, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (256, 256)))
    if down["files"] != files:
        fail(f"{down['files']} of {files} files came down")
    table.limit(f"client memory, tree of {files} files of 10 KB, 12 levels, down", down["memory_mib"], "MiB", 300,
                f"high-water mark; {down['seconds']:.1f} s; at most {down['descriptors']:.0f} descriptors of 256")
    ours.clear_cache()
    seconds, memory, _ = timed([build / "bin" / "halvane", "--json", "get", f"folder:{folder}", "--to", work / "tree-by-host"], env=ours.environment,
                               preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (256, 256)))
    came = sum(1 for path in (work / "tree-by-host").rglob("*") if path.is_file())
    if came != files:
        fail(f"{came} of {files} files came down by the command line")
    shutil.rmtree(work / "tree-by-host")
    ours.clear_cache()
    table.limit("halvane get of the same tree, memory", memory, "MiB", 300, f"high-water mark; {seconds:.1f} s; 256 descriptors at most")

    folder, sources = make(few)
    shutil.move(sources, nginx.files / "tree")
    names = sorted(path.name for path in (nginx.files / "tree").iterdir())
    peer, copy, requests = work / "peer-files", work / "peer-copy", work / "peer-requests"
    requests.write_text("".join(f'url = "{nginx.url}/tree/{name.replace(" ", "%20")}"\noutput = "{peer}/{name}"\n' for name in names))

    def down_ours():
        processor = ours.processor()
        return get(folder)["seconds"], processor.seconds()

    def down_peer():
        for path in (peer, copy):
            shutil.rmtree(path, ignore_errors=True)
        peer.mkdir()
        processor = nginx.processor()
        start = time.monotonic()
        subprocess.run(["curl", "-s", "-f", "-Z", "--parallel-max", "16", "-K", requests], check=True, stderr=subprocess.DEVNULL)
        subprocess.run(["cp", "-r", peer, copy], check=True)
        written = [peer, copy, *peer.iterdir(), *copy.iterdir()]
        subprocess.run(["xargs", "-0", "sync"], check=True, input="\0".join(map(str, written)).encode())
        return time.monotonic() - start, processor.seconds()

    table.ratio(f"{few} files of 10 KB down, durable", pairs_of(count, down_ours, down_peer), 2.0,
                "ours verifies each file, lists 121 folders and keeps records; the peer fetches one flat list into two directories")


def fill_cache(directory, entries):
    """Places and records as a fetch of each file makes them: a directory of its own for every version."""
    now = time.time_ns()
    database = sqlite3.connect(directory / "state" / "cache.sqlite")
    with database:
        for i in range(entries):
            place = f"data.example.org_8080/files/{i}/versions/1/run{i}.mzML"
            path = directory / "content" / place
            path.parent.mkdir(parents=True)
            path.write_bytes(b"x" * 1000)
            os.utime(path, ns=(now, now))
            database.execute(
                "INSERT INTO entries (sub_path, kind, bytes, files, modified_ns, sha256, added_ms, used_ms) VALUES (?, 2, 1000, 1, ?, ?, ?, ?)",
                (place, now, "0" * 64, now // 1_000_000, now // 1_000_000 + i))
    database.close()
    os.sync()


def bench_cache(table, build, work, entries):
    """Nobody waits for the upkeep of the cache; it must not take minutes all the same."""
    directory = work / "many-entries"
    environment = {**os.environ, "HALVANE_CACHE_DIR": str(directory), "HALVANE_CONFIG_DIR": str(work / "many-entries-config")}
    program = build / "bin" / "halvane"
    timed([program, "cache", "ls"], env=environment)  # makes the cache
    fill_cache(directory, entries)
    def measured(*arguments):
        before = os.times()
        seconds, memory, _ = timed([program, "cache", *arguments], env=environment)
        after = os.times()
        processor = after.children_user + after.children_system - before.children_user - before.children_system
        return seconds, f"one run; processor time {processor:.1f} s, {memory:.0f} MiB"

    for name, arguments in (("ls", ["ls"]), ("prune with nothing to do", ["prune"])):
        seconds, note = measured(*arguments)
        table.limit(f"cache {name}, {entries:,} entries", seconds, "s", 10 * entries / 100_000, note)
    # What the file system takes for as many files and directories.
    others = work / "as-many"
    shutil.copytree(directory / "content", others)
    os.sync()
    floor, _, _ = timed(["rm", "-r", others])
    os.sync()
    seconds, note = measured("prune", "--max-size", "1000000")
    table.limit(f"cache prune of all but 1,000, {entries:,} entries", seconds / floor, "x rm -r", 2,
                f"{seconds:.1f} s against {floor:.1f} s of rm -r on a copy; {note}")
    shutil.rmtree(directory)


def bench_summary(table, program, source, mib, label, count):
    """The summary of a run, which is made beside packing: what it takes by itself."""
    runs = [timed([program, "summarise", source]) for _ in range(count)]
    milliseconds = statistics.median(json.loads(output)["ms"] for _, _, output in runs)
    table.figure(f"summary of {mib} MiB ({label})", f"{milliseconds / 1000:.2f} s, {source.stat().st_size / MIB / milliseconds * 1000:.0f} MiB/s",
                 "spectra, ranges and ion current, of which the file states none: every array is decoded; one thread")
    table.limit(f"memory of the summary of {mib} MiB ({label})", max(peak for _, peak, _ in runs), "MiB", 64, "high-water mark")


def bench_pack(table, root, build, work, mib, count):
    """Packed acquisitions: packing, checking, and what knowing one costs."""
    program = build / "bin" / "bench_pack"
    spectra = root / "tests" / "data" / "small.mgf"
    packed, peer, streamed, digest = work / "ours.vonk", work / "peer.tar.zst", work / "streamed", work / "digest"

    def milliseconds(output):
        return json.loads(output.decode().strip().splitlines()[-1])["ms"]

    def shell(command):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        start = time.monotonic()
        subprocess.run(["bash", "-o", "pipefail", "-c", command], check=True, stdout=subprocess.DEVNULL)
        seconds = time.monotonic() - start
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return seconds, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime

    for kind, label in (("plain", "mzML, arrays as they are"), ("zlib", "mzML, zlib arrays"), ("mixed", "250 mixed files")):
        source = work / f"acquisition-{kind}"
        timed([program, "make", kind, spectra, str(mib), source])
        memory = []

        def pack_ours():
            packed.unlink(missing_ok=True)
            processor = Processor([])
            seconds, peak, _ = timed([program, "pack", source, packed])
            memory.append(peak)
            return seconds, processor.seconds()

        def pack_peer(hashed=True):
            for path in (peer, streamed):
                path.unlink(missing_ok=True)
            tee = f"tee >(openssl dgst -sha256 >{digest}) |" if hashed else ""
            return shell(f"tar -C {work} -cf - {source.name} | {tee} zstd -q -T0 -1 -o {peer} && sync {peer} {work}")

        table.ratio(f"packing {mib} MiB ({label}), durable", pairs_of(count, pack_ours, pack_peer), 1 / 1.2,
                    "the peer: tar | tee >(openssl dgst -sha256) | zstd -T0 -1, then sync; both sources are in the page cache; "
                    "ours writes a digest of each file and frame, and a list of what is in it")
        without = statistics.median(pack_peer(hashed=False)[0] for _ in range(3))
        ours = statistics.median(pack_ours()[0] for _ in range(3))
        table.figure(f"the same without the peer's hash ({label})", f"{ours:.2f} s against {without:.2f} s",
                     f"sizes: ours {packed.stat().st_size / MIB:.0f} MiB, peer {peer.stat().st_size / MIB:.0f} MiB")
        table.limit(f"memory of packing {mib} MiB ({label})", max(memory), "MiB", 64, "high-water mark")

        def check_ours():
            processor = Processor([])
            seconds, peak, _ = timed([program, "check", packed])
            memory.append(peak)
            return seconds, processor.seconds()

        memory.clear()
        table.ratio(f"full check of {mib} MiB ({label})", pairs_of(count, check_ours, lambda: shell(f"zstd -tq {packed}")), 1.0,
                    "the peer: zstd -t of the same file, which takes no digest of the content")
        table.limit(f"memory of the full check of {mib} MiB ({label})", max(memory), "MiB", 64, "high-water mark")
        if kind != "mixed":
            bench_summary(table, program, source, mib, label, count)
        shutil.rmtree(source) if source.is_dir() else source.unlink()
    source = work / "acquisition-large"
    timed([program, "make", "mixed", spectra, str(5 * mib), source])
    packed.unlink()
    timed([program, "pack", source, packed])
    shutil.rmtree(source)
    bench_known_packed(table, build, work, packed, milliseconds)
    old = work / "old.vonk"
    timed([program, "make", "old", spectra, str(mib), old])
    seconds, peak, _ = timed([build / "bin" / "halvane", "upgrade", old])
    table.limit(f"memory of halvane upgrade, {mib} MiB of format 1", peak, "MiB", 64, f"high-water mark; it took {seconds:.1f} s")
    for path in (packed, peer, digest, old):
        path.unlink(missing_ok=True)


def bench_acquisitions_up(table, ours, build, work, mib, number):
    """Raw data in one directory: packed side by side, each beside the making of its summary, and sent."""
    directory = work / "acquisitions"
    directory.mkdir()
    spectra = Path(__file__).parent.parent / "tests" / "data" / "small.mgf"
    for run in range(number):
        kind = ("plain", "zlib")[run % 2]
        timed([build / "bin" / "bench_pack", "make", kind, spectra, str(mib), directory / f"run{run}.mzML"])
    ours.client("mkdir", "/acquisitions")
    command = [build / "bin" / "halvane", "--json", "put", directory, "--to", "/acquisitions"]
    seconds, memory, output = timed(command, env=ours.environment, preexec_fn=few_descriptors)
    uploaded = folder_of(output)["uploaded"]
    packed = [name for name in ours.client("ls", "/acquisitions/acquisitions")[2].decode().split() if name.endswith(".mzML.vonk")]
    if uploaded != number or len(packed) != number:
        fail(f"{uploaded} of {number} acquisitions went up, {len(packed)} of them packed")
    table.limit(f"halvane put of {number} acquisitions of {mib} MiB, memory", memory, "MiB", 300,
                f"high-water mark; mzML, half of it with zlib arrays; {seconds:.1f} s; 256 descriptors at most")
    ours.clear_cache()
    shutil.rmtree(directory)


def bench_known_packed(table, build, work, packed, milliseconds):
    """What a large packed file costs whoever looks at it, and who unpacks it."""
    size = f"{packed.stat().st_size / MIB:.0f} MiB"
    _, peak, output = timed([build / "bin" / "bench_pack", "quick", packed])
    table.limit(f"opening and quick check of a packed file of {size}", milliseconds(output), "ms", 20, "median of 11 in one process")
    table.limit("memory of the quick check of it", peak, "MiB", 64, "high-water mark")
    halvane = build / "bin" / "halvane"
    runs = [[timed([halvane, *arguments]) for arguments in (["inspect", packed], ["--version"])] for _ in range(11)]
    beside = [(inspect[0] - version[0]) * 1000 for inspect, version in runs]
    whole, start = (statistics.median(run[0] * 1000 for run in column) for column in zip(*runs))
    table.limit("halvane inspect of it, beside starting the program", statistics.median(beside), "ms", 20,
                f"median of 11 pairs; the whole program {whole:.1f} ms, of which halvane --version takes {start:.1f} ms")
    table.limit("memory of halvane inspect of it", max(inspect[1] for inspect, _ in runs), "MiB", 64, "high-water mark")
    target = work / "unpacked"
    seconds, peak, _ = timed([halvane, "unpack", packed, "--to", target])
    table.limit("memory of halvane unpack of it", peak, "MiB", 64, f"high-water mark; it took {seconds:.1f} s")
    shutil.rmtree(target)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("root", type=Path)
    parser.add_argument("--quick", action="store_true", help="small sizes and few pairs: shows that it works, proves nothing")
    parser.add_argument("--only-transfers", action="store_true", help="only the rows of one file up and down")
    parser.add_argument("--only-tree", action="store_true", help="only the rows of trees of small files")
    parser.add_argument("--only-tree-up", action="store_true", help="of those only the rows of trees that go up")
    parser.add_argument("--only-pack", action="store_true", help="only the rows of packed acquisitions")
    parser.add_argument("--only-acquisitions", action="store_true", help="only the row of many acquisitions that go up")
    parser.add_argument("--only-cache", action="store_true", help="only the rows of a cache with many entries")
    options = parser.parse_args()
    only = {name for name in ("transfers", "tree", "tree_up", "pack", "acquisitions", "cache") if getattr(options, f"only_{name}")}

    def wanted(name):
        return not only or name in only

    root = options.root
    build = root / "build" / "bench"
    work = Path(tempfile.mkdtemp(prefix="orx-bench-"))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    size, count = (64 * MIB, 3) if options.quick else (1024 * MIB, 7)
    table = Table()
    servers = []
    try:
        if wanted("cache"):
            bench_cache(table, build, work, 10_000 if options.quick else 100_000)
        if wanted("pack"):
            bench_pack(table, root, build, work, 64 if options.quick else 500, count)
        beside_peer = wanted("transfers") or wanted("tree") or wanted("tree_up")
        if beside_peer or wanted("acquisitions"):
            servers.append(ours := Ours(build, work))
        if wanted("acquisitions"):
            bench_acquisitions_up(table, ours, build, work, 4 if options.quick else 40, 16)
        if beside_peer:
            servers.append(nginx := Nginx(peer_program(root, "nginx", "/usr/sbin/nginx"), work))
        if wanted("transfers"):
            bench_large_file(table, ours, nginx, work, size, count)
        if not only:
            bench_memory(table, ours, work, 4 * size)
            bench_growth(table, ours, work, size)
            bench_stall(table, ours, build, work, 2 * size, count)
            bench_tasks(table, build, (25_000, 100_000) if options.quick else (25_000, 100_000, 400_000), count)
        if wanted("tree") or wanted("tree_up"):
            bench_small_files_up(table, ours, nginx, work, 200 if options.quick else 2_000, count)
            bench_tree_up(table, ours, build, work, 1_000 if options.quick else 20_000)
        if wanted("tree"):
            bench_tree(table, ours, nginx, build, work, 2_000 if options.quick else 20_000, 500 if options.quick else 2_000, count)
    finally:
        for server in servers:
            server.stop()
        shutil.rmtree(work, ignore_errors=True)
    table.show()
    sys.exit(1 if table.failed else 0)


if __name__ == "__main__":
    main()
