#!/usr/bin/env python3
"""Persistent-shell benchmarks, side by side in one run: a raw PTY (the
physical limit), a bare relay through a second terminal (the limit for any
tool that gives a session its own terminal), tovel-ptyd, dtach and tmux.
Throughput is also measured to a client whose standard input and output are
pipes, as when the app runs `attach` over an SSH channel without a terminal:
there the limit is the bare relay writing to the same pipe, a session
terminal read straight by a C loop ("raw-pipe"). Prints a markdown report.

Usage: bench/pty_bench.py [path/to/tovel-ptyd] [--rounds N] [--throughput]
--throughput runs only the throughput sections. Peers that are not
installed are left out.
"""
import os, pty, select, shutil, signal, statistics, subprocess, sys, tempfile, time, fcntl, termios, struct

BIN = os.path.abspath(next((a for a in sys.argv[1:] if not a.startswith('--')), 'build/tovel-ptyd'))
ROUNDS = int(sys.argv[sys.argv.index('--rounds') + 1]) if '--rounds' in sys.argv else 5
WORK = tempfile.mkdtemp(prefix='tvb.')
ENV = dict(os.environ, TOVEL_PTYD_DIR=WORK, SHELL='/bin/sh', TERM='xterm-256color', NO_COLOR='1')
MIB = 1048576
PRODUCER = "head -c %d /dev/zero | tr '\\0' a; echo; echo BENCH-END" % (32 * MIB)
started = []  # (kind, handle) to clean up
DELIVERY = {}  # tovel kind -> per run: (mid-stream replays, every byte delivered)
CPU = {}  # tovel kind -> per run: (keeper, attach client) CPU milliseconds per MiB


def spawn(argv, cols=80, rows=24):
    pid, fd = pty.fork()
    if pid == 0:
        os.execvpe(argv[0], argv, ENV)
    fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack('HHHH', rows, cols, 0, 0))
    return pid, fd


def wait_raw(fd, kind, timeout=10.0):
    """Waits until the attaching client has put the terminal in raw mode:
    typing earlier would be flushed with the cooked line."""
    if kind == 'raw':
        time.sleep(0.3)
        return
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if not termios.tcgetattr(fd)[3] & termios.ICANON:
            time.sleep(0.05)
            return
        time.sleep(0.01)


def read_until(fd, needle, timeout=60.0, keep=False, counts=None):
    """Reads until needle; `counts` (bytes -> number) tallies occurrences."""
    end = time.monotonic() + timeout
    tail, total, out = b'', 0, b''
    while time.monotonic() < end:
        r, _, _ = select.select([fd], [], [], 0.2)
        if not r:
            continue
        try:
            data = os.read(fd, 1 << 20)
        except OSError:
            return None
        if not data:
            return None
        total += len(data)
        if keep:
            out += data
        for key in counts or {}:
            counts[key] += (tail[-len(key) + 1:] + data).count(key) if len(key) > 1 else data.count(key)
        tail = (tail + data)[-256:]
        if needle in tail:
            return out if keep else total
    return None


def finish(pid, fd):
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    os.waitpid(pid, 0)
    os.close(fd)


def rss_kib(pid):
    with open('/proc/%d/status' % pid) as f:
        for line in f:
            if line.startswith('VmRSS:'):
                return int(line.split()[1])
    return 0


def cpu_ns(pid):
    """Time the process has spent on a CPU, user and kernel, in nanoseconds."""
    try:
        with open('/proc/%d/schedstat' % pid) as f:
            return int(f.read().split()[0])
    except OSError:
        return 0


def relay_binary():
    """bench/pty_relay.cpp: a terminal per session and nothing else, the
    bound for any tool that keeps one."""
    exe = os.path.join(WORK, 'pty_relay')
    if not os.path.exists(exe):
        root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        subprocess.run(['c++', '-O2', '-o', exe, os.path.join(root, 'bench/pty_relay.cpp'), '-lutil'], check=True)
    return exe


def tovel_session(cmd, cols=80, rows=24):
    out = subprocess.run([BIN, 'new', '--cmd', cmd, '--cols', str(cols), '--rows', str(rows)], env=ENV,
                         capture_output=True, text=True, check=True).stdout
    sid = out.strip()
    meta = dict(l.split('=', 1) for l in open(os.path.join(WORK, sid + '.meta')).read().split('\n') if '=' in l)
    started.append(('tovel', (sid, int(meta['keeper_pid']))))
    return sid, int(meta['keeper_pid'])


def client_for(kind, cmd, cols=80, rows=24):
    """Starts a session running cmd and returns the argv that attaches to it."""
    if kind == 'raw':
        return ['sh', '-c', cmd]
    if kind in ('relay', 'raw-pipe'):
        return [relay_binary(), cmd]
    if kind.startswith('tovel'):
        sid, _ = tovel_session(cmd, cols, rows)
        return [BIN, 'attach', sid]
    if kind == 'dtach':
        sock = os.path.join(WORK, 'd%d.sock' % len(started))
        subprocess.run(['dtach', '-n', sock, '-E', 'sh', '-c', cmd], env=ENV, check=True)
        started.append(('dtach', sock))
        return ['dtach', '-a', sock, '-E', '-r', 'none']
    if kind == 'tmux':
        name = 'b%d' % len(started)
        subprocess.run(['tmux', '-L', 'tvbench', 'new-session', '-d', '-s', name, '-x', '80', '-y', '24', 'sh', '-c', cmd + '; sleep 600'], env=ENV, check=True)
        started.append(('tmux', name))
        return ['tmux', '-L', 'tvbench', 'attach', '-t', name]


def throughput(kind, cols, rows):
    argv = client_for(kind, 'read go; ' + PRODUCER + '; read done', cols, rows)
    if kind.endswith('-pipe'):
        # The relay sizes its session terminal from these when its input
        # is not a terminal.
        env = dict(ENV, COLUMNS=str(cols), LINES=str(rows))
        proc = subprocess.Popen(argv, env=env, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        pid, fd, start = proc.pid, proc.stdout.fileno(), proc.stdin.fileno()
        time.sleep(0.3)
    else:
        proc = None
        pid, fd = spawn(argv, cols, rows)
        start = fd
        wait_raw(fd, kind)
    peak = 0
    counts = {b'a': 0, b'pty-replay-start': 0}
    tovel = kind.startswith('tovel')
    keeper = started[-1][1][1] if tovel else 0
    cpu0 = (cpu_ns(keeper), cpu_ns(pid))
    t0 = time.monotonic()
    os.write(start, b'\r')
    got = read_until(fd, b'BENCH-END', counts=counts)
    t = time.monotonic() - t0
    if tovel:
        # The session printed nothing before "go": any replay marker is a
        # reconnect in mid-stream, and then bytes went missing.
        DELIVERY.setdefault(kind, []).append((counts[b'pty-replay-start'], counts[b'a'] == 32 * MIB))
        CPU.setdefault(kind, []).append(((cpu_ns(keeper) - cpu0[0]) / 32e6, (cpu_ns(pid) - cpu0[1]) / 32e6))
        try:
            peak = rss_kib(pid)
        except OSError:
            pass
    if proc:
        proc.kill()
        proc.wait()
        proc.stdin.close()
        proc.stdout.close()
    else:
        finish(pid, fd)
    return (32 * MIB / t / MIB if got else float('nan')), peak


def echo_latency(kind, samples=400):
    argv = client_for(kind, 'cat')
    pid, fd = spawn(argv)
    wait_raw(fd, kind)
    read_until(fd, b'', timeout=0.2)
    times = []
    for i in range(samples):
        ch = bytes([97 + i % 26])
        t0 = time.perf_counter()
        os.write(fd, ch)
        while True:
            r, _, _ = select.select([fd], [], [], 2)
            if not r:
                break
            if ch in os.read(fd, 4096):
                break
        times.append((time.perf_counter() - t0) * 1e6)
        if i % 60 == 59:
            os.write(fd, b'\r')
            time.sleep(0.005)
            read_until(fd, b'', timeout=0.01)
    finish(pid, fd)
    times.sort()
    return times[len(times) // 2], times[int(len(times) * 0.99)]


def frame(kind, payload=b''):
    return struct.pack('>IB', len(payload) + 1, kind) + payload


def socket_until(sock, needle, timeout=120):
    """Reads raw frames until `needle` shows in the stream (a fast client)."""
    end = time.monotonic() + timeout
    tail = b''
    while time.monotonic() < end:
        data = sock.recv(1 << 20)
        if not data:
            return False
        tail = (tail + data)[-256:]
        if needle in tail:
            return True
    return False


def keeper_memory():
    """The keeper's own memory, read by a client that keeps up."""
    import socket
    sid, keeper = tovel_session('read a; head -c 2097152 /dev/zero | tr "\\0" b; echo RING-FULL; read b; head -c 104857600 /dev/zero | tr "\\0" c; echo HUNDRED; read c')
    time.sleep(0.3)
    idle = rss_kib(keeper)
    sock = socket.socket(socket.AF_UNIX)
    sock.connect(os.path.join(WORK, sid + '.sock'))
    sock.sendall(frame(8, b'\x01') + frame(1, struct.pack('>HH', 80, 24)))
    sock.sendall(frame(2, b'\r'))
    socket_until(sock, b'RING-FULL')
    time.sleep(0.2)
    full = rss_kib(keeper)
    sock.sendall(frame(2, b'\r'))
    socket_until(sock, b'HUNDRED')
    time.sleep(0.2)
    after = rss_kib(keeper)
    sock.close()
    return idle, full, after


def new_latency():
    tovel, dtach = [], []
    for i in range(20):
        t0 = time.perf_counter()
        tovel_session('sleep 300')
        tovel.append((time.perf_counter() - t0) * 1000)
        sock = os.path.join(WORK, 'n%d.sock' % i)
        t0 = time.perf_counter()
        subprocess.run(['dtach', '-n', sock, '-E', 'sleep', '300'], env=ENV, check=True)
        dtach.append((time.perf_counter() - t0) * 1000)
        started.append(('dtach', sock))
    return statistics.median(tovel), statistics.median(dtach)


def first_byte_ms(argv):
    """Milliseconds from starting argv in a fresh terminal to its first output."""
    t0 = time.monotonic()
    pid, fd = spawn(argv)
    ready, _, _ = select.select([fd], [], [], 5)
    first = (time.monotonic() - t0) * 1000 if ready else float('nan')
    finish(pid, fd)
    return first


def replay_and_reattach(samples=15):
    """Reattach first byte (medians of interleaved samples): tovel to a
    session holding a full 1 MiB ring and to one that printed a line, dtach
    to one that printed a line; then a full 1 MiB replay to its end marker
    against a raw PTY carrying 1 MiB."""
    full, _ = tovel_session('head -c 2097152 /dev/zero | tr "\\0" r; echo PRINTED; read x')
    small, _ = tovel_session('echo hello; read x')
    sock = os.path.join(WORK, 'r.sock')
    have_dtach = shutil.which('dtach') is not None
    if have_dtach:
        subprocess.run(['dtach', '-n', sock, '-E', 'sh', '-c', 'echo hello; read x'], env=ENV, check=True)
        started.append(('dtach', sock))
    time.sleep(1.0)
    firsts = {'full': [], 'small': [], 'dtach': []}
    for _ in range(samples):
        firsts['full'].append(first_byte_ms([BIN, 'attach', full]))
        firsts['small'].append(first_byte_ms([BIN, 'attach', small]))
        if have_dtach:
            firsts['dtach'].append(first_byte_ms(['dtach', '-a', sock, '-E', '-r', 'ctrl_l']))
    replays, raws = [], []
    for _ in range(7):
        t0 = time.monotonic()
        pid, fd = spawn([BIN, 'attach', full])
        read_until(fd, b'pty-replay-end', timeout=10)
        replays.append((time.monotonic() - t0) * 1000)
        finish(pid, fd)
        t0 = time.monotonic()
        pid, fd = spawn(['sh', '-c', 'head -c 1048576 /dev/zero | tr "\\0" r; echo RAW-END'])
        read_until(fd, b'RAW-END')
        raws.append((time.monotonic() - t0) * 1000)
        finish(pid, fd)
    median = lambda xs: statistics.median(xs) if xs else float('nan')
    return ({k: median(v) for k, v in firsts.items()}, median(replays), median(raws))


def tracking_cost(tovel_mibs):
    """The terminal-state parser's own speed, and its share of the time each
    byte takes at the measured throughput. Every byte is parsed twice: by the
    keeper as it leaves the replay ring and by the attach client as it
    prints it; the share counts both passes."""
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    exe = os.path.join(WORK, 'terminal_state_bench')
    if not os.path.exists(exe):
        subprocess.run(['c++', '-std=c++23', '-O2', '-I', os.path.join(root, 'src'), '-o', exe,
                        os.path.join(root, 'bench/terminal_state_bench.cpp'),
                        os.path.join(root, 'src/client/protocol/terminal_state.cpp'),
                        os.path.join(root, 'src/client/protocol/terminal_state_sequences.cpp')],
                       check=True)
    speeds = dict(line.split() for line in subprocess.run([exe], capture_output=True, text=True, check=True).stdout.splitlines())
    print('Terminal-state parser (MiB/s; share of each byte\'s time at %.1f MiB/s, two passes):\n' % tovel_mibs)
    for shape, mibs in speeds.items():
        print('- %s: %s (%.2f%%)' % (shape, mibs, 200.0 * tovel_mibs / float(mibs)))
    print()


def cleanup():
    for kind, handle in started:
        if kind == 'tovel':
            try:
                os.kill(handle[1], signal.SIGKILL)
            except ProcessLookupError:
                pass
        elif kind == 'tmux':
            subprocess.run(['tmux', '-L', 'tvbench', 'kill-server'], capture_output=True)
        elif kind == 'dtach':
            pass
    if any(kind == 'dtach' for kind, _ in started):
        subprocess.run(['pkill', '-KILL', '-f', 'dtach -n ' + WORK], capture_output=True)
    shutil.rmtree(WORK, ignore_errors=True)


def main():
    kinds = [k for k in ('raw', 'relay', 'tovel', 'dtach', 'tmux') if k in ('raw', 'relay', 'tovel') or shutil.which(k)]
    piped = ['raw-pipe', 'tovel-pipe']
    try:
        print('## Persistent shells (%s, %d rounds, interleaved)\n' % (time.strftime('%Y-%m-%d'), ROUNDS))
        for cols, rows in ((80, 24), (200, 60)):
            results = {k: [] for k in kinds + piped}
            rss = []
            for _ in range(ROUNDS):
                for k in kinds + piped:
                    mbs, peak = throughput(k, cols, rows)
                    results[k].append(mbs)
                    if peak:
                        rss.append(peak)
            for title, group, limit in (('to a terminal', kinds, 'raw'), ('to a pipe', piped, 'raw-pipe')):
                print('Throughput %dx%d %s (MiB/s, median; ratio to %s):\n' % (cols, rows, title, limit))
                for k in group:
                    m = statistics.median(results[k])
                    ratios = sorted(x / y for x, y in zip(results[k], results[limit]))
                    print('- %s: %.1f (%.2fx; rounds %.2f-%.2fx)' % (k, m, m / statistics.median(results[limit]),
                                                                     ratios[0], ratios[-1]))
                print()
            if rss:
                print('- tovel attach client RSS while streaming: %d KiB' % max(rss))
            for k, runs in DELIVERY.items():
                print('- %s mid-stream replays: %d in %d runs; every byte delivered in %d of %d'
                      % (k, sum(r for r, _ in runs), len(runs), sum(1 for _, ok in runs if ok), len(runs)))
                print('- %s CPU per MiB (median): keeper %.2f ms, attach client %.2f ms'
                      % (k, statistics.median(c for c, _ in CPU[k]), statistics.median(c for _, c in CPU[k])))
            DELIVERY.clear()
            CPU.clear()
            print()
            tracking_cost(statistics.median(results['tovel']))
        if '--throughput' in sys.argv:
            return
        lat = {k: [] for k in kinds}
        for _ in range(ROUNDS):
            for k in kinds:
                lat[k].append(echo_latency(k))
        rp50 = statistics.median(x[0] for x in lat['raw'])
        rp99 = statistics.median(x[1] for x in lat['raw'])
        print('Keystroke echo round trip (µs, p50 / p99; ratio to raw PTY):\n')
        for k in kinds:
            p50 = statistics.median(x[0] for x in lat[k])
            p99 = statistics.median(x[1] for x in lat[k])
            print('- %s: %.0f / %.0f (%.2fx / %.2fx)' % (k, p50, p99, p50 / rp50, p99 / rp99))
        idle, full, after = keeper_memory()
        print('\nKeeper RSS: idle %d KiB, ring full %d KiB, after 100 MiB %d KiB\n' % (idle, full, after))
        if shutil.which('dtach'):
            t, d = new_latency()
            print('`new` returning the id: median %.2f ms; `dtach -n`: %.2f ms (%.2fx)\n' % (t, d, t / d))
        first, replay, raw = replay_and_reattach()
        print('Reattach first byte (median of 15): tovel %.2f ms with a full ring, %.2f ms after one line; '
              'dtach %.2f ms after one line' % (first['full'], first['small'], first['dtach']))
        print('Full 1 MiB replay to end marker (median of 7): %.2f ms; raw PTY carrying 1 MiB: %.2f ms (%.2fx)'
              % (replay, raw, replay / raw))
    finally:
        cleanup()


if __name__ == '__main__':
    main()
