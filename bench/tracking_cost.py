#!/usr/bin/env python3
"""What following the terminal state costs in throughput, end to end: the
release binary against a copy built with the state parser turned into a
no-op, interleaved round by round, each streaming 32 MiB of one output shape
from a session's shell to an attached client in a PTY, with a raw PTY as the
physical limit. With --pipe the attached client writes to a pipe (the
app's SSH channel without a terminal) instead of a terminal. Prints a
markdown report.

Usage: bench/tracking_cost.py [--rounds N] [--size COLSxROWS] [--pipe]
"""
import os, pty, select, shutil, signal, statistics, subprocess, sys, tempfile, time, fcntl, termios, struct

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROUNDS = int(sys.argv[sys.argv.index('--rounds') + 1]) if '--rounds' in sys.argv else 7
COLS, ROWS = (map(int, sys.argv[sys.argv.index('--size') + 1].split('x')) if '--size' in sys.argv else (80, 24))
PIPE = '--pipe' in sys.argv
WORK = tempfile.mkdtemp(prefix='tvt.')
ENV = dict(os.environ, TOVEL_PTYD_DIR=WORK, SHELL='/bin/sh', TERM='xterm-256color')
MIB = 1 << 20
SIZE = 32 * MIB


def build(name, stub):
    """Builds the release binary from a copy of the tree; with `stub`, the
    parser's feed returns at once (nothing else changes)."""
    tree = os.path.join(WORK, name)
    shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns('build*', '.git'))
    if stub:
        path = os.path.join(tree, 'src/client/protocol/terminal_state.cpp')
        text = open(path).read()
        head = 'void TerminalState::feed(std::string_view bytes) {\n'
        assert head in text
        open(path, 'w').write(text.replace(head, head + '    if (!bytes.empty())\n        return;\n'))
    out = os.path.join(tree, 'build')
    subprocess.run(['cmake', '-S', tree, '-B', out, '-DCMAKE_BUILD_TYPE=Release', '-DTOVEL_TESTS=OFF'],
                   check=True, capture_output=True)
    subprocess.run(['cmake', '--build', out, '-j%d' % os.cpu_count()], check=True, capture_output=True)
    return os.path.join(out, 'tovel-ptyd')


def shapes():
    """32 MiB files of three shapes: plain text lines; full-screen redraws
    as a system monitor or an editor writes them (each row addressed, then
    coloured runs of text and line drawing); and the worst case, every
    character addressed on its own with a colour change every third."""
    files = {}

    def write(name, head, piece):
        parts, size, k = [head], 0, 0
        while size < SIZE:
            part = piece(k)
            parts.append(part)
            size += len(part)
            k += 1
        path = os.path.join(WORK, name.replace(' ', '-'))
        with open(path, 'wb') as f:
            f.write(b''.join(parts))
        files[name] = path

    alternate = b'\x1b[?1049h\x1b[?1002h\x1b[?1006h\x1b[?25l'
    write('plain text', b'', lambda k: b'%08d ' % k + b'a' * 70 + b'\n')

    def row(k):
        line, width = b'\x1b[%d;1H\x1b(0x\x1b(B' % (1 + k % ROWS), 1
        while width < COLS - 1:
            run = min(8 + (k * 7 + width) % 18, COLS - 1 - width)
            line += b'\x1b[0;%d;%dm' % (30 + (k + width) % 8, 40 + k % 8) + (b'%d' % (k * width)).ljust(run)[:run]
            width += run
        return line + b'\x1b[m\x1b(0x\x1b(B'
    write('full-screen redraws', alternate, row)

    def cell(k):
        piece = b'\x1b[%d;%dH' % (1 + k // COLS % ROWS, 1 + k % COLS)
        if k % 3 == 0:
            piece += b'\x1b[0;1;3%dm' % (k % 7)
        return piece + (b'q' if k % 5 else '\u20ac'.encode())
    write('one character per update', alternate + b'\x1b(0', cell)
    return files


def cpu_ms(pids):
    """Time the processes have spent on a CPU, user and kernel, in ms."""
    total = 0
    for pid in pids:
        try:
            with open('/proc/%d/schedstat' % pid) as f:
                total += int(f.read().split()[0])
        except OSError:
            pass
    return total / 1e6


def spawn(argv):
    pid, fd = pty.fork()
    if pid == 0:
        os.execvpe(argv[0], argv, ENV)
    fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack('HHHH', ROWS, COLS, 0, 0))
    return pid, fd


def spawn_piped(argv):
    """Starts argv with pipes for standard input and output; returns its pid,
    the read end of its output and the write end of its input."""
    in_read, in_write = os.pipe()
    out_read, out_write = os.pipe()
    pid = os.fork()
    if pid == 0:
        os.dup2(in_read, 0)
        os.dup2(out_write, 1)
        os.execvpe(argv[0], argv, ENV)
    os.close(in_read)
    os.close(out_write)
    return pid, out_read, in_write


def stream(binary, path):
    """(MiB/s from "go" to the end mark, keeper and client CPU ms per MiB),
    through an attached client (or a raw PTY when binary is None); None when
    the stream broke or replayed."""
    cmd = 'read go; cat %s; echo; echo BENCH-END; read done' % path
    keeper = 0
    if binary:
        sid = subprocess.run([binary, 'new', '--cmd', cmd], env=ENV, capture_output=True, text=True,
                             check=True).stdout.strip()
        meta = dict(l.split('=', 1) for l in open(os.path.join(WORK, sid + '.meta')).read().split('\n') if '=' in l)
        keeper = int(meta['keeper_pid'])
        if PIPE:
            pid, fd, start_fd = spawn_piped([binary, 'attach', sid])
        else:
            pid, fd = spawn([binary, 'attach', sid])
            start_fd = fd
            while termios.tcgetattr(fd)[3] & termios.ICANON:
                time.sleep(0.01)
    else:
        pid, fd = spawn(['sh', '-c', cmd])
        start_fd = fd
    time.sleep(0.3)  # lets the greeting and the empty replay pass
    while select.select([fd], [], [], 0)[0]:
        os.read(fd, 1 << 16)
    cpu = cpu_ms((pid, keeper) if keeper else ())
    start = time.monotonic()
    os.write(start_fd, b'\r')
    tail, ok, replays = b'', False, 0
    while True:
        if not select.select([fd], [], [], 30)[0]:
            break
        try:
            data = os.read(fd, 1 << 20)
        except OSError:
            break
        replays += (tail[-32:] + data).count(b'pty-replay-start')
        tail = (tail + data)[-256:]
        if b'BENCH-END' in tail:
            ok = True
            break
    seconds = time.monotonic() - start
    cpu = (cpu_ms((pid, keeper) if keeper else ()) - cpu) / (SIZE / MIB)
    for victim in (pid, keeper):
        if victim:
            try:
                os.kill(victim, signal.SIGKILL)
            except ProcessLookupError:
                pass
    os.waitpid(pid, 0)
    os.close(fd)
    if start_fd != fd:
        os.close(start_fd)
    return (SIZE / MIB / seconds, cpu) if ok and replays == 0 else None


def main():
    try:
        tracked, untracked = build('tracked', False), build('untracked', True)
        contenders = {'raw PTY': None, 'tovel': tracked, 'tovel, no state tracking': untracked}
        print('## State tracking cost (%s, %dx%d, %d rounds, interleaved, client writing to a %s)\n'
              % (time.strftime('%Y-%m-%d'), COLS, ROWS, ROUNDS, 'pipe' if PIPE else 'terminal'))
        print('| Output | raw PTY MiB/s | tovel | tovel, no tracking | throughput cost | keeper + client CPU ms/MiB, tracked / not |')
        print('|---|---|---|---|---|---|')
        for shape, path in shapes().items():
            results = {name: [] for name in contenders}
            for _ in range(ROUNDS):
                for name, binary in contenders.items():
                    results[name].append(stream(binary, path))
            if any(x is None for xs in results.values() for x in xs):
                print('| %s | a stream broke or replayed |' % shape)
                continue
            speed = {name: statistics.median(x[0] for x in xs) for name, xs in results.items()}
            cpu = {name: statistics.median(x[1] for x in xs) for name, xs in results.items()}
            raw, tracked, untracked = speed['raw PTY'], speed['tovel'], speed['tovel, no state tracking']
            print('| %s | %.1f | %.1f (%.2fx) | %.1f (%.2fx) | %.1f%% | %.2f / %.2f (+%.1f%%) |'
                  % (shape, raw, tracked, tracked / raw, untracked, untracked / raw,
                     100 * (1 - tracked / untracked), cpu['tovel'], cpu['tovel, no state tracking'],
                     100 * (cpu['tovel'] / cpu['tovel, no state tracking'] - 1)))
    finally:
        subprocess.run(['pkill', '-KILL', '-f', WORK], capture_output=True)
        shutil.rmtree(WORK, ignore_errors=True)


if __name__ == '__main__':
    main()
