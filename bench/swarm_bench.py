#!/usr/bin/python3
"""Streaming from a swarm, side by side: Velix's built-in player (/play), Velix's /stream played by
the mpv program, and other streaming clients installed for the benchmark only.

The swarm: three libtorrent seeders, each on its own loopback address (127.0.0.2, .3, .4) with
its upload shaped by the kernel (an htb class per address on lo, lo's MTU at 1500, a short fifo
per class), and a tracker on 127.0.0.1 that hands out the three. The film: 180 s of 720p H.264
and AAC in Matroska at about 3.7 Mbit/s, in 1 MiB pieces. Every client plays it through the same
mpv (no video or sound output, its stock cache), started idle before the clock starts.

Per client and run, on a fresh download: time to the first frame, a seek to 50 % into data that
is not there yet, stalls (mpv paused for its cache) over the first 60 s of playing and after the
seek, and the download's rate while playing against the swarm's capacity. Each figure is printed
with its ratio to the bound (what the swarm and mpv allow), its ratio to the best other client,
and ok or MISSED against its target.

Run inside a loopback-only namespace, as root there (for tc), with /usr/bin/python3 (libtorrent),
nice'd:
  nice loopback-only /usr/bin/python3 bench/swarm_bench.py --velix build/stage/bin/velix \\
      --peers /tmp/velix-peers
where /tmp/velix-peers holds the other clients from the npm registry:
  npm install --prefix /tmp/velix-peers webtorrent-cli@4.1.0 peerflix@0.39.0
"""

import argparse
import http.server
import json
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

import libtorrent as lt

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from scale_bench import Velix, free_port, require_loopback_only, write_settings  # noqa: E402

SEEDERS = ["127.0.0.2", "127.0.0.3", "127.0.0.4"]
PLAY_SECONDS = 60.0
SEEK_FRACTION = 0.5


# The swarm ---------------------------------------------------------------------------------------

def shape_links(rate_bytes):
    """An htb class per seeder address on lo: the kernel paces each seeder from its first byte."""
    kbit = int(rate_bytes * 8 / 1000)
    commands = [
        "ip link set lo mtu 1500",
        "tc qdisc replace dev lo root handle 1: htb default 99 r2q 1000",
        "tc class replace dev lo parent 1: classid 1:99 htb rate 10gbit",
    ]
    for k, address in enumerate(SEEDERS):
        cls = "1:%d" % (10 + k)
        commands += [
            "tc class replace dev lo parent 1: classid %s htb rate %dkbit ceil %dkbit burst 15k cburst 15k"
            % (cls, kbit, kbit),
            "tc qdisc replace dev lo parent %s handle %d: pfifo limit 30" % (cls, 100 + k),
            "tc filter add dev lo protocol ip parent 1: prio 1 u32 match ip src %s/32 flowid %s" % (address, cls),
        ]
    for command in commands:
        subprocess.run(command.split(), check=True)


def make_film(path, seconds, kbit):
    if os.path.exists(path):
        return
    os.makedirs(os.path.dirname(path), exist_ok=True)
    video = kbit - 128
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y",
                    "-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25:duration=%d" % seconds,
                    "-f", "lavfi", "-i", "sine=frequency=440:duration=%d" % seconds,
                    "-vf", "noise=alls=12:allf=t", "-c:v", "libx264", "-preset", "ultrafast",
                    "-b:v", "%dk" % video, "-maxrate", "%dk" % video, "-bufsize", "%dk" % (2 * video),
                    "-g", "50", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "128k", path + ".part.mkv"],
                   check=True)
    os.rename(path + ".part.mkv", path)


def make_torrent(film, tracker_url, piece):
    fs = lt.file_storage()
    lt.add_files(fs, film)
    t = lt.create_torrent(fs, piece, flags=lt.create_torrent.v1_only)
    t.add_tracker(tracker_url)
    lt.set_piece_hashes(t, os.path.dirname(film))
    path = film + ".torrent"
    with open(path, "wb") as f:
        f.write(lt.bencode(t.generate()))
    return path


class Tracker:
    """An HTTP tracker on 127.0.0.1 whose every answer is the three seeders."""

    def __init__(self, seeder_ports):
        peers = b"".join(socket.inet_aton(a) + p.to_bytes(2, "big") for a, p in zip(SEEDERS, seeder_ports))
        answer = lt.bencode({"interval": 1800, "min interval": 1800, "peers": peers})

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Length", str(len(answer)))
                self.end_headers()
                self.wfile.write(answer)

            def log_message(self, *args):
                pass

        class Server(http.server.ThreadingHTTPServer):
            def handle_error(self, request, client_address):
                pass  # a client that hangs up mid-answer, as libtorrent does at its exit

        self.server = Server(("127.0.0.1", 0), Handler)
        self.url = "http://127.0.0.1:%d/announce" % self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, daemon=True).start()


class Seeders:
    """Three libtorrent seeders, one per shaped address, at the ports the tracker names, with no
    limits of their own. They never announce: every client finds them through the tracker."""

    def __init__(self, torrent, content_dir, ports):
        self.sessions = []
        self.handles = []
        info = lt.torrent_info(torrent)
        for address, port in zip(SEEDERS, ports):
            s = lt.session({"listen_interfaces": "%s:%d" % (address, port), "enable_dht": False,
                            "enable_lsd": False, "enable_upnp": False, "enable_natpmp": False,
                            "alert_mask": 0, "outgoing_interfaces": address,
                            "allow_multiple_connections_per_ip": True})
            params = lt.add_torrent_params()
            params.ti = info
            params.save_path = content_dir
            params.flags = lt.torrent_flags.seed_mode
            self.handles.append(s.add_torrent(params))
            self.sessions.append(s)

    def uploaded(self):
        """Payload the three have sent since they started."""
        return sum(h.status().total_payload_upload for h in self.handles)

    def peers(self):
        """Every connected client as each seeder sees it: (progress, uploaded payload)."""
        return [(p.progress, p.total_upload) for h in self.handles for p in h.get_peer_info()]


# The player --------------------------------------------------------------------------------------

class Mpv:
    """The mpv program, idle, driven over its IPC socket; events are kept with their times."""

    def __init__(self, work):
        self.socket_path = os.path.join(work, "mpv.sock")
        if os.path.exists(self.socket_path):
            os.remove(self.socket_path)
        self.process = subprocess.Popen(
            ["mpv", "--no-config", "--idle=yes", "--vo=null", "--ao=null", "--no-terminal",
             "--input-ipc-server=" + self.socket_path], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while True:
            try:
                self.sock = socket.socket(socket.AF_UNIX)
                self.sock.connect(self.socket_path)
                break
            except OSError:
                self.sock.close()
                if time.monotonic() > deadline:
                    raise RuntimeError("mpv did not start")
                time.sleep(0.01)
        self.events = []
        self.lock = threading.Lock()
        threading.Thread(target=self._read, daemon=True).start()
        self.command("observe_property", 1, "paused-for-cache")

    def _read(self):
        buffer = b""
        while True:
            try:
                chunk = self.sock.recv(65536)
            except OSError:
                return
            if not chunk:
                return
            buffer += chunk
            while b"\n" in buffer:
                line, buffer = buffer.split(b"\n", 1)
                now = time.monotonic()
                try:
                    message = json.loads(line)
                except ValueError:
                    continue
                if "event" in message:
                    with self.lock:
                        self.events.append((now, message))

    def command(self, *words):
        self.sock.sendall((json.dumps({"command": list(words)}) + "\n").encode())

    def times(self, event, after=0.0):
        with self.lock:
            return [t for t, m in self.events if m.get("event") == event and t >= after]

    def stalls(self, start, end):
        """(count, seconds) of paused-for-cache between two times."""
        with self.lock:
            changes = [(t, m.get("data")) for t, m in self.events
                       if m.get("event") == "property-change" and m.get("name") == "paused-for-cache"]
        return count_stalls(changes, start, end)

    def close(self):
        try:
            self.command("quit")
        except OSError:
            pass
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def count_stalls(changes, start, end):
    count, total, since = 0, 0.0, None
    for t, on in changes:
        if t < start or t > end:
            continue
        if on and since is None:
            since = t
            count += 1
        elif not on and since is not None:
            total += t - since
            since = None
    if since is not None:
        total += end - since
    return count, total


def wait_until(check, limit, step=0.005):
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        value = check()
        if value:
            return value
        time.sleep(step)
    return None


# One run of one client ---------------------------------------------------------------------------

class Run:
    def __init__(self):
        self.first_frame = None
        self.seek = None
        self.stalls = None
        self.stall_seconds = None
        self.download_share = None
        self.download_sent = None  # share of the film the seeders sent
        self.timeline = {}


def watch_download(seeders, t0, film_size, capacity, run, limit):
    """The download's rate: what the seeders sent between the first byte and the last, until the
    client has it all (a seeder sees it complete, or, since seeders drop a peer that has become a
    seed, they have sent the whole film between them) or the time is up."""
    base = seeders.uploaded()
    first_byte = last_byte = None
    last_sent = 0
    deadline = t0 + limit
    while time.monotonic() < deadline:
        sent = seeders.uploaded() - base
        now = time.monotonic()
        if sent > last_sent:
            first_byte = first_byte or now
            last_byte, last_sent = now, sent
        if sent >= film_size or any(p >= 1.0 for p, _ in seeders.peers()):
            break
        time.sleep(0.05)
    if first_byte and last_byte and last_byte > first_byte:
        run.download_share = last_sent / (last_byte - first_byte) / capacity
    run.download_sent = last_sent / film_size


def play_and_measure(run, t0, first_frame_at, seek_to, restarts_after, stalls_between, seeders, film_size,
                     capacity):
    """The common part once the first frame is there: the seek, the minute of play, the download."""
    downloader = threading.Thread(target=watch_download, args=(seeders, t0, film_size, capacity, run, 120.0))
    downloader.start()
    run.first_frame = first_frame_at - t0
    time.sleep(0.5)
    began = time.monotonic()
    seek_to()
    done = wait_until(lambda: restarts_after(began), 60.0)
    run.seek = (done - began) if done else None
    end = first_frame_at + PLAY_SECONDS
    time.sleep(max(0.0, end - time.monotonic()))
    # The seek's own wait is not a stall; everything else after the first frame is.
    before = stalls_between(first_frame_at, began)
    after = stalls_between(done or end, end)
    run.stalls = before[0] + after[0]
    run.stall_seconds = before[1] + after[1]
    downloader.join()


def run_velix(args, mode, work, torrent, seeders, film_size, duration, capacity):
    run = Run()
    home = os.path.join(work, "velix-home")
    shutil.rmtree(home, ignore_errors=True)
    down = os.path.join(work, "velix-down")
    shutil.rmtree(down, ignore_errors=True)
    write_settings(home, down, free_port())
    log_path = os.path.join(work, "velix-%s.log" % mode)
    if os.path.exists(log_path):
        os.remove(log_path)
    velix = Velix(args.velix, home, free_port(), log_path)
    velix.extra_env = {"VELIX_READER_LOG": "1"}
    velix.start()
    mpv = Mpv(work) if mode == "stream" else None
    try:
        velix.wait_for_state(120)
        t0 = time.monotonic()
        status, body, _ = velix.get("/add?path=" + urllib.parse.quote(torrent))
        torrent_id = json.loads(body).get("id")
        if not torrent_id:
            raise RuntimeError("add failed: %s" % body)
        if mode == "play":
            velix.get("/play?id=%s&file=0" % torrent_id)
            frame = wait_until(lambda: trace_times(log_path, "first_frame"), 60.0, 0.01)
            if not frame:
                raise RuntimeError("no first frame, see %s" % log_path)
            play_and_measure(
                run, t0, frame[0],
                lambda: velix.get("/seek?t=%.3f" % (duration * SEEK_FRACTION)),
                lambda after: next(iter(t for t in trace_times(log_path, "playing") if t >= after), None),
                lambda a, b: count_stalls(trace_changes(log_path), a, b),
                seeders, film_size, capacity)
        else:
            mpv.command("loadfile", "http://127.0.0.1:%d/stream/%s/0/film.mkv" % (velix.port, torrent_id))
            frame = wait_until(lambda: mpv.times("playback-restart"), 60.0)
            if not frame:
                raise RuntimeError("mpv showed no frame")
            play_and_measure(
                run, t0, frame[0],
                lambda: mpv.command("seek", "%.3f" % (duration * SEEK_FRACTION), "absolute"),
                lambda after: next(iter(mpv.times("playback-restart", after)), None),
                mpv.stalls, seeders, film_size, capacity)
        run.timeline = timeline(log_path, t0)
    finally:
        if mpv:
            mpv.close()
        velix.quit(30)
    return run


def trace_lines(path):
    try:
        with open(path, errors="replace") as f:
            return [line.split() for line in f if line.startswith("trace ")]
    except OSError:
        return []


def at_ms(words):
    for w in words:
        if w.startswith("at_ms="):
            return float(w[6:]) / 1000.0
    return None


def trace_times(path, what):
    return [at_ms(w) for w in trace_lines(path) if len(w) > 1 and w[1] == what]


def trace_changes(path):
    return [(at_ms(w), w[1] == "stall") for w in trace_lines(path) if len(w) > 1 and w[1] in ("stall", "stall_end")]


def timeline(path, t0):
    """The first time of each step, in seconds after the add."""
    steps = {}
    for w in trace_lines(path):
        what = w[1]
        if what in ("piece_verified",) and what in steps:
            continue
        t = at_ms(w)
        if t is not None and what not in steps and t >= t0:
            steps[what] = t - t0
    return steps


def run_peer(args, name, work, torrent, seeders, film_size, duration, capacity):
    """A client from the npm registry, asked to play in "mpv": a stand-in that hands its address
    to the idle mpv, so every client is played by the same warm player."""
    run = Run()
    down = os.path.join(work, name + "-down")
    shutil.rmtree(down, ignore_errors=True)
    os.makedirs(down)
    bindir = os.path.join(work, "bin")
    os.makedirs(bindir, exist_ok=True)
    fifo = os.path.join(work, "player.fifo")
    if os.path.exists(fifo):
        os.remove(fifo)
    os.mkfifo(fifo)
    with open(os.path.join(bindir, "mpv"), "w") as f:
        f.write("#!/bin/sh\nfor a in \"$@\"; do case \"$a\" in http*) printf '%%s\\n' \"$a\" > %s;; esac; done\n"
                "exec sleep 100000\n" % fifo)
    os.chmod(os.path.join(bindir, "mpv"), 0o755)
    mpv = Mpv(work)
    port = free_port()
    binary = os.path.join(args.peers, "node_modules", ".bin", name)
    if name == "webtorrent":
        command = [binary, "download", torrent, "--mpv", "-p", str(port), "-o", down, "--not-on-top", "-q"]
    else:
        command = [binary, torrent, "--mpv", "-p", str(port), "-f", down, "--not-on-top", "-q"]
    env = dict(os.environ)
    env["PATH"] = bindir + ":" + env["PATH"]
    urls = []

    def take_url():
        with open(fifo) as f:
            urls.append((time.monotonic(), f.readline().strip()))

    reader = threading.Thread(target=take_url, daemon=True)
    reader.start()
    process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=open(os.path.join(work, name + ".log"), "wb"), start_new_session=True)

    def serving():
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return time.monotonic()
        except OSError:
            return None

    try:
        # The clock starts when the client serves: its runtime's start is not the swarm's doing.
        t0 = wait_until(serving, 60.0, 0.005)
        if not t0:
            raise RuntimeError("%s never served" % name)
        if not wait_until(lambda: urls, 60.0):
            raise RuntimeError("%s never asked for a player" % name)
        url = urls[0][1].replace("localhost", "127.0.0.1")
        mpv.command("loadfile", url)
        frame = wait_until(lambda: mpv.times("playback-restart"), 60.0)
        if not frame:
            raise RuntimeError("mpv showed no frame for %s" % name)
        play_and_measure(
            run, t0, frame[0],
            lambda: mpv.command("seek", "%.3f" % (duration * SEEK_FRACTION), "absolute"),
            lambda after: next(iter(mpv.times("playback-restart", after)), None),
            mpv.stalls, seeders, film_size, capacity)
    finally:
        mpv.close()
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
    return run


# Bounds ------------------------------------------------------------------------------------------

def packets(film, start, count):
    out = subprocess.run(["ffprobe", "-v", "error", "-read_intervals", "%s%%+#%d" % (start, count),
                          "-show_entries", "packet=stream_index,pts_time,pos,size,flags", "-of", "json", film],
                         capture_output=True, check=True).stdout
    return json.loads(out)["packets"]


def bytes_to_play(film, piece, film_size, seek_seconds=None):
    """The pieces mpv must have to show a frame: from the start (or the key frame at the seek) to the
    end of the first video and audio packets, plus the tail with the index for a seek."""
    if seek_seconds is None:
        first = packets(film, "0", 60)
        end = 0
        for stream in (0, 1):
            ps = [int(p["pos"]) + int(p["size"]) for p in first if p["stream_index"] == stream and p.get("pos")]
            if ps:
                end = max(end, ps[0])
        return (end // piece + 1) * piece
    around = packets(film, "%.3f" % max(0.0, seek_seconds - 2.5), 400)
    keys = [p for p in around if p["stream_index"] == 0 and "K" in p.get("flags", "")
            and float(p["pts_time"]) <= seek_seconds + 0.05]
    key = keys[-1] if keys else around[0]
    begin = int(key["pos"])
    end = begin + int(key["size"])
    pieces = set(range(begin // piece, end // piece + 1))
    pieces.add((film_size - 1) // piece)
    return len(pieces) * piece


def mpv_own_times(film, work, runs=3):
    """mpv's own time to a first frame and to a seek, on the film read from disk."""
    frames, seeks = [], []
    for _ in range(runs):
        mpv = Mpv(work)
        try:
            began = time.monotonic()
            mpv.command("loadfile", film)
            frame = wait_until(lambda: mpv.times("playback-restart"), 30.0)
            frames.append(frame[0] - began)
            time.sleep(0.3)
            began = time.monotonic()
            mpv.command("seek", "90", "absolute")
            done = wait_until(lambda: mpv.times("playback-restart", began), 30.0)
            seeks.append(done[0] - began)
        finally:
            mpv.close()
    return statistics.median(frames), statistics.median(seeks)


# Report ------------------------------------------------------------------------------------------

def med(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def worst(values, larger_is_worse=True):
    values = [v for v in values if v is not None]
    if not values:
        return None
    return max(values) if larger_is_worse else min(values)


def text(v, unit):
    if v is None:
        return "-"
    return ("%.2f %s" % (v, unit)).strip()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--velix", required=True)
    parser.add_argument("--peers", default="/tmp/velix-peers", help="npm prefix holding the other clients")
    parser.add_argument("--clients", default="play,stream,webtorrent,peerflix")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--work", default="/tmp/velix-swarm-bench")
    parser.add_argument("--seconds", type=int, default=180)
    parser.add_argument("--kbit", type=int, default=3710, help="the film's bit rate")
    parser.add_argument("--rate", type=float, default=1.5e6, help="each seeder's upload, bytes a second")
    parser.add_argument("--piece-kib", type=int, default=1024)
    args = parser.parse_args()
    require_loopback_only()
    os.makedirs(args.work, exist_ok=True)

    film = os.path.join(args.work, "seed", "film.mkv")
    make_film(film, args.seconds, args.kbit)
    film_size = os.path.getsize(film)
    piece = args.piece_kib * 1024
    duration = float(args.seconds)
    capacity = args.rate * len(SEEDERS)

    mpv_frame, mpv_seek = mpv_own_times(film, args.work)
    shape_links(args.rate)
    # The tracker names the seeders' ports, and the torrent names the tracker.
    ports = [free_port() for _ in SEEDERS]
    tracker = Tracker(ports)
    torrent = make_torrent(film, tracker.url, piece)
    seeders = Seeders(torrent, os.path.dirname(film), ports)

    first_bound = bytes_to_play(film, piece, film_size) / capacity + mpv_frame
    seek_bound = bytes_to_play(film, piece, film_size, duration * SEEK_FRACTION) / capacity + mpv_seek
    print("film %.1f MB (%.2f Mbit/s), %d pieces of %d KiB; swarm %d x %.2f MB/s shaped by the kernel"
          % (film_size / 1e6, film_size * 8 / duration / 1e6, (film_size + piece - 1) // piece, piece // 1024,
             len(SEEDERS), args.rate / 1e6))
    print("bounds: first frame %.2f s (mpv's own %.2f s), seek %.2f s (mpv's own %.2f s), no stall, 100 %% download"
          % (first_bound, mpv_frame, seek_bound, mpv_seek))
    print("machine load at start: %s" % open("/proc/loadavg").read().strip(), flush=True)

    results = {}
    clients = [c for c in args.clients.split(",") if c]
    for r in range(args.runs):
        for client in clients:
            try:
                if client in ("play", "stream"):
                    run = run_velix(args, client, args.work, torrent, seeders, film_size, duration, capacity)
                else:
                    run = run_peer(args, client, args.work, torrent, seeders, film_size, duration, capacity)
            except Exception as e:  # a failed run is reported, the others go on
                print("  %s run %d failed: %s" % (client, r + 1, e), flush=True)
                run = Run()
            results.setdefault(client, []).append(run)
            print("  %-10s run %d: first frame %s, seek %s, stalls %s (%s), download %s%s" % (
                client, r + 1, text(run.first_frame, "s"), text(run.seek, "s"), run.stalls,
                text(run.stall_seconds, "s"),
                text(run.download_share and run.download_share * 100, "%")
                + (" (%.0f %% of the film)" % (run.download_sent * 100) if run.download_sent is not None else ""),
                ("; timeline " + ", ".join("%s %.3f" % kv for kv in sorted(run.timeline.items(), key=lambda kv: kv[1])))
                if run.timeline else ""), flush=True)

    report(results, first_bound, seek_bound)


def report(results, first_bound, seek_bound):
    peers = [c for c in results if c not in ("play", "stream")]

    def best(pick, smaller=True):
        values = [pick(results[c]) for c in peers]
        values = [v for v in values if v is not None]
        if not values:
            return None
        return min(values) if smaller else max(values)

    first_med = lambda runs: med([r.first_frame for r in runs])  # noqa: E731
    seek_med = lambda runs: med([r.seek for r in runs])  # noqa: E731
    share_med = lambda runs: med([r.download_share for r in runs])  # noqa: E731
    best_first, best_seek, best_share = best(first_med), best(seek_med), best(share_med, False)

    print("\n%-10s %-28s %8s %9s %9s  %s" % ("client", "figure", "value", "/bound", "/best peer", "target"))
    for client, runs in results.items():
        ours = client in ("play", "stream")
        ff = first_med(runs)
        ff_worst = worst([r.first_frame for r in runs])
        sk = seek_med(runs)
        stalls = sum(r.stalls or 0 for r in runs if r.stalls is not None)
        stalled_runs = sum(1 for r in runs if r.stalls)
        share = share_med(runs)
        target_first = min(0.40, 0.75 * best_first) if best_first else 0.40

        def row(name, value, unit, bound, best_value, verdict):
            print("%-10s %-28s %8s %9s %9s  %s" % (
                client, name, text(value, unit),
                "%.2f" % (value / bound) if value is not None and bound else "-",
                "%.2f" % (value / best_value) if value is not None and best_value else "-",
                verdict if ours else ""))

        def ok(condition):
            return "ok" if condition else "MISSED"

        row("first frame, median", ff, "s", first_bound, best_first,
            ok(ff is not None and ff <= target_first) + " (<= %.2f s)" % target_first)
        row("first frame, worst run", ff_worst, "s", first_bound, best_first,
            ok(ff_worst is not None and ff_worst <= 1.5 * target_first) + " (<= %.2f s)" % (1.5 * target_first))
        row("seek to 50 %, median", sk, "s", seek_bound, best_seek,
            ok(sk is not None and best_seek is not None and sk <= best_seek) + " (<= best peer)")
        row("stalls (runs with any)", float(stalls), "", None, None,
            ok(stalls == 0 and all(r.stalls is not None for r in runs)) + " (none; %d of %d runs)"
            % (stalled_runs, len(runs)))
        row("download while playing", share * 100 if share else None, "%", 100.0,
            best_share * 100 if best_share else None,
            ok(share is not None and share >= 0.96 and (best_share is None or share >= best_share))
            + " (>= 96 % and >= best peer)")
    print("(noisy: a shared 2-core machine; load now %s)" % open("/proc/loadavg").read().strip())


if __name__ == "__main__":
    main()
