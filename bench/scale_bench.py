#!/usr/bin/python3
"""How light Velix stays at scale, measured on a headless Velix driven over its control port.

  library  2,000 torrents made here (single files and folders, small data): most added paused,
           some seeded from Velix's own copy, some fetched from a libtorrent seeder on 127.0.0.1.
           Figures: CPU at rest, /state answer time, resident memory, the main thread's apply of
           each poll (p99) and the poll timer's lateness.
  restart  the library above started again: time until /state answers while the restored
           torrents are hash-checked, and the check throughput against sha1sum on the same data.
  stream   a long film played by the built-in player in real time from a seeder on 127.0.0.1
           throttled to 1.5 x its bit rate, then seeks across it: stalls, time to play,
           resident memory over time and the piece cache's size after every trim.
  stall    the library above started again with a 1 ms heartbeat timer on the main thread: its
           stalls (p99 and max) at rest, while 100 torrents are added at once, while a tracker
           list change applies to the whole library, and while a film streams to the built-in
           player; then the time to quit.

Every figure is printed with its target. Run it inside a loopback-only network namespace (the
script refuses otherwise) with the Python that has the libtorrent module (/usr/bin/python3).

usage: scale_bench.py library|restart|stream|stall --velix PATH [--work DIR] [options]
"""

import argparse
import hashlib
import http.client
import json
import os
import random
import shutil
import signal
import statistics
import subprocess
import sys
import time

import libtorrent as lt

CLOCK_TICKS = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")


# Helpers -----------------------------------------------------------------------------------------

def require_loopback_only():
    # /proc/net/dev follows the network namespace; /sys/class/net keeps the host's view.
    with open("/proc/net/dev") as f:
        interfaces = sorted(line.split(":")[0].strip() for line in f.readlines()[2:])
    if interfaces != ["lo"]:
        sys.exit("run this inside a loopback-only namespace (interfaces here: %s)" % ", ".join(interfaces))


def median(values):
    return statistics.median(values) if values else float("nan")


def percentile(values, p):
    if not values:
        return float("nan")
    ordered = sorted(values)
    index = min(len(ordered) - 1, max(0, int(round(p / 100.0 * len(ordered) + 0.5)) - 1))
    return ordered[index]


def figure(name, value, unit, target=None, below=True):
    """One line of the report; a target is a bound the value should stay under (or over)."""
    if target is None:
        print("  %-44s %10.2f %-6s" % (name, value, unit), flush=True)
        return
    met = value < target if below else value > target
    print("  %-44s %10.2f %-6s target %s %g %-6s %s" % (name, value, unit, "<" if below else ">", target,
                                                           unit, "ok" if met else "MISSED"), flush=True)


def proc_cpu_seconds(pid, tid=None):
    path = "/proc/%d/stat" % pid if tid is None else "/proc/%d/task/%d/stat" % (pid, tid)
    with open(path) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    # utime and stime are fields 14 and 15; the split above starts at field 3.
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def proc_status(pid, key):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])  # kB
    return 0


def thread_count(pid):
    return len(os.listdir("/proc/%d/task" % pid))


class Velix:
    """One headless Velix process with its control port."""

    def __init__(self, binary, home, control_port, log_path):
        self.binary = binary
        self.home = home
        self.port = control_port
        self.log_path = log_path
        self.process = None
        self.started = 0.0
        self.extra_env = {}

    def start(self):
        env = dict(os.environ)
        env.update(VELIX_HOME=self.home, VELIX_BACKGROUND="1", QT_QPA_PLATFORM="offscreen", VELIX_SILENT="1",
                   VELIX_CONTROL_PORT=str(self.port), VELIX_POLL_LOG="1", VELIX_CHECK_LOG="1")
        env.update(self.extra_env)
        log = open(self.log_path, "ab")
        self.started = time.monotonic()
        self.process = subprocess.Popen([self.binary], env=env, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        return self

    @property
    def pid(self):
        return self.process.pid

    def get(self, target, timeout=30.0):
        """(status, body, seconds) of one GET."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        try:
            began = time.perf_counter()
            connection.request("GET", target)
            response = connection.getresponse()
            body = response.read()
            return response.status, body, time.perf_counter() - began
        finally:
            connection.close()

    def state(self, timeout=30.0):
        status, body, _ = self.get("/state", timeout)
        if status != 200:
            raise RuntimeError("/state answered %d" % status)
        return json.loads(body)

    def wait_for_state(self, limit=60.0):
        """Seconds from the process start until /state first answers."""
        deadline = time.monotonic() + limit
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError("velix exited with %d, see %s" % (self.process.returncode, self.log_path))
            try:
                status, _, _ = self.get("/state", timeout=2.0)
                if status == 200:
                    return time.monotonic() - self.started
            except OSError:
                pass
            time.sleep(0.005)
        raise RuntimeError("/state did not answer within %g s" % limit)

    def quit(self, limit=60.0):
        """Seconds from asking to quit until the process is gone."""
        began = time.monotonic()
        try:
            self.get("/quit", timeout=5.0)
        except OSError:
            pass
        try:
            self.process.wait(limit)
        except subprocess.TimeoutExpired:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()
            print("  (velix did not quit within %g s and was killed)" % limit)
        return time.monotonic() - began


def torrents_of(state):
    return state.get("torrents", [])


def free_port():
    import socket
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def write_settings(home, download_dir, listen_port):
    os.makedirs(home, exist_ok=True)
    with open(os.path.join(home, "settings.json"), "w") as f:
        # Nothing may leave the machine: no DHT, no local discovery, no port mapping.
        json.dump({"dht": False, "lsd": False, "upnp": False, "listenPort": listen_port,
                   "downloadDirectory": download_dir, "autoTrackers": False, "trackerMirrors": False}, f)


def seeder_session(port, upload_kib=0):
    pack = {
        "listen_interfaces": "127.0.0.1:%d" % port,
        "enable_dht": False, "enable_lsd": False, "enable_upnp": False, "enable_natpmp": False,
        "alert_mask": 0, "allow_multiple_connections_per_ip": True,
        "upload_rate_limit": upload_kib * 1024,
        "active_seeds": 10000, "active_limit": 10000,
    }
    session = lt.session(pack)
    if upload_kib:
        # Loopback peers are exempt from rate limits unless a filter puts them in the global class.
        loopback = lt.ip_filter()
        loopback.add_rule("127.0.0.0", "127.255.255.255", 1 << lt.session.global_peer_class_id)
        session.set_peer_class_filter(loopback)
    return session


# The library -------------------------------------------------------------------------------------

class Library:
    """2,000 small torrents and their data, made once and reused while the options match."""

    def __init__(self, work, count, paused_kib, seed_kib, own_seeds, remote_seeds, piece_kib=0):
        self.work = work
        self.piece_kib = piece_kib
        self.count = count
        self.paused_kib = paused_kib
        self.seed_kib = seed_kib
        self.own_seeds = own_seeds
        self.remote_seeds = remote_seeds
        self.data = os.path.join(work, "data")        # Velix's download folder
        self.remote = os.path.join(work, "remote")    # the seeder's copy of what Velix fetches
        self.files = os.path.join(work, "torrents")
        self.entries = []

    def key(self):
        key = [self.count, self.paused_kib, self.seed_kib, self.own_seeds, self.remote_seeds, 1]
        return key + [self.piece_kib] if self.piece_kib else key

    def ensure(self):
        manifest = os.path.join(self.work, "manifest.json")
        if os.path.exists(manifest):
            with open(manifest) as f:
                saved = json.load(f)
            if saved["key"] == self.key():
                self.entries = saved["entries"]
                # Fetched data is removed again, so every library run downloads it anew.
                for e in self.entries:
                    if e["group"] == "remote":
                        remove_path(os.path.join(self.data, e["name"]))
                return False
        for folder in (self.data, self.remote, self.files):
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        rng = random.Random(21)
        began = time.monotonic()
        for i in range(self.count):
            if i < self.own_seeds:
                group, base = "own", self.data
                mean = self.seed_kib
            elif i < self.own_seeds + self.remote_seeds:
                group, base = "remote", self.remote
                mean = self.paused_kib
            else:
                group, base = "paused", self.data
                mean = self.paused_kib
            folder = i % 5 == 0
            name = ("Folder %04d" if folder else "File %04d.bin") % i
            sizes = [max(1, int(rng.uniform(0.25, 1.75) * mean * 1024 / (3 if folder else 1)))
                     for _ in range(3 if folder else 1)]
            if folder:
                os.makedirs(os.path.join(base, name))
                paths = [os.path.join(base, name, "part %d.bin" % k) for k in range(len(sizes))]
            else:
                paths = [os.path.join(base, name)]
            for path, size in zip(paths, sizes):
                with open(path, "wb") as f:
                    for at in range(0, size, 64 << 20):
                        f.write(rng.randbytes(min(64 << 20, size - at)))
            storage = lt.file_storage()
            lt.add_files(storage, os.path.join(base, name))
            piece = 16 * 1024 if sum(sizes) < 4 << 20 else self.piece_kib * 1024
            maker = lt.create_torrent(storage, piece)
            lt.set_piece_hashes(maker, base)
            torrent_path = os.path.join(self.files, "%04d.torrent" % i)
            with open(torrent_path, "wb") as f:
                f.write(lt.bencode(maker.generate()))
            info = lt.torrent_info(torrent_path)
            self.entries.append({"name": name, "group": group, "torrent": torrent_path, "size": sum(sizes),
                                 "hash": str(info.info_hash())})
        with open(manifest, "w") as f:
            json.dump({"key": self.key(), "entries": self.entries}, f)
        print("made %d torrents, %.1f MiB, in %.1f s" % (self.count, self.total_bytes() / 2**20,
                                                          time.monotonic() - began), flush=True)
        return True

    def total_bytes(self, groups=("own", "remote", "paused")):
        return sum(e["size"] for e in self.entries if e["group"] in groups)

    def paths(self, groups):
        return [os.path.join(self.data, e["name"]) for e in self.entries if e["group"] in groups]


def remove_path(path):
    if os.path.isdir(path):
        shutil.rmtree(path)
    elif os.path.exists(path):
        os.remove(path)


def files_under(paths):
    out = []
    for p in paths:
        if os.path.isdir(p):
            for root, _, names in os.walk(p):
                out.extend(os.path.join(root, n) for n in sorted(names))
        elif os.path.exists(p):
            out.append(p)
    return out


def settle(velix, what, done, limit, step=1.0):
    """Polls /state until done(torrents) holds; returns the seconds it took."""
    began = time.monotonic()
    while time.monotonic() - began < limit:
        if done(torrents_of(velix.state())):
            return time.monotonic() - began
        time.sleep(step)
    print("  (gave up waiting for %s after %g s)" % (what, limit))
    return float("nan")


def thread_times(pid):
    """{(tid, name): cpu seconds} of every thread of the process."""
    out = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/comm" % (pid, tid)) as f:
                name = f.read().strip()
            out[(int(tid), name)] = proc_cpu_seconds(pid, int(tid))
        except OSError:
            pass
    return out


def measure_rest(velix, seconds):
    """CPU share of one core for the whole process and its main thread over a quiet stretch."""
    threads0 = thread_times(velix.pid)
    cpu0, main0, t0 = proc_cpu_seconds(velix.pid), proc_cpu_seconds(velix.pid, velix.pid), time.monotonic()
    rss = []
    while time.monotonic() - t0 < seconds:
        time.sleep(1.0)
        rss.append(proc_status(velix.pid, "VmRSS"))
    elapsed = time.monotonic() - t0
    cpu1, main1 = proc_cpu_seconds(velix.pid), proc_cpu_seconds(velix.pid, velix.pid)
    # Where the time went, by thread: the busiest first.
    threads1 = thread_times(velix.pid)
    shares = sorted(((threads1[k] - threads0.get(k, 0)) / elapsed, k) for k in threads1)
    print("  busiest threads: " + ", ".join("%s(%d) %.1f %%" % (k[1], k[0], share * 100)
                                             for share, k in reversed(shares[-4:])))
    return (cpu1 - cpu0) / elapsed, (main1 - main0) / elapsed, elapsed, rss


def poll_log_since(path, offset):
    """The engine's per-poll lines written to the log after offset: (apply ms list, late ms list)."""
    applies, lates = [], []
    with open(path, "rb") as f:
        f.seek(offset)
        for line in f.read().decode("utf-8", "replace").splitlines():
            words = dict(w.split("=", 1) for w in line.split()[2:] if "=" in w) if line.startswith("poll ") else {}
            if line.startswith("poll apply_ms="):
                applies.append(float(line.split()[1].split("=")[1]))
            elif line.startswith("poll tick ") and "late_ms" in words:
                lates.append(float(words["late_ms"]))
    return applies, lates


def measure_state(velix, requests):
    times, size = [], 0
    for _ in range(requests):
        status, body, seconds = velix.get("/state")
        if status != 200:
            raise RuntimeError("/state answered %d" % status)
        times.append(seconds * 1000)
        size = len(body)
    return times, size


def run_library(args):
    library = Library(args.work, args.count, args.paused_kib, args.seed_kib, args.own_seeds, args.remote_seeds,
                      args.piece_kib)
    library.ensure()
    home = os.path.join(args.work, "home")
    shutil.rmtree(home, ignore_errors=True)
    velix_port, seeder_port = free_port(), free_port()
    write_settings(home, library.data, velix_port)

    seeder = seeder_session(seeder_port)
    remote = [e for e in library.entries if e["group"] == "remote"]
    handles = []
    for e in remote:
        params = lt.add_torrent_params()
        params.ti = lt.torrent_info(e["torrent"])
        params.save_path = library.remote
        params.flags = lt.torrent_flags.seed_mode
        handles.append(seeder.add_torrent(params))

    velix = Velix(args.velix, home, free_port(), os.path.join(args.work, "library.log")).start()
    try:
        print("velix pid %d; /state first answered after %.2f s" % (velix.pid, velix.wait_for_state()))
        began = time.monotonic()
        for e in library.entries:
            target = "/add?path=%s&save=%s" % (quote(e["torrent"]), quote(library.data))
            if e["group"] == "paused":
                target += "&paused=1"
            status, body, _ = velix.get(target)
            reply = json.loads(body)
            if status != 200 or "id" not in reply:
                raise RuntimeError("add of %s: %s" % (e["torrent"], body[:200]))
        added = time.monotonic() - began
        print("added %d torrents in %.1f s (%.1f ms each)" % (len(library.entries), added,
                                                             added * 1000 / len(library.entries)), flush=True)

        def fetched(torrents):
            by_name = {t["name"]: t for t in torrents}
            for h in handles:
                h.connect_peer(("127.0.0.1", velix_port))
            return all(by_name.get(e["name"], {}).get("progress", 0) >= 1.0 for e in remote)

        def quiet(torrents):
            return not any(t["state"] == "checking" and not t["paused"] for t in torrents)

        print("fetched %d torrents from the seeder in %.1f s" % (len(remote), settle(velix, "the fetch", fetched,
                                                                                     args.limit)))
        print("checks done after %.1f s more" % settle(velix, "the checks", quiet, args.limit))
        states = {}
        for t in torrents_of(velix.state()):
            key = t["state"] + (" (paused)" if t["paused"] else "")
            states[key] = states.get(key, 0) + 1
        print("states: " + ", ".join("%s %d" % kv for kv in sorted(states.items())))
        time.sleep(args.settle)

        print("\nat rest, %d torrents, %d threads" % (len(library.entries), thread_count(velix.pid)))
        log_offset = os.path.getsize(velix.log_path)
        cpu, main, elapsed, rss = measure_rest(velix, args.rest)
        applies, lates = poll_log_since(velix.log_path, log_offset)
        figure("CPU at rest over %.0f s, whole process" % elapsed, cpu * 100, "%", 5)
        figure("CPU at rest, main thread", main * 100, "%")
        # The engine polls once a second at rest, so the main thread's time a second is an upper
        # bound of one poll's apply on the main thread.
        figure("main-thread time a poll (upper bound)", main * 1000, "ms")
        if applies:
            figure("poll apply on the main thread, median of %d" % len(applies), median(applies), "ms")
            figure("poll apply on the main thread, p99", percentile(applies, 99), "ms", 16)
        if lates:
            # A 1 s poll runs on a coarse timer, which may fire up to 5 % late by design.
            figure("poll timer lateness, p99 of %d" % len(lates), percentile(lates, 99), "ms")
        figure("resident memory (median over the rest)", median(rss) / 1024, "MiB", 400)
        figure("resident memory peak so far (VmHWM)", proc_status(velix.pid, "VmHWM") / 1024, "MiB")

        times, size = measure_state(velix, args.requests)
        figure("/state answer, median of %d" % len(times), median(times), "ms", 50)
        figure("/state answer, p99", percentile(times, 99), "ms", 50)
        figure("/state document size", size / 1024, "KiB")
        figure("resident memory after the /state series", proc_status(velix.pid, "VmRSS") / 1024, "MiB", 400)
        figure("quit time", velix.quit(), "s")
    finally:
        if velix.process.poll() is None:
            velix.quit()
        del seeder


def quote(text):
    from urllib.parse import quote as q
    return q(text, safe="")


# The restart -------------------------------------------------------------------------------------

def sha1_throughput(paths):
    files = files_under(paths)
    total = sum(os.path.getsize(f) for f in files)
    began = time.monotonic()
    # sha1sum over every file, in batches so one command line stays short.
    for i in range(0, len(files), 500):
        subprocess.run(["sha1sum"] + files[i:i + 500], check=True, stdout=subprocess.DEVNULL)
    return total, time.monotonic() - began


def check_trace_since(path, offset):
    """The restore's start and the last check's end from the bridge's check trace, in seconds."""
    restore_at, last_done, restored_at = None, None, None
    with open(path, "rb") as f:
        f.seek(offset)
        for raw in f:
            line = raw.decode("utf-8", "replace")
            if not line.startswith("check ") or " at_ms=" not in line:
                continue
            at = float(line.split(" at_ms=")[1].split()[0]) / 1000
            if line.startswith("check restore "):
                restore_at = at if restore_at is None else restore_at
            elif line.startswith("check restored "):
                restored_at = at if restored_at is None else restored_at
            elif line.startswith("check done "):
                last_done = at if last_done is None else max(last_done, at)
    return restore_at, last_done, restored_at


def run_restart(args):
    library = Library(args.work, args.count, args.paused_kib, args.seed_kib, args.own_seeds, args.remote_seeds,
                      args.piece_kib)
    home = os.path.join(args.work, "home")
    if not os.path.exists(os.path.join(args.work, "manifest.json")) or not os.path.isdir(os.path.join(home, "state", "resume")):
        sys.exit("run the library benchmark first: it leaves the library this one restarts")
    with open(os.path.join(args.work, "manifest.json")) as f:
        library.entries = json.load(f)["entries"]
    size_of = {e["name"]: e["size"] for e in library.entries}

    first_answers, check_times, state_during, rates, checked_bytes = [], [], [], [], []
    hash_spans, hash_rates = [], []
    log_path = os.path.join(args.work, "restart.log")
    for run in range(args.runs):
        log_offset = os.path.getsize(log_path) if os.path.exists(log_path) else 0
        velix = Velix(args.velix, home, free_port(), log_path).start()
        try:
            first = velix.wait_for_state()
            first_answers.append(first)
            # Torrents the queue holds back report themselves paused, so what counts as paused by
            # the user comes from the library, not from the state.
            active = {e["name"] for e in library.entries if e["group"] != "paused"}
            seen_checking, names_unpaused = set(), active
            began = velix.started
            while time.monotonic() - began < args.limit:
                status, body, seconds = velix.get("/state")
                state_during.append(seconds * 1000)
                torrents = torrents_of(json.loads(body))
                checking = [t for t in torrents if t["state"] == "checking" and t["name"] in active]
                seen_checking.update(t["name"] for t in checking)
                if len(torrents) == len(library.entries) and not checking:
                    break
                time.sleep(0.1)
            done = time.monotonic() - began
            check_times.append(done)
            checked = sum(size_of.get(n, 0) for n in names_unpaused)
            checked_bytes.append(checked)
            rates.append(checked / done / 2**20)
            # The state shows a finished check only at the next poll, up to a second late; the
            # bridge's own trace times the checks on the clock this script uses.
            restore_at, last_done, restored_at = check_trace_since(log_path, log_offset)
            if restore_at is not None and last_done is not None:
                hash_spans.append(last_done - restore_at)
                hash_rates.append(checked / (last_done - restore_at) / 2**20)
                print("        restore began %.2f s after the start and took %.2f s; last check done %.2f s after"
                      " it began" % (restore_at - velix.started,
                                     (restored_at - restore_at) if restored_at else float("nan"),
                                     last_done - restore_at))
            print("run %d: /state after %.2f s, checks of %d torrents (%.1f MiB, %d seen checking) done after"
                  " %.2f s" % (run + 1, first, len(names_unpaused), checked / 2**20, len(seen_checking), done),
                  flush=True)
            final = torrents_of(velix.state())
            complete = sum(1 for t in final if t["progress"] >= 1.0)
            print("        %d of %d torrents complete after the check; RSS %.0f MiB"
                  % (complete, len(final), proc_status(velix.pid, "VmRSS") / 1024))
        finally:
            velix.quit()

    checked_paths = [os.path.join(library.data, e["name"]) for e in library.entries if e["group"] != "paused"]
    sha_bytes, sha_seconds = [], []
    for _ in range(args.runs):
        total, seconds = sha1_throughput(checked_paths)
        sha_bytes.append(total)
        sha_seconds.append(seconds)
    sha_rate = median([b / s / 2**20 for b, s in zip(sha_bytes, sha_seconds)])

    print("\nrestart of %d torrents, %d runs (medians)" % (len(library.entries), args.runs))
    figure("start until /state answers", median(first_answers), "s", 2)
    figure("start until /state answers, worst", max(first_answers), "s", 2)
    figure("start until every check is done", median(check_times), "s")
    figure("/state answer during the checks, median", median(state_during), "ms", 50)
    figure("/state answer during the checks, p99", percentile(state_during, 99), "ms", 50)
    figure("check throughput, start to done", median(rates), "MiB/s")
    figure("sha1sum over the same data (warm cache)", sha_rate, "MiB/s")
    figure("check throughput / sha1sum", median(rates) / sha_rate * 100, "%")
    if hash_rates:
        figure("restore begun until the last check done", median(hash_spans), "s")
        figure("check throughput, restore to last check", median(hash_rates), "MiB/s")
        figure("check throughput / sha1sum, restore to last check", median(hash_rates) / sha_rate * 100, "%", 90,
               below=False)


# The stream --------------------------------------------------------------------------------------

def make_long_video(work, size_mib, mbit):
    """A video of about size_mib made of one noisy minute repeated (encoded once, copied after)."""
    source = os.path.join(work, "source")
    os.makedirs(source, exist_ok=True)
    name = "Long film %d MiB.mkv" % size_mib
    path = os.path.join(source, name)
    if os.path.exists(path) and os.path.getsize(path) >= (size_mib << 20) * 0.9:
        return path, name
    minute = os.path.join(work, "minute-%dM.mkv" % mbit)
    if not os.path.exists(minute):
        # Noise keeps the encoder at its rate; a small picture keeps decoding cheap.
        subprocess.run(["ffmpeg", "-v", "error", "-y",
                        "-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25,noise=alls=40:allf=t+u",
                        "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000",
                        "-t", "60", "-c:v", "mpeg4", "-b:v", "%dM" % mbit, "-minrate", "%dM" % mbit,
                        "-maxrate", "%dM" % mbit, "-bufsize", "%dM" % mbit, "-g", "50",
                        "-c:a", "mp2", "-b:a", "192k", minute], check=True)
    copies = max(1, int(round((size_mib << 20) / os.path.getsize(minute))))
    listing = os.path.join(work, "minutes.txt")
    with open(listing, "w") as f:
        for _ in range(copies):
            f.write("file '%s'\n" % minute)
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "concat", "-safe", "0", "-i", listing,
                    "-c", "copy", path], check=True)
    return path, name


def make_check_data(work, count, mib):
    """count files of mib MiB of random bytes with their torrents, made once: [(torrent, save path)]."""
    folder = os.path.join(work, "checks")
    os.makedirs(folder, exist_ok=True)
    made = []
    rng = random.Random(5)
    for i in range(count):
        path = os.path.join(folder, "Check %d.bin" % i)
        torrent = os.path.join(work, "check-%d-%d.torrent" % (i, mib))
        if not os.path.exists(path) or os.path.getsize(path) != mib << 20:
            with open(path, "wb") as f:
                for _ in range(mib):
                    f.write(rng.randbytes(1 << 20))
            if os.path.exists(torrent):
                os.remove(torrent)
        if not os.path.exists(torrent):
            storage = lt.file_storage()
            lt.add_files(storage, path)
            maker = lt.create_torrent(storage, 0)
            lt.set_piece_hashes(maker, folder)
            with open(torrent, "wb") as f:
                f.write(lt.bencode(maker.generate()))
        made.append((torrent, folder))
    return made


def media_seconds(path):
    out = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path],
                         check=True, capture_output=True, text=True).stdout
    return float(out.strip())


class PlayerWatch:
    """Samples the player in /state once a second and counts stalls: the player waiting for data
    while it was meant to play (not paused, not in the wait right after a seek)."""

    def __init__(self, velix):
        self.velix = velix
        self.stalls = 0
        self.stalled_seconds = 0.0
        self.stalling = False

    def player(self):
        return self.velix.state().get("player", {})

    def sample(self, step):
        p = self.player()
        waiting = p.get("buffering") and not p.get("paused") and not p.get("waitingAfterSeek")
        if waiting:
            self.stalled_seconds += step
            if not self.stalling:
                self.stalls += 1
        self.stalling = bool(waiting)
        return p

    def playing_past(self, seconds, limit):
        """Seconds until the player plays beyond a position, or nan."""
        began = time.monotonic()
        while time.monotonic() - began < limit:
            p = self.player()
            if p.get("loaded") and not p.get("waitingAfterSeek") and p.get("position", 0) > seconds:
                return time.monotonic() - began
            time.sleep(0.1)
        return float("nan")


def cache_sizes_since(path, offset):
    sizes = []
    with open(path, "rb") as f:
        f.seek(offset)
        for line in f.read().decode("utf-8", "replace").splitlines():
            if line.startswith("cache bytes="):
                sizes.append(int(line.split()[1].split("=")[1]))
    return sizes


def run_stream(args):
    work = os.path.join(args.work, "stream")
    home = os.path.join(work, "home")
    shutil.rmtree(home, ignore_errors=True)
    os.makedirs(work, exist_ok=True)
    path, name = make_long_video(work, args.stream_mib, args.video_mbit)
    size, seconds = os.path.getsize(path), media_seconds(path)
    bitrate = size / seconds
    rate = int(bitrate * args.rate_factor)
    torrent_path = os.path.join(work, "long-%d.torrent" % size)
    if not os.path.exists(torrent_path):
        storage = lt.file_storage()
        lt.add_files(storage, path)
        maker = lt.create_torrent(storage, 4 << 20)
        lt.set_piece_hashes(maker, os.path.dirname(path))
        with open(torrent_path, "wb") as f:
            f.write(lt.bencode(maker.generate()))

    velix_port, seeder_port = free_port(), free_port()
    downloads = os.path.join(work, "downloads")
    shutil.rmtree(downloads, ignore_errors=True)
    os.makedirs(downloads)
    write_settings(home, downloads, velix_port)
    seeder = seeder_session(seeder_port, rate // 1024)
    params = lt.add_torrent_params()
    params.ti = lt.torrent_info(torrent_path)
    params.save_path = os.path.dirname(path)
    params.flags = lt.torrent_flags.seed_mode
    handle = seeder.add_torrent(params)

    log_path = os.path.join(work, "stream.log")
    velix = Velix(args.velix, home, free_port(), log_path)
    velix.extra_env = {"VELIX_READER_LOG": "1"}
    log_offset = os.path.getsize(log_path) if os.path.exists(log_path) else 0
    velix.start()
    try:
        velix.wait_for_state()
        status, body, _ = velix.get("/add?path=%s&save=%s" % (quote(torrent_path), quote(downloads)))
        torrent_id = json.loads(body)["id"]
        handle.connect_peer(("127.0.0.1", velix_port))
        print("%.0f MiB, %.0f s of video at %.2f Mbit/s; the seeder gives %.2f Mbit/s (%.1f x)"
              % (size / 2**20, seconds, bitrate * 8 / 1e6, rate * 8 / 1e6, args.rate_factor), flush=True)
        began = time.monotonic()
        status, body, _ = velix.get("/play?id=%s&file=0" % torrent_id, timeout=120)
        if status != 200:
            raise RuntimeError("/play answered %d: %s" % (status, body[:200]))
        watch = PlayerWatch(velix)
        first = watch.playing_past(0.5, args.limit)
        print("playing after %.2f s; RSS every %d s" % (first, args.sample), flush=True)

        samples, next_sample, last_connect = [], 0.0, time.monotonic()
        play_began = time.monotonic()
        while time.monotonic() - play_began < args.play_seconds:
            p = watch.sample(1.0)
            now = time.monotonic() - play_began
            if time.monotonic() - last_connect > 5:
                handle.connect_peer(("127.0.0.1", velix_port))
                last_connect = time.monotonic()
            if now >= next_sample:
                rss = proc_status(velix.pid, "VmRSS") / 1024
                samples.append((now, rss))
                print("  %5.0f s  position %7.1f s  cache %5.1f s  RSS %6.1f MiB (anonymous %6.1f, files %6.1f)"
                      "  stalls %d" % (now, p.get("position", 0), p.get("cacheTime", 0), rss,
                                       proc_status(velix.pid, "RssAnon") / 1024, proc_status(velix.pid, "RssFile") / 1024,
                                       watch.stalls), flush=True)
                next_sample += args.sample
            time.sleep(1.0)
        played_stalls, played_stalled = watch.stalls, watch.stalled_seconds

        # Hash checks while the film plays: torrents whose data is on disk are added, and each
        # is checked before it seeds.
        check_paths = make_check_data(work, args.check_torrents, args.check_mib)
        checks_began = time.monotonic()
        check_ids = []
        for torrent_file, data in check_paths:
            status, body, _ = velix.get("/add?path=%s&save=%s" % (quote(torrent_file), quote(data)))
            check_ids.append(json.loads(body).get("id"))
        checks_done = float("nan")
        while time.monotonic() - checks_began < args.limit:
            watch.sample(1.0)
            states = {t["id"]: t for t in torrents_of(velix.state())}
            if all(i in states and states[i]["state"] != "checking" for i in check_ids):
                checks_done = time.monotonic() - checks_began
                break
            time.sleep(1.0)
        check_stalls = watch.stalls - played_stalls
        print("  %d torrents (%d MiB) checked while playing in %.1f s; stalls %d"
              % (len(check_paths), args.check_torrents * args.check_mib, checks_done, check_stalls), flush=True)
        for i in check_ids:
            velix.get("/remove?id=%s" % i)
        before_seeks = watch.stalls

        seek_times, fractions = [], [0.15, 0.85, 0.35, 0.65, 0.5, 0.95]
        for fraction in fractions:
            target = seconds * fraction
            velix.get("/seek?t=%.1f" % target)
            took = watch.playing_past(target + 0.5, args.limit)
            seek_times.append(took)
            for _ in range(args.after_seek):
                watch.sample(1.0)
                time.sleep(1.0)
            rss = proc_status(velix.pid, "VmRSS") / 1024
            samples.append((time.monotonic() - play_began, rss))
            print("  seek to %3.0f %%: playing after %.2f s; RSS %.1f MiB, stalls %d"
                  % (fraction * 100, took, rss, watch.stalls), flush=True)

        cache = cache_sizes_since(log_path, log_offset)
        limit_bytes = 64 << 20
        print("\nlong stream: %.0f s played in real time, then %d seeks" % (args.play_seconds, len(fractions)))
        figure("start until playing", first, "s")
        figure("stalls while playing (swarm at %.1f x the bitrate)" % args.rate_factor, played_stalls, "", 1)
        figure("seconds stalled while playing", played_stalled, "s")
        figure("stalls while %d MiB were hash-checked" % (args.check_torrents * args.check_mib), check_stalls, "", 1)
        figure("those checks took", checks_done, "s")
        figure("stalls after the seeks", watch.stalls - before_seeks, "")
        figure("seek until playing, median of %d" % len(seek_times), median(seek_times), "s")
        after_minute = [r for t, r in samples if t >= 60]
        figure("RSS peak (VmHWM)", proc_status(velix.pid, "VmHWM") / 1024, "MiB", 250)
        if after_minute:
            figure("RSS growth after the first minute", max(after_minute) - after_minute[0], "MiB")
            figure("RSS at the end", after_minute[-1], "MiB", 250)
        if cache:
            figure("piece cache, largest after a trim", max(cache) / 2**20, "MiB", 64.5)
            figure("trims that left the cache above 64 MiB", sum(1 for c in cache if c > limit_bytes), "", 1)
    finally:
        velix.quit()
        del seeder



# Main-thread stalls -------------------------------------------------------------------------------

def heartbeats_between(path, offset, start, end):
    """Per-second heartbeat lines of the log, after offset, within [start, end] on the monotonic
    clock: (p99 list, max list, ticks)."""
    p99s, maxes, ticks = [], [], 0
    with open(path, "rb") as f:
        f.seek(offset)
        for line in f.read().decode("utf-8", "replace").splitlines():
            if not line.startswith("heartbeat "):
                continue
            words = dict(w.split("=", 1) for w in line.split()[1:] if "=" in w)
            at = float(words["at_ms"]) / 1000
            # A line sums up the second before it.
            if at < start or at - 1.0 > end:
                continue
            p99s.append(float(words["p99_ms"]))
            maxes.append(float(words["max_ms"]))
            ticks += int(words["ticks"])
    return p99s, maxes, ticks


def stall_figures(velix, what, offset, start, end):
    p99s, maxes, ticks = heartbeats_between(velix.log_path, offset, start, end)
    if not p99s:
        print("  (no heartbeat lines for %s)" % what)
        return
    # The p99 of the whole stretch is at least the largest p99 of its seconds' over 1 % of the
    # ticks; the largest second's p99 is the figure that matters and the one shown.
    figure("%s: main-thread stall p99 (worst second)" % what, max(p99s), "ms", 16)
    figure("%s: main-thread stall max" % what, max(maxes), "ms")
    figure("%s: heartbeat ticks a second" % what, ticks / max(1.0, end - start), "")


def make_small_torrents(work, count, kib):
    folder = os.path.join(work, "new")
    files = os.path.join(work, "new-torrents")
    shutil.rmtree(folder, ignore_errors=True)
    shutil.rmtree(files, ignore_errors=True)
    os.makedirs(folder)
    os.makedirs(files)
    rng = random.Random(99)
    out = []
    for i in range(count):
        name = "New %03d.bin" % i
        with open(os.path.join(folder, name), "wb") as f:
            f.write(rng.randbytes(kib * 1024))
        storage = lt.file_storage()
        lt.add_files(storage, os.path.join(folder, name))
        maker = lt.create_torrent(storage, 16 * 1024)
        lt.set_piece_hashes(maker, folder)
        path = os.path.join(files, "%03d.torrent" % i)
        with open(path, "wb") as f:
            f.write(lt.bencode(maker.generate()))
        out.append(path)
    return folder, out


def run_stall(args):
    import threading
    home = os.path.join(args.work, "home")
    if not os.path.isdir(os.path.join(home, "state", "resume")):
        sys.exit("run the library benchmark first: it leaves the library this one starts")
    work = os.path.join(args.work, "stall")
    os.makedirs(work, exist_ok=True)
    new_folder, new_torrents = make_small_torrents(work, args.add_count, 64)
    film_path, _ = make_long_video(work, args.stall_film_mib, args.video_mbit)
    film_torrent = os.path.join(work, "film-%d.torrent" % os.path.getsize(film_path))
    if not os.path.exists(film_torrent):
        storage = lt.file_storage()
        lt.add_files(storage, film_path)
        maker = lt.create_torrent(storage, 1 << 20)
        lt.set_piece_hashes(maker, os.path.dirname(film_path))
        with open(film_torrent, "wb") as f:
            f.write(lt.bencode(maker.generate()))
    bitrate = os.path.getsize(film_path) / media_seconds(film_path)
    seeder_port = free_port()
    seeder = seeder_session(seeder_port, int(bitrate * args.rate_factor) // 1024)
    params = lt.add_torrent_params()
    params.ti = lt.torrent_info(film_torrent)
    params.save_path = os.path.dirname(film_path)
    params.flags = lt.torrent_flags.seed_mode
    film_handle = seeder.add_torrent(params)

    # A copy of the library's home: what is added here must not reach the restart benchmark.
    library_home = home
    home = os.path.join(work, "home")
    shutil.rmtree(home, ignore_errors=True)
    shutil.copytree(library_home, home)
    with open(os.path.join(home, "settings.json")) as f:
        velix_port = json.load(f)["listenPort"]
    downloads = os.path.join(work, "downloads")
    shutil.rmtree(downloads, ignore_errors=True)
    os.makedirs(downloads)
    log_path = os.path.join(work, "stall.log")
    velix = Velix(args.velix, home, free_port(), log_path)
    velix.extra_env = {"VELIX_HEARTBEAT_LOG": "1"}
    offset = os.path.getsize(log_path) if os.path.exists(log_path) else 0
    velix.start()
    try:
        print("velix pid %d; /state first answered after %.2f s" % (velix.pid, velix.wait_for_state()))
        count = settle(velix, "the library", lambda t: len(t) >= args.count, args.limit)
        quiet = settle(velix, "the checks", lambda t: not any(x["state"] == "checking" for x in t), args.limit)
        print("library of %d back, checks done after %.1f s" % (len(torrents_of(velix.state())), count + quiet))
        time.sleep(args.settle)

        began = time.monotonic()
        time.sleep(10)
        stall_figures(velix, "at rest", offset, began, time.monotonic())

        # 100 adds at once, each from its own connection, as a script or a drop of many files.
        answers = []

        def add(path):
            status, body, seconds = velix.get("/add?path=%s&save=%s&paused=1" % (quote(path), quote(new_folder)))
            answers.append((status, seconds))

        threads = [threading.Thread(target=add, args=(p,)) for p in new_torrents]
        began = time.monotonic()
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        answered = time.monotonic()
        time.sleep(3)
        figure("%d adds at once: all answered" % len(threads), (answered - began) * 1000, "ms")
        stall_figures(velix, "%d adds at once" % len(threads), offset, began, time.monotonic())

        # Extra trackers for every public torrent of the library, then none again.
        trackers = "\n".join("udp://tracker%d.invalid:6969/announce" % k for k in range(3))
        for what, text in (("tracker list change", trackers), ("tracker list cleared", "")):
            began = time.monotonic()
            status, _, seconds = velix.get("/settings?trackers=%s" % quote(text))
            time.sleep(args.tracker_window)
            figure("%s: /settings answered" % what, seconds * 1000, "ms")
            stall_figures(velix, "%s on %d torrents" % (what, args.count + len(new_torrents)), offset, began,
                          time.monotonic())

        # A film streams to the built-in player from a throttled seeder.
        status, body, _ = velix.get("/add?path=%s&save=%s" % (quote(film_torrent), quote(downloads)))
        film_id = json.loads(body)["id"]
        film_handle.connect_peer(("127.0.0.1", velix_port))
        velix.get("/play?id=%s&file=0" % film_id, timeout=120)
        watch = PlayerWatch(velix)
        playing = watch.playing_past(1.0, args.limit)
        print("film plays after %.1f s" % playing)
        began = time.monotonic()
        while time.monotonic() - began < args.stall_play:
            film_handle.connect_peer(("127.0.0.1", velix_port))
            watch.sample(1.0)
            time.sleep(1.0)
        stall_figures(velix, "film streaming", offset, began, time.monotonic())
        figure("film streaming: stalls of the player", watch.stalls, "")
        velix.get("/stop")

        figure("quit with %d torrents" % (args.count + len(new_torrents) + 1), velix.quit(), "s", 10)
    finally:
        if velix.process.poll() is None:
            velix.quit()
        del seeder


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("benchmark", choices=["library", "restart", "stream", "stall"])
    parser.add_argument("--velix", required=True, help="the velix executable")
    parser.add_argument("--work", default="/tmp/velix-scale-bench", help="where the data and the home live")
    parser.add_argument("--count", type=int, default=2000)
    parser.add_argument("--paused-kib", type=int, default=128, help="mean size of a paused torrent")
    parser.add_argument("--seed-kib", type=int, default=1536, help="mean size of a torrent Velix seeds")
    parser.add_argument("--own-seeds", type=int, default=150, help="torrents seeded from Velix's own copy")
    parser.add_argument("--remote-seeds", type=int, default=20, help="torrents fetched from the seeder")
    parser.add_argument("--piece-kib", type=int, default=0,
                        help="piece size of torrents of 4 MiB or more (0: libtorrent's choice)")
    parser.add_argument("--rest", type=float, default=60, help="seconds of rest to measure CPU over")
    parser.add_argument("--settle", type=float, default=10, help="seconds of quiet before the rest")
    parser.add_argument("--requests", type=int, default=50, help="/state requests to time")
    parser.add_argument("--runs", type=int, default=3, help="restarts")
    parser.add_argument("--limit", type=float, default=600, help="longest wait for any phase, seconds")
    parser.add_argument("--stream-mib", type=int, default=4096, help="size of the long video")
    parser.add_argument("--video-mbit", type=int, default=8, help="bit rate of the long video")
    parser.add_argument("--rate-factor", type=float, default=1.5, help="the seeder's upload over the bit rate")
    parser.add_argument("--play-seconds", type=float, default=600, help="real-time playing before the seeks")
    parser.add_argument("--after-seek", type=int, default=20, help="seconds played after each seek")
    parser.add_argument("--check-torrents", type=int, default=4, help="torrents hash-checked while the film plays")
    parser.add_argument("--check-mib", type=int, default=256, help="size of each of them")
    parser.add_argument("--sample", type=int, default=15, help="seconds between RSS samples of the stream")
    parser.add_argument("--add-count", type=int, default=100, help="torrents added at once in the stall run")
    parser.add_argument("--tracker-window", type=float, default=15, help="seconds watched after a tracker change")
    parser.add_argument("--stall-film-mib", type=int, default=256, help="size of the film streamed in the stall run")
    parser.add_argument("--stall-play", type=float, default=60, help="seconds of the film watched in the stall run")
    args = parser.parse_args()
    require_loopback_only()
    os.makedirs(args.work, exist_ok=True)
    os.nice(5)
    {"library": run_library, "restart": run_restart, "stream": run_stream, "stall": run_stall}[args.benchmark](args)


if __name__ == "__main__":
    main()
