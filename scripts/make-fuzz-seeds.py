#!/usr/bin/env python3
"""Captures the fuzz targets' seed corpora from real messages: what noxctl sends on the
control socket, what the kernel sends on route netlink, and what the host modem library
and the simulator exchange while noxd runs the sample policies. Run it as root from the
top of the tree after `make build`; it rewrites fuzz/corpus/. The seeds are committed, so
only refreshing them needs this script (and python3)."""

import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(TOP, "build")
CORPUS = os.path.join(TOP, "fuzz", "corpus")
NOXCTL = os.path.join(BUILD, "tools", "noxctl")
NOXD = os.path.join(BUILD, "daemon", "noxd")
MODEMSIM = os.path.join(BUILD, "modem", "modemsim")


def save(target, name, data):
    os.makedirs(os.path.join(CORPUS, target), exist_ok=True)
    with open(os.path.join(CORPUS, target, name), "wb") as f:
        f.write(data)


def control_seeds(tmp):
    """Each noxctl command's bytes, as the daemon reads them."""
    path = os.path.join(tmp, "ctl.sock")
    commands = [
        ["init-done"], ["screen", "0"], ["tethering", "1"], ["wlan", "1", "1", "0"],
        ["wwan", "--nw-type", "13", "--apn", "0", "--iface", "lo", "--ipv4", "10.0.0.5",
         "--iface-v6", "lo", "--ipv6", "2001:db8::5", "--mccmnc", "310260"],
        ["wwan", "--status", "4", "--apn", "0", "--iface", "lo"],
        ["apps", "add", "10050:com.example.mail:1f:2a", "10051:com.example.maps"],
        ["apps", "remove", "10050:com.example.mail"], ["nsrm-bkg", "1", "2", "3"],
        ["nsrm-config", "5"], ["feature", "get", "2"], ["feature", "set", "2", "2"],
        ["raw", "2", "7"],
    ]
    for i, cmd in enumerate(commands):
        server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        if os.path.exists(path):
            os.unlink(path)
        server.bind(path)
        server.listen(1)
        received = bytearray()

        def serve():
            conn, _ = server.accept()
            conn.settimeout(0.5)
            try:
                while True:
                    chunk = conn.recv(65536)
                    if not chunk:
                        break
                    received.extend(chunk)
            except socket.timeout:
                pass
            conn.close()

        t = threading.Thread(target=serve)
        t.start()
        subprocess.run([NOXCTL, "--socket", path, "--timeout", "300"] + cmd,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        t.join()
        server.close()
        save("control_fuzz", "%02d-%s" % (i, cmd[0]), bytes(received))


class Proxy:
    """Relays frames between the modem library and the simulator, keeping each one."""

    def __init__(self, listen_path, sim_path):
        self.frames = []  # (direction, frame bytes)
        self.server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.server.bind(listen_path)
        self.server.listen(4)
        self.sim_path = sim_path
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            lib, _ = self.server.accept()
            sim = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            sim.connect(self.sim_path)
            threading.Thread(target=self.pump, args=(lib, sim, "up"), daemon=True).start()
            threading.Thread(target=self.pump, args=(sim, lib, "down"), daemon=True).start()

    def pump(self, src, dst, direction):
        buf = b""
        while True:
            try:
                chunk = src.recv(65536)
            except OSError:
                return
            if not chunk:
                dst.close()
                return
            buf += chunk
            while len(buf) >= 16:
                (length,) = struct.unpack("<I", buf[8:12])
                if len(buf) < 16 + length:
                    break
                self.frames.append((direction, buf[:16 + length]))
                buf = buf[16 + length:]
            dst.sendall(chunk)


def netns_seeds(tmp):
    """In a fresh network namespace: the kernel's netlink datagrams, and the modem wire
    while noxd runs the sample policies."""
    env = dict(os.environ)
    sim_sock = os.path.join(tmp, "sim.sock")
    proxy_sock = os.path.join(tmp, "proxy.sock")
    env["TOV_SIM_SOCKET"] = proxy_sock
    fdconf = os.path.join(tmp, "fd.conf")
    ctconf = os.path.join(tmp, "ct.conf")
    with open(fdconf, "w") as f:
        f.write("grace_period_ms:300\n")
    with open(ctconf, "w") as f:
        f.write("allow_v4:tcp/5228 udp/53\nallow_v6:tcp/5228\n")
    env["NOX_FDMGR_CONFIG"], env["NOX_CTMGR_CONFIG"] = fdconf, ctconf
    for conf in (fdconf, ctconf):
        save("config_fuzz", os.path.basename(conf), open(conf, "rb").read())

    nl = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
    nl.bind((0, 0x111))
    nl.settimeout(0.2)
    sim = subprocess.Popen([MODEMSIM, "--socket", sim_sock, "serve"], stderr=subprocess.DEVNULL)
    time.sleep(0.3)
    proxy = Proxy(proxy_sock, sim_sock)
    prop = os.path.join(tmp, "noxd.prop")
    with open(prop, "w") as f:
        f.write("persist.nox.feature=3\n")
    noxd_sock = os.path.join(tmp, "noxd.sock")
    noxd = subprocess.Popen([NOXD, "--socket", noxd_sock, "--props", prop, "--plugin-dir",
                             os.path.join(BUILD, "plugins"), "--log-level", "4"], env=env)
    time.sleep(0.5)

    def ip(*args):
        subprocess.run(["ip"] + list(args), check=True)

    def ctl(*args):
        subprocess.run([NOXCTL, "--socket", noxd_sock] + list(args), check=False)

    ip("link", "set", "lo", "up")
    ip("tuntap", "add", "dev", "mdlnk0", "mode", "tun")
    ip("link", "set", "dev", "mdlnk0", "addrgenmode", "none")
    ip("link", "set", "mdlnk0", "up")
    ip("addr", "add", "10.20.30.40/24", "dev", "mdlnk0")
    ip("-6", "addr", "add", "2001:db8::40/64", "dev", "mdlnk0", "nodad")
    ctl("screen", "0")
    time.sleep(0.8)
    subprocess.run([MODEMSIM, "--socket", sim_sock, "dormancy", "mdlnk0", "active"])
    subprocess.run([MODEMSIM, "--socket", sim_sock, "filter-mode", "mdlnk0", "v4", "off"])
    time.sleep(0.3)
    ctl("screen", "1")
    ip("addr", "del", "10.20.30.40/24", "dev", "mdlnk0")
    ip("link", "del", "mdlnk0")
    time.sleep(0.5)
    noxd.terminate()
    noxd.wait()
    sim.terminate()
    sim.wait()

    n = 0
    while True:
        try:
            save("netlink_fuzz", "kernel-%02d" % n, nl.recv(65536))
            n += 1
        except socket.timeout:
            break
    for i, (direction, frame) in enumerate(proxy.frames):
        if direction == "up":
            save("modem_wire_fuzz", "sim-%03d" % i, b"\x00" + frame)
            continue
        kind = struct.unpack("<H", frame[6:8])[0]
        body = frame[16:]
        if kind == 0x8000 | 11 and len(body) > 8:  # a DFS answer: rc, err, then the message
            save("modem_wire_fuzz", "lib-%03d" % i, b"\x01" + body[8:])
        elif kind == 33 and len(body) > 6:  # a DFS indication: client, id, then the message
            save("modem_wire_fuzz", "lib-%03d" % i, b"\x01" + body[6:])


def main():
    if os.geteuid() != 0:
        sys.exit("make_seeds.py: run it as root (it uses a network namespace)")
    if os.environ.get("NOX_SEEDS_IN_NETNS") != "1":
        shutil.rmtree(CORPUS, ignore_errors=True)
        with tempfile.TemporaryDirectory() as tmp:
            control_seeds(tmp)
        env = dict(os.environ, NOX_SEEDS_IN_NETNS="1")
        sys.exit(subprocess.run(["unshare", "--net", sys.executable] + sys.argv, env=env).returncode)
    with tempfile.TemporaryDirectory() as tmp:
        netns_seeds(tmp)


if __name__ == "__main__":
    main()
