#!/usr/bin/env python3
"""Writes a made-up but plausible day or night of a phone on mobile data as a noxreplay
trace (tools/noxreplay_trace.h), the same trace for the same seed.

    scripts/gentrace.py night|day SEED [--hours H] > TRACE

Where the rates come from:
- How people use the screen. Hintze, Hintze, Findling, Mayrhofer, "A Large-Scale,
  Long-Term Analysis of Mobile Device Usage Characteristics", IMWUT 2017: about 60
  interactions a day on smartphones (so about 3.75 an hour over 16 waking hours), the
  median user here. Falaki, Mahajan, Kandula, Lymberopoulos, Govindan, Estrin,
  "Diversity in Smartphone Usage", MobiSys 2010: the mean number of interactions a day
  ranges from 10 to 200 across users and the mean interaction length from 10 to 250 s;
  each day draws its user from those ranges (log-uniform, interactions 20 to 150 a day,
  mean length 20 to 120 s, sessions exponential around it).
- How much of the radio's energy goes to screen-off traffic. Huang, Qian, Mao, Sen,
  Spatscheck, "Screen-Off Traffic Characterization and Optimization in 3G/4G Networks",
  IMC 2012: 58.5 % over five months of 20 users. The screen-off sources below (push
  heartbeats and messages, background syncs, unsolicited downlink) are set so that a
  mixed day without a policy spends about that share with the screen off under the
  simulator's radio model (modem/sim/radio.conf, from Huang et al., MobiSys 2012); each
  trace's header states the share it got.
- What the screen-off sources are. The push channel's keepalive every 28 minutes, as the
  shipped night trace has it; push messages (2 to 6 an hour by day, 1 to 3 at night),
  each acknowledged and followed by its app's fetch; three to five apps syncing every 30
  to 90 minutes with jitter; unsolicited downlink (servers closing idle connections, QUIC
  and chat keepalives) every 4 minutes on average. These intervals are this generator's
  assumptions, of the order the shipped traces use, calibrated by the share above.
- What the screen-on traffic is: an app's opening exchange, then one exchange after each
  think time (log-normal, median 6 s: some within the network's inactivity timer, some
  beyond it). Some days add a podcast streamed with the screen off (a chunk every 20 s)
  or an hour of tethering (a laptop's exchanges about every 15 s), as the shipped
  commute and evening traces do.
"""

import argparse
import math
import random
import sys

IFACE = "mdlnk0"
UNSOLICITED = [
    "--src-port 443",
    "--family v6 --src-port 443",
    "--proto udp --src-port 443",
    "--src-port 5222",
]


class Trace:
    def __init__(self, rng):
        self.rng = rng
        self.events = []  # (ms, order, text)
        self.screen = []  # (ms, on)

    def add(self, ms, text):
        self.events.append((int(ms), len(self.events), text))

    def packet(self, ms, direction, options):
        self.add(ms, "traffic %s %s %s" % (IFACE, direction, options))

    def exchange(self, ms, port=443, up=None, down=None):
        """An uplink request and its answer 80 ms later; returns when it ends."""
        r = self.rng
        up = up or r.randint(1, 6)
        down = down or r.randint(5, 80)
        self.packet(ms, "up", "--dst-port %d --count %d" % (port, up))
        self.packet(ms + 80, "down", "--src-port %d --count %d" % (port, down))
        return ms + 80

    def dns(self, ms):
        self.packet(ms, "up", "--proto udp --dst-port 53")
        self.packet(ms + 40, "down", "--proto udp --src-port 53")
        return ms + 110

    def fetch(self, ms, exchanges):
        t = self.dns(ms)
        for _ in range(exchanges):
            t = self.exchange(t, up=self.rng.randint(1, 4), down=self.rng.randint(4, 30))
            t += self.rng.uniform(300, 2500)
        return t

    def set_screen(self, ms, on):
        self.screen.append((int(ms), on))
        self.add(ms, "screen " + ("on" if on else "off"))


def poisson_times(rng, start, end, mean_gap):
    t = start + rng.expovariate(1.0 / mean_gap)
    while t < end:
        yield t
        t += rng.expovariate(1.0 / mean_gap)


def screen_off_sources(tr, start, end, day):
    """What the phone hears whether or not anyone looks at it."""
    r = tr.rng
    hb = start + r.uniform(0, 28 * 60e3)
    while hb < end:  # the push channel's keepalive and its answer
        tr.packet(hb, "up", "--dst-port 5228")
        tr.packet(hb + r.uniform(120, 400), "down", "--src-port 5228")
        hb += 28 * 60e3
    per_hour = r.uniform(2, 6) if day else r.uniform(1, 3)
    for t in poisson_times(r, start, end, 3600e3 / per_hour):  # push messages
        tr.packet(t, "down", "--src-port 5228 --count 2")
        tr.packet(t + 120, "up", "--dst-port 5228")
        tr.fetch(t + 400, r.randint(1, 3))
    for _ in range(r.randint(3, 5)):  # apps syncing in the background
        period = r.uniform(30, 90) * 60e3
        t = start + r.uniform(0, period)
        while t < end:
            tr.fetch(t, r.randint(1, 4))
            t += period * r.uniform(0.8, 1.2)
    for t in poisson_times(r, start, end, 4 * 60e3):  # unsolicited downlink
        tr.packet(t, "down", r.choice(UNSOLICITED))


def session(tr, start, length):
    """The screen on for `length` ms of browsing."""
    r = tr.rng
    tr.set_screen(start, True)
    t = tr.fetch(start + r.uniform(500, 2000), 1)
    t = tr.exchange(t + r.uniform(200, 800), up=r.randint(4, 8), down=r.randint(40, 200))
    end = start + length
    while True:
        t += r.lognormvariate(math.log(6000), 0.9)
        if t >= end - 500:
            break
        t = tr.exchange(t)
    tr.set_screen(end, False)
    return end


def day(tr, hours):
    r = tr.rng
    end = hours * 3600e3
    per_day = math.exp(r.uniform(math.log(20), math.log(150)))
    mean_len = math.exp(r.uniform(math.log(20), math.log(120))) * 1e3
    gap = 16 * 3600e3 / per_day
    busy = []  # (start, end) of screen-on and tethering stretches
    tr.set_screen(0, False)
    t = r.uniform(30e3, 120e3)
    while True:
        length = min(max(r.expovariate(1.0 / mean_len), 8e3), 900e3)
        if t + length > end - 60e3:
            break
        busy.append((t, session(tr, t, length)))
        t = busy[-1][1] + max(r.expovariate(1.0 / gap), 30e3)
    if r.random() < 0.4:  # tethering, with the screen off
        start = r.uniform(0.2, 0.6) * end
        stop = start + r.uniform(20, 60) * 60e3
        if all(b[1] < start - 60e3 or b[0] > stop + 60e3 for b in busy):
            tr.add(start, "tethering on")
            t = start + 5e3
            while t < stop - 5e3:
                t = tr.exchange(t, up=r.randint(2, 8), down=r.randint(20, 200))
                t += r.lognormvariate(math.log(15e3), 0.7)
            tr.add(stop, "tethering off")
    if r.random() < 0.3:  # a podcast with the screen off
        start = r.uniform(0.1, 0.8) * end
        stop = min(start + r.uniform(10, 30) * 60e3, end - 60e3)
        if all(b[1] < start or b[0] > stop for b in busy):
            t = start
            while t < stop:
                t = tr.exchange(t, up=1, down=r.randint(60, 120)) + 20e3
    screen_off_sources(tr, 0, end, True)
    return end


def night(tr, hours):
    end = hours * 3600e3
    tr.fetch(0, 1)
    tr.set_screen(10e3, False)
    screen_off_sources(tr, 60e3, end - 30e3, False)
    return end


def no_policy_energy(times, screen, end):
    """Joules without a policy and their share with the screen off (radio.conf's model)."""
    inactivity, promotion = 10000, 260
    mw = {"idle": 20, "promo": 1210, "conn": 1060}
    spans = []  # (start, end, power) while connected
    conn_until = -1
    for t in times:
        if t > conn_until:
            spans.append([t, t + promotion, mw["promo"]])
            spans.append([t + promotion, t + promotion + inactivity, mw["conn"]])
        else:
            spans[-1][1] = max(t, spans[-2][1]) + inactivity
        conn_until = spans[-1][1]
    total = off = 0.0
    for s, e, p in spans:
        e = min(e, end)
        for a, b, on in screen_stretches(screen, end):
            lo, hi = max(s, a), min(e, b)
            if hi > lo:
                j = (hi - lo) * (p - mw["idle"]) / 1e6
                total += j
                off += 0 if on else j
    total += end * mw["idle"] / 1e6
    return total, off / total if total else 0


def screen_stretches(screen, end):
    on, start = True, 0
    for t, state in screen + [(end, None)]:
        yield start, t, on
        on, start = state, t


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("kind", choices=["night", "day"])
    ap.add_argument("seed", type=int)
    ap.add_argument("--hours", type=float)
    a = ap.parse_args()
    tr = Trace(random.Random("%s-%d" % (a.kind, a.seed)))
    hours = a.hours or (6 if a.kind == "night" else 5)
    end = (night if a.kind == "night" else day)(tr, hours)
    tr.events = [e for e in tr.events if e[0] <= end - 1000]
    tr.events.sort()
    times = [e[0] for e in tr.events if e[2].startswith("traffic")]
    joules, off = no_policy_energy(times, tr.screen, end)
    on_ms = sum(b - s for s, b, on in screen_stretches(tr.screen, end) if on)
    out = sys.stdout
    title = "A night, the screen off" if a.kind == "night" else "A mixed day"
    out.write("# %s: %g h on mobile data, generated by scripts/gentrace.py %s %d.\n"
              % (title, hours, a.kind, a.seed))
    out.write("# Screen on %d times, %.0f min in all; %d packet events. Without a policy the radio\n"
              "# model spends about %.0f J, %.0f %% of it with the screen off.\n\n"
              % (sum(1 for _, on in tr.screen if on), on_ms / 60e3, len(times), joules, 100 * off))
    out.write("0:00:00.000 data connect %s 10.20.30.40 2001:db8::40\n" % IFACE)
    for ms, _, text in tr.events:
        out.write("%d:%02d:%02d.%03d %s\n" % (ms // 3600000, ms // 60000 % 60, ms // 1000 % 60,
                                             ms % 1000, text))
    out.write("%d:%02d:%02d.000 end\n" % (end // 3600000, end // 60000 % 60, end // 1000 % 60))


if __name__ == "__main__":
    main()
