// `tervainctl mcp` driven by the official MCP TypeScript SDK client, against the real agent on a
// Unix socket (headless: no grants). Run by run_sdk_test.sh, which installs the SDK beside this
// file in the build tree. Environment: TERVAIN_AGENT and TERVAIN_CTL, the two built programs.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import Ajv from 'ajv';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const agentPath = process.env.TERVAIN_AGENT;
const ctlPath = process.env.TERVAIN_CTL;
const kScreenGrant =
  'Screen Recording (kTCCServiceScreenCapture) is not granted to the agent \u2014 re-run provisioning';
const kTodaysTools = [
  'click', 'clipboard_get', 'clipboard_set', 'cursor_position', 'double_click', 'drag',
  'element_action', 'element_at', 'find', 'focus', 'key_down', 'key_up', 'launch_app', 'mouse_down',
  'mouse_up', 'move', 'press_key', 'read_file', 'run_command', 'screenshot', 'scroll', 'set_value',
  'tree', 'type_text', 'wait_for', 'window_action', 'windows', 'write_file',
];
const kReadOnly = new Set(['screenshot', 'cursor_position', 'tree', 'element_at', 'read_file', 'find',
  'wait_for', 'windows', 'clipboard_get']);

let dir;
const agents = [];

// Starts an agent on socket, resolving once it accepts connections (bounded: 10 s).
async function startAgent(socket, desktop = 'headless') {
  const child = spawn(agentPath, ['--unix', socket, '--desktop', desktop], {
    env: { ...process.env, TERVAIN_DULK_DISABLE: '1' },
    stdio: ['ignore', 'ignore', 'inherit'],
  });
  agents.push(child);
  for (let i = 0; i < 200; ++i) {
    const up = await new Promise((resolve) => {
      const s = net.connect(socket, () => { s.end(); resolve(true); });
      s.on('error', () => resolve(false));
    });
    if (up) return child;
    await new Promise((r) => setTimeout(r, 50));
  }
  throw new Error(`the agent did not listen on ${socket}`);
}

function stopAgent(child) {
  if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
  return new Promise((resolve) => {
    if (child.exitCode !== null || child.signalCode !== null) resolve();
    else child.once('exit', resolve);
  });
}

async function connectClient(address) {
  const client = new Client({ name: 'tervain-sdk-test', version: '1.0.0' });
  const transport = new StdioClientTransport({
    command: ctlPath, args: ['mcp', '--connect', address], stderr: 'inherit',
  });
  await client.connect(transport);
  return client;
}

const textOf = (result) => result.content.filter((c) => c.type === 'text').map((c) => c.text).join('\n');

// A raw session: lines in, parsed lines out, for what the SDK would never send.
function rawSession(address) {
  const child = spawn(ctlPath, ['mcp', '--connect', address], { stdio: ['pipe', 'pipe', 'inherit'] });
  const lines = readline.createInterface({ input: child.stdout });
  const queue = [];
  const waiting = [];
  lines.on('line', (line) => {
    const message = JSON.parse(line);  // stdout carries protocol only: every line parses
    if (waiting.length) waiting.shift()(message); else queue.push(message);
  });
  return {
    send: (text) => child.stdin.write(text + '\n'),
    next: () => (queue.length ? Promise.resolve(queue.shift())
      : new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error('no message within 10 s')), 10000);
        waiting.push((m) => { clearTimeout(timer); resolve(m); });
      })),
    close: () => new Promise((resolve) => { child.once('exit', resolve); child.stdin.end(); }),
  };
}

let agentSocket;
let client;

before(async () => {
  dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tervain-mcp-'));
  agentSocket = path.join(dir, 'agent.sock');
  await startAgent(agentSocket);
  client = await connectClient(`unix:${agentSocket}`);
});

after(async () => {
  if (client) await client.close();
  for (const a of agents) await stopAgent(a);
  fs.rmSync(dir, { recursive: true, force: true });
});

test('initialize negotiates a version the SDK accepts and offers tools', () => {
  assert.equal(client.getServerVersion().name, 'tervainctl');
  assert.ok(client.getServerCapabilities().tools);
});

test('every tool has a valid input schema, a description and honest annotations', async () => {
  const { tools } = await client.listTools();
  assert.deepEqual(tools.map((t) => t.name).sort(), kTodaysTools);
  const ajv = new Ajv({ strict: true });
  for (const tool of tools) {
    assert.equal(tool.inputSchema.type, 'object', tool.name);
    ajv.compile(tool.inputSchema);  // throws on an invalid schema or an unknown keyword
    assert.ok(tool.description.length > 20, tool.name);
    assert.equal(tool.annotations.readOnlyHint, kReadOnly.has(tool.name), tool.name);
    if (kReadOnly.has(tool.name)) assert.equal(tool.annotations.destructiveHint, false, tool.name);
  }
});

test('the server checks arguments as a schema validator does', async () => {
  const { tools } = await client.listTools();
  const ajv = new Ajv();
  const schemaOf = (name) => tools.find((t) => t.name === name).inputSchema;
  const cases = [
    ['click', { x: 1, y: 2 }],
    ['click', { x: 1 }],
    ['click', { x: 1, y: 2, button: 'left', count: 4 }],
    ['click', { x: 1, y: 2, button: 'thumb' }],
    ['click', { x: '1', y: 2 }],
    ['click', { x: 1.5, y: 2 }],
    ['move', { x: 1, y: 2, z: 3 }],
    ['scroll', { dy: -40 }],
    ['scroll', { dy: 41 }],
    ['cursor_position', {}],
    ['cursor_position', { verbose: true }],
    ['press_key', { chord: '' }],
  ];
  for (const [name, args] of cases) {
    const valid = ajv.validate(schemaOf(name), args);
    let refused = false;
    try {
      await client.callTool({ name, arguments: args });
    } catch (e) {
      refused = true;
      assert.equal(e.code, -32602, `${name} ${JSON.stringify(args)}: ${e.message}`);
    }
    assert.equal(refused, !valid, `${name} ${JSON.stringify(args)}: ajv says ${valid}`);
  }
});

test('run_command returns exit status, stdout and stderr', async () => {
  const result = await client.callTool({
    name: 'run_command', arguments: { command: 'echo out; echo err >&2; exit 3' },
  });
  assert.equal(result.isError, false);
  assert.equal(textOf(result), 'exit status 3\n--- stdout ---\nout\n--- stderr ---\nerr\n');

  const capped = await client.callTool({
    name: 'run_command', arguments: { command: 'printf 0123456789', maxOutputBytes: 4 },
  });
  assert.match(textOf(capped), /--- stdout \(first 4 of 10 bytes\) ---\n0123\n/);
});

test('a refusal of the agent is an error result with its message', async () => {
  const result = await client.callTool({ name: 'screenshot', arguments: { maxWidth: 800 } });
  assert.equal(result.isError, true);
  assert.equal(textOf(result), kScreenGrant);
});

// The pixel size a JPEG's frame header gives.
function jpegSize(bytes) {
  for (let i = 2; i + 9 < bytes.length;) {
    if (bytes[i] !== 0xff) return null;
    const marker = bytes[i + 1];
    if (marker >= 0xc0 && marker <= 0xc3) {
      return { height: bytes.readUInt16BE(i + 5), width: bytes.readUInt16BE(i + 7) };
    }
    i += 2 + bytes.readUInt16BE(i + 2);
  }
  return null;
}

// run_sdk_test.sh runs this file inside a private test desktop (scripts/desktop) where it can;
// the agents above are headless all the same, this one drives the X display.
test('on a real desktop: a screenshot image, and tree + element_action in gtk3-widget-factory',
  { skip: process.env.TERVAIN_MCP_DESKTOP ? false : 'no test desktop (run under scripts/desktop)' },
  async () => {
    const socket = path.join(dir, 'x11.sock');
    await startAgent(socket, 'x11');
    const factory = spawn('gtk3-widget-factory', [], { stdio: 'ignore' });
    const desktop = await connectClient(`unix:${socket}`);
    try {
      const shot = await desktop.callTool({ name: 'screenshot', arguments: { maxWidth: 800 } });
      assert.equal(shot.isError, false, textOf(shot));
      const image = shot.content.find((c) => c.type === 'image');
      assert.equal(image.mimeType, 'image/jpeg');
      const size = jpegSize(Buffer.from(image.data, 'base64'));
      assert.equal(size?.width, 800, 'the image is scaled to maxWidth');
      assert.equal(size?.height, 450, 'keeping the 1920x1080 screen\'s aspect ratio');

      const pageLine = (tree, title) => tree.split('\n').find((l) => l.includes(`AXRadioButton "${title}"`));
      let tree = '';
      for (let i = 0; i < 100 && !pageLine(tree, 'Page 2'); ++i) {
        if (i > 0) await new Promise((r) => setTimeout(r, 200));
        tree = textOf(await desktop.callTool({ name: 'tree', arguments: { pid: factory.pid } }));
      }
      const page2 = pageLine(tree, 'Page 2');
      assert.ok(page2, `no "Page 2" radio button in the tree:\n${tree.slice(0, 2000)}`);
      assert.match(page2, /value="0"/);
      const ref = page2.trim().split(' ')[0];
      const pressed = await desktop.callTool({ name: 'element_action', arguments: { ref } });
      assert.equal(pressed.isError, false, textOf(pressed));
      let after = '';
      for (let i = 0; i < 25 && !/value="1"/.test(pageLine(after, 'Page 2') ?? ''); ++i) {
        await new Promise((r) => setTimeout(r, 200));
        after = textOf(await desktop.callTool({ name: 'tree', arguments: { pid: factory.pid } }));
      }
      assert.match(pageLine(after, 'Page 2') ?? '', /value="1"/, 'pressing Page 2 selects it');
      assert.match(pageLine(after, 'Page 1') ?? '', /value="0"/);

      // find, then act on its ref: back to Page 1, and wait_for sees it selected.
      const found = await desktop.callTool({
        name: 'find', arguments: { role: 'AXRadioButton', title: 'Page 1', match: 'exact', pid: factory.pid },
      });
      assert.equal(found.isError, false, textOf(found));
      const page1 = textOf(found).split('\n')[0];
      assert.match(page1, /^e\d+ AXRadioButton "Page 1"/);
      const back = await desktop.callTool({ name: 'element_action', arguments: { ref: page1.split(' ')[0] } });
      assert.equal(back.isError, false, textOf(back));
      const selected = await desktop.callTool({
        name: 'wait_for',
        arguments: { role: 'AXRadioButton', title: 'Page 1', match: 'exact', pid: factory.pid, state: 'value', equals: '1', timeout: 10 },
      });
      assert.equal(selected.isError, false, textOf(selected));
      assert.match(textOf(selected), /\(after \d+ ms\)/);

      const marked = await desktop.callTool({ name: 'screenshot', arguments: { maxWidth: 800, annotate: true } });
      assert.equal(marked.isError, false, textOf(marked));
      assert.match(textOf(marked), /\n\d+  e\d+  AXRadioButton  "Page 2"  at \d+,\d+\n/);
    } finally {
      await desktop.close();
      factory.kill('SIGTERM');
    }
  });

test('calls in flight are answered in any order', async () => {
  const gate = path.join(dir, 'gate');
  let slowDone = false;
  const slow = client.callTool({
    name: 'run_command',
    arguments: { command: `i=0; while [ ! -e '${gate}' ] && [ $i -lt 400 ]; do sleep 0.05; i=$((i+1)); done; echo released` },
  }).then((r) => { slowDone = true; return r; });
  const fast = await client.callTool({ name: 'cursor_position', arguments: {} });
  assert.ok(fast.content.length > 0);
  assert.equal(slowDone, false, 'the slow command must still be running');
  fs.writeFileSync(gate, '');
  assert.match(textOf(await slow), /exit status 0\n--- stdout ---\nreleased/);
});

test('write_file and read_file carry text and bytes', async () => {
  const file = path.join(dir, 'note.txt');
  const text = 'Grüße, \u2014 line\nzwei\n';
  const wrote = await client.callTool({ name: 'write_file', arguments: { path: file, content: text } });
  assert.equal(wrote.isError, false, textOf(wrote));
  assert.equal(fs.readFileSync(file, 'utf8'), text);
  const read = await client.callTool({ name: 'read_file', arguments: { path: file } });
  assert.equal(read.content[0].text, text);

  const bytes = Buffer.from([0, 255, 1, 254, 10, 13]);
  const bin = path.join(dir, 'bytes.bin');
  await client.callTool({ name: 'write_file', arguments: { path: bin, content: bytes.toString('base64'), encoding: 'base64' } });
  assert.deepEqual(fs.readFileSync(bin), bytes);
  const back = await client.callTool({ name: 'read_file', arguments: { path: bin } });
  assert.equal(back.content[0].text, bytes.toString('base64'));

  const missing = await client.callTool({ name: 'read_file', arguments: { path: path.join(dir, 'none') } });
  assert.equal(missing.isError, true);
});

test('a restarted agent is reconnected and refs are reported stale', async () => {
  const link = path.join(dir, 'current.sock');
  const first = await startAgent(path.join(dir, 'first.sock'));
  fs.symlinkSync(path.join(dir, 'first.sock'), link);
  const own = await connectClient(`unix:${link}`);
  try {
    const before = await own.callTool({ name: 'cursor_position', arguments: {} });
    assert.doesNotMatch(textOf(before), /re-opened/);
    await stopAgent(first);
    await startAgent(path.join(dir, 'second.sock'));
    fs.unlinkSync(link);
    fs.symlinkSync(path.join(dir, 'second.sock'), link);
    const afterRestart = await own.callTool({ name: 'cursor_position', arguments: {} });
    assert.match(textOf(afterRestart), /re-opened: element refs from earlier results are stale/);
    const next = await own.callTool({ name: 'cursor_position', arguments: {} });
    assert.doesNotMatch(textOf(next), /re-opened/);
  } finally {
    await own.close();
  }
});

test('malformed messages and batches get the right JSON-RPC errors', async () => {
  const raw = rawSession(`unix:${agentSocket}`);
  try {
    raw.send('[{"jsonrpc":"2.0","id":0,"method":"ping"}]');
    assert.equal((await raw.next()).error.code, -32600, 'no batch before initialize');
    raw.send(JSON.stringify({ jsonrpc: '2.0', id: 1, method: 'initialize',
      params: { protocolVersion: '2025-03-26', capabilities: {}, clientInfo: { name: 'raw', version: '1' } } }));
    assert.equal((await raw.next()).result.protocolVersion, '2025-03-26');
    raw.send(JSON.stringify([
      { jsonrpc: '2.0', id: 'a', method: 'ping' },
      { jsonrpc: '2.0', id: 'b', method: 'tools/call', params: { name: 'run_command', arguments: { command: 'echo batched' } } },
      { jsonrpc: '2.0', id: 'c' },
      { jsonrpc: '1.0', id: 'd', method: 'ping' },
      42,
      { jsonrpc: '2.0', method: 'notifications/initialized' },
      { jsonrpc: '2.0', id: 'e', method: 'resources/list' },
      { jsonrpc: '2.0', id: 'f', method: 'tools/call', params: { name: 'no_such_tool' } },
      { jsonrpc: '2.0', id: { nested: 1 }, method: 'ping' },
      { jsonrpc: '2.0', id: 'g', method: 'tools/call', params: 'run_command' },
    ]));
    const batch = await raw.next();
    assert.ok(Array.isArray(batch), 'a batch is answered with one array');
    const byId = (id) => batch.filter((m) => JSON.stringify(m.id) === JSON.stringify(id));
    assert.deepEqual(byId('a')[0].result, {});
    assert.match(byId('b')[0].result.content[0].text, /batched/);
    assert.equal(byId('c')[0].error.code, -32600);
    assert.equal(byId('d')[0].error.code, -32600);
    assert.equal(byId('e')[0].error.code, -32601);
    assert.equal(byId('f')[0].error.code, -32602);
    assert.equal(byId('g')[0].error.code, -32600);
    assert.deepEqual(byId(null).map((m) => m.error.code), [-32600, -32600]);  // 42 and the object id
    assert.equal(batch.length, 9, 'the notification is not answered');

    const singles = [
      ['{"jsonrpc":"2.0","id":2,"method":"ping"', -32700, null],
      ['[]', -32600, null],
      ['"ping"', -32600, null],
      ['{"jsonrpc":"2.0","id":3,"method":7}', -32600, 3],
      ['{"jsonrpc":"2.0","id":null,"method":"ping"}', -32600, null],
      ['{"jsonrpc":"2.0","id":4,"method":"initialize","params":{"protocolVersion":"2025-03-26"}}', -32600, 4],
      ['{"jsonrpc":"2.0","id":5,"method":"tools/list","params":{"cursor":"x"}}', -32602, 5],
      ['[' + '['.repeat(100) + ']'.repeat(100) + ']', -32600, null],
    ];
    for (const [line, code, id] of singles) {
      raw.send(line);
      const reply = await raw.next();
      assert.equal(reply.error?.code, code, line);
      assert.equal(reply.id, id, line);
    }
    raw.send('{"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":99}}');
    raw.send('{"jsonrpc":"2.0","id":6,"method":"ping"}');
    assert.deepEqual(await raw.next(), { jsonrpc: '2.0', id: 6, result: {} });
  } finally {
    await raw.close();
  }
});
