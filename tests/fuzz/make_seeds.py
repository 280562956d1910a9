#!/usr/bin/python3
"""Writes the hand-made seed inputs of the fuzz targets into <target>/corpus/.

Seeds are small, valid or nearly valid examples of each input, so that the fuzzers start from
the shapes Velix really reads. Inputs the fuzzers found and that were fixed are kept beside
them as "regress-*" files and are not written here. The resume seeds need Debian's
python3-libtorrent (run with /usr/bin/python3); the script is run by hand, and its output is
committed.
"""
import json
import os
import sys

here = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(here, target, "corpus")
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode("utf-8")
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def http_request():
    heads = {
        "state": "GET /state HTTP/1.1\r\nHost: 127.0.0.1:8765\r\nUser-Agent: curl/7.88.1\r\nAccept: */*\r\n\r\n",
        "add-spaces": "GET /add?path=%2Ftmp%2Fa+b.torrent&paused=1 HTTP/1.1\r\nHost: localhost\r\n\r\n",
        "stream-range": "GET /stream/0123456789abcdef0123456789abcdef01234567/3 HTTP/1.1\r\n"
                        "Host: [::1]:8765\r\nRange: bytes=1048576-\r\nIcy-MetaData: 1\r\n\r\n",
        "browser": "POST /open HTTP/1.1\r\nHost: evil.example:8765\r\nOrigin: http://evil.example\r\n"
                   "Referer: http://127.0.0.1/x\r\nSec-Fetch-Site: cross-site\r\nContent-Length: 3\r\n\r\nabc",
        "cut-line": "GET /state HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://127.0.0.1.exa",
        "no-blank-line": "HEAD /snapshot HTTP/1.0\r\nhost: LOCALHOST.\r\n",
        "folded": "GET / HTTP/1.1\r\n Host : 127.1 \r\n:empty\r\nNoColon\r\n\r\n",
        "cyrillic": "GET /open?path=/home/u/%D0%A4%D0%B8%D0%BB%D1%8C%D0%BC.mkv HTTP/1.1\r\nX-Name: Фильм\r\n\r\n",
    }
    for name, head in heads.items():
        write("http_request", name, head)
    write("http_request", "latin1", b"GET /state HTTP/1.1\r\nX: \xe9t\xe9\r\n\r\n")


def range_():
    cases = {
        "from": "1000\nbytes=100-", "span": "1000\nbytes=0-99", "suffix": "1000\nbytes=-100",
        "past-end": "1000\nbytes=1000-", "list": "1000\nbytes=0-0,5-9", "blanks": "1000\n Bytes = 5 - 10 ",
        "huge": "9223372036854775807\nbytes=9223372036854775806-999999999999999999",
        "empty-file": "0\nbytes=-1", "no-header": "4096", "other-unit": "1000\nitems=0-5",
        "backwards": "1000\nbytes=9-5",
    }
    for name, text in cases.items():
        write("range", name, text)


def presence():
    cases = {"files": "v1\n0\n2\n17\n", "other-format": "v2\n1\n", "junk": "v1 -1 2147483648 7 x 3 +4 0x5",
             "crlf": "v1\r\n5\r\n", "header-only": "v1\n"}
    for name, text in cases.items():
        write("presence", name, text)


def resume():
    import libtorrent as lt
    import tempfile

    with tempfile.TemporaryDirectory() as work:
        root = os.path.join(work, "Сериал")
        os.makedirs(os.path.join(root, "extras"))
        sizes = {"e01.mkv": 70000, "e02.mkv": 50000, "extras/notes.txt": 10, "empty.srt": 0}
        for name, size in sizes.items():
            with open(os.path.join(root, name), "wb") as f:
                f.write(bytes((i * 7) % 251 for i in range(size)))
        fs = lt.file_storage()
        lt.add_files(fs, root)
        t = lt.create_torrent(fs, 16384)
        t.add_tracker("http://127.0.0.1:6969/announce")
        lt.set_piece_hashes(t, work)
        info = lt.torrent_info(t.generate())

        def params(**changes):
            p = lt.add_torrent_params()
            p.ti = info
            p.save_path = work
            for key, value in changes.items():
                setattr(p, key, value)
            return lt.write_resume_data_buf(p)

        half = [True] * (info.num_pieces() // 2) + [False] * (info.num_pieces() - info.num_pieces() // 2)
        write("resume", "pieces", b"\0" + params(have_pieces=half))
        write("resume", "presence-beside", b"v1\n0\n1\n9\n\0" + params(have_pieces=half))
        write("resume", "skipped-file", b"\0" + params(have_pieces=[True] * info.num_pieces(),
                                                       file_priorities=[4, 0, 1, 4]))
        write("resume", "renamed", b"\0" + params(renamed_files={0: "/tmp/elsewhere.mkv", 1: "inside.mkv"}))
        done = lt.add_torrent_params()
        done.ti = info
        done.save_path = work
        done.completed_time = 1700000000
        done.flags = lt.torrent_flags.paused
        write("resume", "paused-complete", b"\0" + lt.write_resume_data_buf(done))
        magnet = lt.parse_magnet_uri("magnet:?xt=urn:btih:0123456789abcdef0123456789abcdef01234567&dn=x")
        magnet.save_path = work
        write("resume", "magnet", b"\0" + lt.write_resume_data_buf(magnet))


def report_writer():
    cases = {"ascii": b"Big Buck Bunny (2008).mkv", "cyrillic": "Фильм «Ёлки» — 1080p.mkv".encode(),
             "bad-bytes": b"name \xff\xfe \xc3\x28 \xe2\x82 \xf0\x9f\x98 end", "controls": b"a\tb\nc\r\"d\\\x01\x1f\x7f",
             "overlong": b"\xc0\xaf\xe0\x80\xaf\xed\xa0\x80\xf4\x90\x80\x80", "number": b"\x00\x00\x00\x00\x00\x00\xf8\x7f"}
    for name, data in cases.items():
        write("report_writer", name, data)


def torrent(**changes):
    record = {
        "id": "0123456789abcdef0123456789abcdef01234567", "name": "Фильм", "state": "downloading",
        "paused": False, "autoManaged": True, "sequential": False, "private": False, "hasMetadata": True,
        "finished": False, "seeding": False, "moving": False, "progress": 0.25, "total": 1073741824,
        "totalDone": 268435456, "wanted": 1073741824, "wantedDone": 268435456, "downloadRate": 1048576,
        "uploadRate": 1024, "peers": 3, "seeds": 5, "swarmPeers": 40, "swarmSeeds": 120,
        "connectCandidates": 12, "uploaded": 1024, "downloaded": 268435456, "added": 1700000000,
        "completed": 0, "activeTime": 600, "seedingTime": 0, "downloadLimit": 0, "uploadLimit": 0,
        "connectionsLimit": 120, "uploadsLimit": 8, "queue": 0, "pieces": 256, "availability": 5.25,
        "savePath": "/home/u/Downloads/Velix", "tracker": "http://127.0.0.1:6969/announce", "error": "",
    }
    record.update(changes)
    return record


def status_report():
    session = {"download": 1048576, "upload": 1024, "dhtNodes": 0, "incoming": False, "externalIP": "",
               "portmap": "", "banned": 0, "listening": ["0.0.0.0:6881"], "listenErrors": []}
    write("status_report", "status", json.dumps({"session": session, "torrents": [
        torrent(), torrent(state="checking", progress=0.5, availability=1e300, id="f" * 40)]}, ensure_ascii=False))
    write("status_report", "status-empty", json.dumps({"session": session, "torrents": []}))
    write("status_report", "events", json.dumps([{"type": "finished", "id": "a" * 40, "name": "x", "message": ""}]))
    write("status_report", "files", json.dumps([{"i": 0, "path": "a/b.mkv", "size": 100, "done": 50, "prio": 4,
                                                 "pad": False, "first": 0, "last": 3}]))
    write("status_report", "trackers", json.dumps([{"url": "udp://t:1/announce", "tier": 99, "status": "working",
                                                    "message": "", "fails": 0, "seeds": -1, "peers": 3,
                                                    "downloaded": -1, "nextAnnounce": 1800, "extra": True,
                                                    "mirror": False}]))
    write("status_report", "peers", json.dumps([{"ip": "127.0.0.1", "port": 6881, "client": "x", "flags": "IE",
                                                 "source": "tracker", "progress": 1, "downloadRate": 1,
                                                 "uploadRate": 2, "downloaded": 3, "uploaded": 4}]))
    write("status_report", "preview", json.dumps({"id": "a" * 40, "name": "x", "size": 10, "pieceLength": 16384,
                                                  "pieces": 1, "private": True, "comment": "", "trackers": ["u"],
                                                  "files": [{"i": 0, "path": "x", "size": 10, "pad": False}]}))


def torrents_json():
    entry = {"positions": {"0": 125.5, "3": 0}, "ignoreSeedLimits": False,
             "audio": {"off": False, "language": "rus", "title": "Дубляж"},
             "subtitle": {"off": True, "externalName": "film.srt", "language": None}, "lastPlayedFile": 3}
    write("torrents_json", "two", json.dumps({"a" * 40: entry, "b" * 40: {"positions": {}, "ignoreSeedLimits": True}},
                                             ensure_ascii=False, indent=2))
    write("torrents_json", "keys", json.dumps({"c" * 40: {"positions": {"-1": 1, "+2": 2e300, "2147483647": 3},
                                                          "ignoreSeedLimits": False, "lastPlayedFile": -2147483648}}))


def settings_json():
    settings = {
        "downloadDirectory": "/home/u/Downloads/Velix", "addPaused": False, "activeDownloads": 5, "activeSeeds": 10,
        "ratioLimit": 0, "seedTimeLimitMinutes": 0, "downloadLimitKiB": 0, "uploadLimitKiB": 0,
        "altDownloadLimitKiB": 1024, "altUploadLimitKiB": 128, "altSpeedEnabled": False, "maxConnections": 0,
        "maxConnectionsPerTorrent": 120, "uploadSlotsPerTorrent": 8, "profile": "russia", "listenPort": 51413,
        "upnp": True, "ipv6": True, "utp": True, "dht": True, "lsd": True, "encryption": "require",
        "banLeechers": True, "trackerMirrors": True, "autoTrackers": True,
        "customTrackers": "udp://a:1/announce\n http://b/announce \n", "fetchedTrackers": ["udp://c:2/announce"],
        "trackersFetchedAt": 1700000000.5, "proxyKind": "socks5", "proxyHost": "127.0.0.1", "proxyPort": 1080,
        "proxyUser": "u", "proxyPassword": "p=w", "proxyTrackersOnly": False, "audioLanguages": "rus, ru, eng",
        "subtitleLanguages": "rus", "subtitleMode": "always", "rememberTracks": True, "resumePlayback": True,
        "autoplayNext": True, "hardwareDecoding": False,
    }
    write("settings_json", "full", json.dumps(settings, indent=2))
    write("settings_json", "old-file", json.dumps({"downloadDirectory": "/srv/t", "profile": "china",
                                                   "trackersFetchedAt": "2024-05-01T10:00:00.250Z",
                                                   "proxyKind": "http", "altSpeedEnabled": True}))
    write("settings_json", "wrong-types", json.dumps({"activeDownloads": 2.5, "listenPort": "6881", "dht": 1,
                                                      "fetchedTrackers": ["a", 2], "encryption": "Require"}))


def automation_arguments():
    calls = {
        "state": {"name": "get_state", "arguments": {}},
        "details": {"name": "get_torrent_details", "arguments": {"id": "a" * 40}},
        "add": {"name": "add_torrent", "arguments": {"source": "/home/u/../u/./a b.torrent", "save_path": "//srv//t/",
                                                    "paused": False, "files": [0, 2]}},
        "priority": {"name": "set_file_priority", "arguments": {"id": "a" * 40, "files": [1], "priority": 7}},
        "limits": {"name": "set_torrent_limits", "arguments": {"id": "a" * 40, "upload_kib": 100}},
        "remove": {"name": "remove_torrent", "arguments": {"id": "a" * 40, "delete_files": True, "confirm_name": "x"}},
        "settings": {"name": "update_settings", "arguments": {"download_directory": "/..", "download_kib": 0,
                                                             "subtitle_mode": "never"}},
        "player": {"name": "control_player", "arguments": {"action": "seek", "seconds": 12.5}},
        "unknown": {"name": "format_disk", "arguments": {"x": "\u0007"}},
        "own-schema": {"name": "x", "arguments": {"a": [1, 1]}, "inputSchema": {"type": "object", "properties": {
            "a": {"type": "array", "items": {"type": "integer", "minimum": 0}, "uniqueItems": True, "maxItems": 3}},
            "required": ["a"]}},
    }
    for name, call in calls.items():
        write("automation_arguments", name, json.dumps(call, ensure_ascii=False))


def mcp_line():
    lines = {
        "initialize": {"jsonrpc": "2.0", "id": 1, "method": "initialize",
                       "params": {"protocolVersion": "2025-06-18", "capabilities": {}}},
        "initialized": {"jsonrpc": "2.0", "method": "notifications/initialized"},
        "list": {"jsonrpc": "2.0", "id": "a", "method": "tools/list"},
        "call": {"jsonrpc": "2.0", "id": 7, "method": "tools/call",
                 "params": {"name": "get_state", "arguments": {"reply": {"ok": True, "result": {"torrents": []}}}}},
        "call-failed": {"jsonrpc": "2.0", "id": 8, "method": "tools/call",
                        "params": {"name": "play_file", "arguments": {"reply": {"ok": False, "error": "No such file"}}}},
        "call-unreachable": {"jsonrpc": "2.0", "id": 9, "method": "tools/call",
                             "params": {"name": "get_state", "arguments": {"unreachable": "Velix is not running."}}},
        "reply": {"jsonrpc": "2.0", "id": 3, "result": {}},
        "bad-id": {"jsonrpc": "2.0", "id": [1], "method": "ping"},
    }
    for name, line in lines.items():
        write("mcp_line", name, json.dumps(line))
    write("mcp_line", "not-json", "{\"jsonrpc\": \"2.0\", \"id\": 1, \"method\": \"ping\"")


for make in (http_request, range_, presence, report_writer, status_report, torrents_json, settings_json,
             automation_arguments, mcp_line):
    make()
if "--no-resume" not in sys.argv:
    resume()
