// Screens judged by a real terminal emulator (xterm.js, headless): a
// reattached full-screen program looks as it did, slow clients see every
// byte, stalled ones are cut off, and the local terminal is given back.
// Usage: node screens_test.js <tovel-ptyd> <@xterm/headless dir>; with
// "program <csi|utf8|hold>" it is the full-screen program the sessions run.
'use strict';
const net = require('net'), fs = require('fs'), path = require('path');
const { spawn, spawnSync } = require('child_process');

if (process.argv[2] === 'program') return fullScreenProgram(process.argv[3]);

// Alternate screen, mouse with SGR encoding, focus, bracketed paste, hidden
// cursor, application keys and the line-drawing set in G0. Then cursor-
// addressed updates that sweep every cell, some colored, some with a
// three-byte character; the last mebibyte of output begins inside a control
// sequence or a character, as the variant asks. On SIGWINCH it repaints.
function fullScreenProgram(variant) {
  let written = 0, paints = 0, sgr = '\x1b[0m';
  const cells = new Map(), updates = [];
  const out = (s) => { process.stdout.write(s); written += Buffer.byteLength(s); };
  const [cols, rows] = process.stdout.getWindowSize();
  const update = (k) => {
    const idx = k % (cols * rows), r = 1 + Math.floor(idx / cols), c = 1 + (idx % cols);
    if (k % 3 === 0) sgr = `\x1b[0;${k % 2 ? 1 : 22};3${k % 7};4${k % 5}m`;
    const cell = sgr + (k % 5 === 0 ? '€' : 'jklmnqtuvwx'[k % 11]);
    cells.set(`${r};${c}`, cell);
    const text = `\x1b[${r};${c}H` + cell;
    updates.push({ at: written, size: Buffer.byteLength(text), euro: k % 5 === 0 });
    out(text);
  };
  process.on('SIGWINCH', () => {
    const [w, h] = process.stdout.getWindowSize();
    let s = '\x1b[H\x1b[2J';
    for (let r = 1; r <= h; r++)
      for (let c = 1; c <= w; c++) s += `\x1b[${r};${c}H` + (cells.get(`${r};${c}`) ?? '\x1b[0m~');
    out(s + `\x1b]0;paint-${++paints}\x07`);
  });
  process.stdin.setRawMode(true);
  process.stdin.on('data', (d) => d.includes('q') && process.exit(0));
  // "g<n>": go, after the n bytes the terminal has carried so far.
  process.stdin.once('data', (d) => {
    written = parseInt(d.toString().slice(1)) || 0;
    out('\x1b[?1049h\x1b[?1002h\x1b[?1006h\x1b[?1004h\x1b[?2004h\x1b[?25l\x1b[?1h\x1b=\x1b(0');
    let k = 0;
    while (written < (variant === 'hold' ? 20000 : 3000000)) update(k++);
    // The update that the ring's first byte falls into, and where in it.
    const first = updates.find((u) => u.at > written + 100 - 1048576 && (variant !== 'utf8' || u.euro));
    const end = first.at + (variant === 'utf8' ? first.size - 2 : 2) + 1048576;
    while (variant !== 'hold' && written + 60 < end) update(k++);
    out('\x1b]0;done' + 'x'.repeat(variant === 'hold' ? 0 : end - written - 9) + '\x07');
  });
  out('\x1b]0;ready\x07');
}

const [binary, xtermDir] = process.argv.slice(2);
let Terminal;
try { ({ Terminal } = require(xtermDir)); } catch (e) {
  console.error(`@xterm/headless is missing at ${xtermDir} (npm install at configure time failed?)`);
  process.exit(1);
}
const dir = fs.mkdtempSync('/tmp/tvs-');
const env = { ...process.env, TOVEL_PTYD_DIR: dir, SHELL: '/bin/sh', NO_COLOR: '1' };
const sessions = [];
let failures = 0;
const check = (ok, what) => { if (!ok) { failures++; console.error('FAILED: ' + what); } };

function newSession(cmd) {
  const made = spawnSync(binary, ['new', '--cmd', cmd], { env });
  if (made.status !== 0) throw new Error('new failed: ' + made.stderr);
  return sessions[sessions.push(made.stdout.toString().slice(0, 32)) - 1];
}
const programCmd = (variant) => `exec ${process.execPath} ${__filename} program ${variant}`;

function waitFor(condition, what, ms = 120000) {
  const deadline = Date.now() + ms;
  return new Promise((resolve, reject) => {
    const poll = () => condition() ? resolve() : Date.now() > deadline
      ? reject(new Error('timed out waiting for ' + what)) : setTimeout(poll, 10);
    poll();
  });
}

// A client speaking the wire protocol; `rate` caps its reading in bytes/s.
function attach(id, cols, rows, rate = 0) {
  const frame = (type, payload) => Buffer.concat([Buffer.from([0, 0, 0, payload.length + 1, type]), payload]);
  const client = { chunks: [], bytes: 0, replays: 0, replayEndAt: -1, closed: false, tail: '' };
  const sock = client.sock = net.connect(path.join(dir, id + '.sock'));
  sock.write(Buffer.concat([frame(8, Buffer.from([1])), frame(1, Buffer.from([0, cols, 0, rows]))]));
  client.input = (text) => sock.write(frame(2, Buffer.from(text)));
  const started = Date.now();
  let pending = Buffer.alloc(0);
  sock.on('data', (data) => {
    pending = Buffer.concat([pending, data]);
    while (pending.length >= 5 && pending.length >= pending.readUInt32BE() + 4) {
      const end = pending.readUInt32BE() + 4, type = pending[4], payload = pending.subarray(5, end);
      if (type === 4) {
        client.chunks.push(payload);
        client.bytes += payload.length;
        client.tail = (client.tail + payload.toString('latin1')).slice(-4096);
      }
      if (type === 10) client.replays++;
      if (type === 11) client.replayEndAt = client.bytes;
      pending = pending.subarray(end);
    }
    const ahead = client.bytes / rate * 1000 - (Date.now() - started);
    if (rate && ahead > 0) {
      sock.pause();
      setTimeout(() => sock.resume(), ahead);
    }
  });
  sock.on('close', () => { client.closed = true; }).on('error', () => {});
  return client;
}
function bytesOf(client, from = 0, to = client.bytes) {
  if (client.joined?.length !== client.bytes) client.joined = Buffer.concat(client.chunks);
  return client.joined.subarray(from, to);
}

function emulator(cols, rows, bytes) {
  const term = new Terminal({ cols, rows, allowProposedApi: true });
  return new Promise((resolve) => term.write(bytes, () => resolve(term)));
}

// What a terminal shows and which modes it is in.
function modes(term) {
  const core = term._core;
  return JSON.stringify({ buffer: term.buffer.active.type, modes: term.modes,
    hidden: core.coreService.isCursorHidden, encoding: core.coreMouseService.activeEncoding,
    charsets: [core._charsetService.glevel, core._charsetService.charsets] });
}
function screen(term) {
  const buffer = term.buffer.active, rows = [];
  for (let y = 0; y < term.rows; y++) {
    const line = buffer.getLine(buffer.viewportY + y);
    for (let x = 0, c; x < term.cols && (c = line.getCell(x)); x++)
      rows.push([c.getChars(), c.getFgColorMode(), c.getFgColor(), c.getBgColorMode(),
        c.getBgColor(), c.isBold(), c.isItalic(), c.isUnderline()].join());
  }
  return rows.join('|') + modes(term) + `${buffer.cursorX},${buffer.cursorY}`;
}

async function reattachedScreens(variant) {
  const id = newSession(programCmd(variant));
  const whole = attach(id, 80, 24);
  await waitFor(() => whole.tail.includes('ready'), 'the program to start');
  whole.input('g' + whole.bytes);
  await waitFor(() => whole.tail.includes('\x1b]0;done'), 'the program to finish');
  const doneAt = whole.bytes;
  const reference = await emulator(80, 24, bytesOf(whole));
  const later = attach(id, 80, 24);
  await waitFor(() => later.replayEndAt >= 0, 'replay');
  // The replay is a preamble, then the newest bytes from a safe start.
  const replayed = bytesOf(later, 0, later.replayEndAt), all = bytesOf(whole, 0, doneAt);
  const tail = (buffer, count) => buffer.subarray(buffer.length - count);
  let skipped = 0;
  while (skipped < 16 && !tail(replayed, 1048576 - skipped).equals(tail(all, 1048576 - skipped))) skipped++;
  check(skipped > 0 && skipped < 16, `${variant}: replay starts inside the cut item (${skipped})`);
  check(screen(await emulator(80, 24, replayed)) === screen(reference), `${variant}: replayed screen`);
  await waitFor(() => bytesOf(whole, doneAt).includes('paint-1\x07'), 'repaint after a reattach');
  // At another size, after the repaint the reattach asked for.
  const resized = attach(id, 100, 30);
  let paint = '';
  await waitFor(() => resized.replayEndAt >= 0 &&
    (paint = /paint-\d+\x07/.exec(bytesOf(resized, resized.replayEndAt).toString('latin1'))?.[0]), 'repaint');
  await waitFor(() => bytesOf(whole, doneAt).includes(paint), 'repaint on the first client');
  const cut = (client, from) => bytesOf(client).subarray(0, bytesOf(client).indexOf(paint, from) + paint.length);
  reference.resize(100, 30);
  await new Promise((resolve) => reference.write(cut(whole, doneAt).subarray(doneAt), resolve));
  const shown = await emulator(100, 30, cut(resized, resized.replayEndAt));
  check(screen(shown) === screen(reference), `${variant}: screen after repaint at 100x30`);
  for (const client of [whole, later, resized]) client.sock.destroy();
}

async function slowAndStalledClients() {
  const id = newSession('stty -echo; read x; seq 1 1700000; echo END; sleep 60');
  const slow = attach(id, 80, 24, 2000000), stalled = attach(id, 80, 24);
  await waitFor(() => slow.replayEndAt >= 0 && stalled.replayEndAt >= 0, 'both replays');
  stalled.sock.pause();
  slow.input('\r');
  await waitFor(() => slow.tail.includes('END'), 'all lines on the slow client');
  const lines = bytesOf(slow).toString('latin1').split('\r\n').filter((l) => /^\d+$/.test(l));
  check(lines.length === 1700000 && lines.every((l, i) => +l === i + 1), 'every line, in order');
  check(slow.replays === 1, 'one replay bracket');
  stalled.sock.resume();
  await waitFor(() => stalled.closed, 'the stalled client to be cut off');
  check(!bytesOf(stalled).includes('END'), 'the stalled client was cut off before the end');
}

async function localTerminalGivenBack(ending) {
  const id = newSession(programCmd('hold'));
  const client = spawn(binary, ['attach', id], { env, stdio: ['pipe', 'pipe', 'inherit'] });
  const out = [];
  let exited = false;
  client.stdout.on('data', (d) => out.push(d));
  client.on('exit', () => { exited = true; });
  client.stdin.write('g');
  await waitFor(() => Buffer.concat(out).includes('\x1b]0;done'), `${ending}: program running`);
  if (ending === 'exit') client.stdin.write('q');
  if (ending === 'kill') spawnSync(binary, ['kill', id, '--force'], { env });
  if (ending === 'signal') client.kill('SIGTERM');
  await waitFor(() => exited, `${ending}: the client to end`);
  const shown = await emulator(80, 24, Buffer.concat(out));
  check(modes(shown) === modes(await emulator(80, 24, '')), `${ending}: terminal back at defaults`);
  client.stdin.destroy();
}

(async () => {
  try {
    for (const variant of ['csi', 'utf8']) await reattachedScreens(variant);
    await slowAndStalledClients();
    for (const ending of ['exit', 'kill', 'signal']) await localTerminalGivenBack(ending);
  } catch (e) {
    check(false, e.message);
  }
  for (const id of sessions) spawnSync(binary, ['kill', id, '--force'], { env });
  fs.rmSync(dir, { recursive: true, force: true });
  console.log(failures ? `${failures} check(s) failed` : 'all screens checks passed');
  process.exit(failures ? 1 : 0);
})();
