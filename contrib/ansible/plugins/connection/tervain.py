# Runs Ansible's commands and file transfers in a guest through the Tervain agent, so guests
# without an SSH server can be managed like any other host.
#
# This file stands alone: it works from the collection (tervain.agent.tervain) and also dropped
# into a folder named by ANSIBLE_CONNECTION_PLUGINS (ansible_connection=tervain).

from __future__ import (absolute_import, division, print_function)
__metaclass__ = type

DOCUMENTATION = r'''
    name: tervain
    short_description: Run tasks in a guest VM through the Tervain agent
    description:
        - Runs every command of a task in the guest through the agent's C(exec) stream (one
          connection per command over vsock or a Unix socket), and moves files with C(cat) in the
          guest, streamed and checked against the guest's byte count. No SSH server is needed.
        - Commands run under the agent's shell, as the user the agent runs as; C(become) wraps them
          as usual.
    author: Tervain maintainers
    version_added: "1.0.0"
    extends_documentation_fragment:
        - connection_pipelining
    options:
        remote_addr:
            description:
                - The host's name; when O(address) is not set it names the guest, either as a
                  vsock context id (C(3)) or as a whole address (C(vsock:3:2035), C(unix:/path)).
            type: str
            default: inventory_hostname
            vars:
                - name: inventory_hostname
                - name: ansible_host
        address:
            description:
                - The agent's address, C(vsock:CID), C(vsock:CID:PORT) or C(unix:PATH).
                - The default is taken from the host's name (O(remote_addr)).
            type: str
            vars:
                - name: ansible_tervain_address
            env:
                - name: TERVAIN_AGENT_ADDR
        tervainctl:
            description:
                - Path of the C(tervainctl) program. When set, C(put_file) and C(fetch_file) run
                  C(tervainctl cp), whose native base64 coding moves large files faster than this
                  plugin's Python. Commands always go over the wire directly.
            type: str
            vars:
                - name: ansible_tervain_tervainctl
            env:
                - name: TERVAIN_CTL
        timeout:
            description:
                - Seconds to wait for the connection to the agent to be made.
            type: int
            default: 10
            vars:
                - name: ansible_tervain_timeout
            ini:
                - section: defaults
                  key: timeout
            env:
                - name: ANSIBLE_TIMEOUT
'''

import binascii
import errno
import json
import os
import re
import selectors
import shlex
import socket
import subprocess
import tempfile

from ansible.errors import AnsibleConnectionFailure, AnsibleError, AnsibleFileNotFound
from ansible.module_utils.common.text.converters import to_bytes, to_native, to_text
from ansible.plugins.connection import ConnectionBase
from ansible.utils.display import Display

display = Display()

DEFAULT_PORT = 2035
# Raw bytes per stdin frame. The agent writes each frame to the command in one bounded write and
# drops what the command leaves unread for about a second, so a frame stays below a pipe's size.
STDIN_FRAME_BYTES = 32 * 1024
READ_BYTES = 256 * 1024
FILE_BLOCK_BYTES = 256 * 1024
# An output frame carries at most 64 KiB (about 87 KiB of base64); far more is not an exec stream.
MAX_FRAME_LINE = 16 * 1024 * 1024
_DATA_KEY = b'"d":"'
_EOF_FRAME = b'{"t":"eof"}\n'


class AgentAddress:
    """Where an agent listens: ('vsock', (cid, port)) or ('unix', path)."""

    def __init__(self, family, target):
        self.family = family
        self.target = target

    def __str__(self):
        if self.family == 'vsock':
            return 'vsock:%d:%d' % self.target
        return 'unix:' + self.target

    @classmethod
    def parse(cls, text):
        text = text.strip()
        if re.fullmatch(r'[0-9]+', text):
            return cls('vsock', (int(text), DEFAULT_PORT))
        scheme, sep, rest = text.partition(':')
        if sep and scheme == 'unix' and rest:
            return cls('unix', rest)
        if sep and scheme == 'vsock':
            match = re.fullmatch(r'([0-9]+)(?::([0-9]+))?', rest)
            if match:
                port = int(match.group(2)) if match.group(2) else DEFAULT_PORT
                return cls('vsock', (int(match.group(1)), port))
        raise AnsibleError("the agent address '%s' is not vsock:CID, vsock:CID:PORT or "
                           "unix:PATH (set ansible_tervain_address)" % text)

    def connect(self, timeout):
        if self.family == 'vsock':
            if not hasattr(socket, 'AF_VSOCK'):
                raise AnsibleConnectionFailure('this Python has no vsock sockets; reach %s '
                                               'through a unix: address' % self)
            sock = socket.socket(socket.AF_VSOCK, socket.SOCK_STREAM)
        else:
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            sock.settimeout(timeout)
            sock.connect(self.target)
            sock.settimeout(None)
        except OSError as e:
            sock.close()
            raise AnsibleConnectionFailure('cannot connect to the agent at %s: %s'
                                           % (self, to_native(e.strerror or e)))
        return sock


def parse_frame(line):
    """One frame line from the agent: (tag, raw bytes or None, the frame as a dict).

    Output frames are decoded without handing their base64 text to the JSON reader, which would
    unescape every "\\/" of it one character at a time; the rest of the frame still is parsed.
    """
    data = None
    start = line.find(_DATA_KEY)
    if start >= 0:
        # Inside a JSON string every quote is escaped, so this is the data member itself; its
        # base64 text holds no quote, and only slashes may come escaped.
        start += len(_DATA_KEY)
        end = line.find(b'"', start)
        if end < 0:
            raise ValueError('unterminated data member')
        data = binascii.a2b_base64(bytes(line[start:end]).replace(b'\\/', b'/'))
        line = line[:start] + line[end:]
    frame = json.loads(bytes(line))
    if not isinstance(frame, dict):
        raise ValueError('not a JSON object')
    return frame.get('t'), data, frame


class ExecOutcome:
    def __init__(self, code, stdout, stderr):
        self.code = code
        self.stdout = stdout
        self.stderr = stderr


def run_exec(address, command, stdin_chunks=(), on_stdout=None, on_stderr=None, timeout=10,
             gate=None):
    """Runs one command through the agent on a connection of its own.

    stdin_chunks is an iterable of bytes sent as standard input, pulled only while the socket
    takes it, after which the command's input is closed. Output is handed to on_stdout and
    on_stderr as it arrives, or collected. gate, when given, is called with each piece of output
    before stdin is sent and returns (True, bytes to send first) once stdin may flow.
    Returns an ExecOutcome; a connection that fails or ends early raises
    AnsibleConnectionFailure.
    """
    collected = {'o': [], 'e': []}
    handlers = {
        'o': on_stdout or collected['o'].append,
        'e': on_stderr or collected['e'].append,
    }
    chunks = iter(stdin_chunks)
    request = json.dumps({'op': 'exec', 'command': to_text(command, errors='surrogate_or_strict')})
    outgoing = bytearray(to_bytes(request) + b'\n')
    feeding = True        # more stdin frames (then the end of input) are still to be queued
    open_gate = gate is None
    incoming = bytearray()
    # One receive buffer, reused: a fresh buffer per read costs more than the read itself.
    buffer = bytearray(READ_BYTES)
    view = memoryview(buffer)
    code = None
    sock = address.connect(timeout)
    selector = selectors.DefaultSelector()
    try:
        sock.setblocking(False)
        selector.register(sock, selectors.EVENT_READ | selectors.EVENT_WRITE)
        while code is None:
            if not outgoing and feeding and open_gate:
                chunk = next(chunks, None)
                if chunk is None:
                    outgoing += _EOF_FRAME
                    feeding = False
                else:
                    for at in range(0, len(chunk), STDIN_FRAME_BYTES):
                        outgoing += b'{"t":"i","d":"'
                        outgoing += binascii.b2a_base64(chunk[at:at + STDIN_FRAME_BYTES],
                                                        newline=False)
                        outgoing += b'"}\n'
            events = selectors.EVENT_READ | (selectors.EVENT_WRITE if outgoing else 0)
            selector.modify(sock, events)
            for _, ready in selector.select():
                if ready & selectors.EVENT_WRITE and outgoing:
                    try:
                        sent = sock.send(outgoing)
                        del outgoing[:sent]
                    except (BlockingIOError, InterruptedError):
                        pass
                    except OSError as e:
                        # The command ended (or never started) and the agent closed its side;
                        # what it said before that is still to be read.
                        if e.errno not in (errno.EPIPE, errno.ECONNRESET):
                            raise
                        outgoing.clear()
                        feeding = False
                if ready & selectors.EVENT_READ:
                    try:
                        received = sock.recv_into(view)
                    except (BlockingIOError, InterruptedError):
                        continue
                    except ConnectionResetError:
                        received = 0
                    if not received:
                        raise AnsibleConnectionFailure(
                            'the agent at %s closed the connection before the command ended'
                            % address)
                    incoming += view[:received]
                    taken = 0
                    while code is None:
                        newline = incoming.find(b'\n', taken)
                        if newline < 0:
                            break
                        line = incoming[taken:newline]
                        taken = newline + 1
                        if not line.strip():
                            continue
                        try:
                            tag, data, frame = parse_frame(line)
                        except (ValueError, binascii.Error) as e:
                            raise AnsibleConnectionFailure('the agent at %s sent a malformed '
                                                           'frame: %s' % (address, e))
                        if tag in ('o', 'e'):
                            if data is None:
                                continue
                            if not open_gate:
                                open_gate, first = gate(tag, data)
                                if open_gate:
                                    outgoing[:0] = first
                                continue
                            handlers[tag](data)
                        elif tag == 'x':
                            code = frame.get('code')
                            if not isinstance(code, int):
                                code = -1
                        elif tag == 'err':
                            raise AnsibleConnectionFailure(
                                'the agent at %s could not run the command: %s'
                                % (address, frame.get('m')))
                    del incoming[:taken]
                    if len(incoming) > MAX_FRAME_LINE:
                        raise AnsibleConnectionFailure('the agent at %s sent an overlong frame'
                                                       % address)
    finally:
        view.release()
        selector.close()
        sock.close()
    return ExecOutcome(code, b''.join(collected['o']), b''.join(collected['e']))


def _file_chunks(handle):
    while True:
        block = handle.read(FILE_BLOCK_BYTES)
        if not block:
            return
        yield block


def _guest_failure(what, outcome):
    message = to_text(outcome.stderr, errors='surrogate_or_replace').strip()
    text = '%s (guest exit status %s)' % (what, outcome.code)
    return text + (': ' + message if message else '')


def _umask():
    mask = os.umask(0)
    os.umask(mask)
    return mask


def _parse_count(text):
    text = to_text(text, errors='surrogate_or_replace').strip()
    return int(text) if re.fullmatch(r'[0-9]+', text) else None


class Connection(ConnectionBase):
    """Commands and files through the guest agent's exec stream."""

    transport = 'tervain'
    has_pipelining = True

    def __init__(self, *args, **kwargs):
        super(Connection, self).__init__(*args, **kwargs)
        self._address = None

    def _connect(self):
        if self._connected:
            return self
        text = self.get_option('address') or self.get_option('remote_addr')
        if not text:
            raise AnsibleError('no agent address: set ansible_tervain_address')
        self._address = AgentAddress.parse(to_text(text))
        display.vvv('TERVAIN: agent at %s' % self._address, host=self._play_context.remote_addr)
        self._connected = True
        return self

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super(Connection, self).exec_command(cmd, in_data=in_data, sudoable=sudoable)
        display.vvv('EXEC %s' % to_text(cmd), host=self._play_context.remote_addr)
        stdin = [to_bytes(in_data)] if in_data else []
        gate = None
        if sudoable and self.become and self.become.expect_prompt():
            gate = self._become_gate()
        outcome = run_exec(self._address, cmd, stdin, timeout=self.get_option('timeout'),
                           gate=gate)
        if gate is not None:
            outcome.stdout = gate.kept + outcome.stdout
        return outcome.code, outcome.stdout, outcome.stderr

    def _become_gate(self):
        """Holds stdin back until become has asked for its password (which goes first) or has
        succeeded without one."""
        become = self.become
        seen = bytearray()

        def gate(tag, data):
            seen.extend(data)
            if become.check_success(bytes(seen)):
                gate.kept = bytes(seen) if tag == 'o' else b''
                return True, b''
            if become.check_password_prompt(bytes(seen)):
                password = become.get_option('become_pass', playcontext=self._play_context)
                line = to_bytes(password or '', errors='surrogate_or_strict') + b'\n'
                return True, (b'{"t":"i","d":"' + binascii.b2a_base64(line, newline=False)
                              + b'"}\n')
            return False, b''
        gate.kept = b''
        return gate

    def put_file(self, in_path, out_path):
        super(Connection, self).put_file(in_path, out_path)
        display.vvv('PUT %s TO %s' % (in_path, out_path), host=self._play_context.remote_addr)
        local = to_bytes(in_path, errors='surrogate_or_strict')
        if not os.path.isfile(local):
            raise AnsibleFileNotFound('file or module does not exist: %s' % to_native(in_path))
        if self.get_option('tervainctl'):
            return self._tervainctl_cp(in_path, 'guest:' + to_text(out_path))
        target = shlex.quote(to_text(out_path))
        size = os.path.getsize(local)
        with open(local, 'rb') as handle:
            outcome = run_exec(self._address, 'cat > %s && wc -c < %s' % (target, target),
                               _file_chunks(handle), timeout=self.get_option('timeout'))
        if outcome.code != 0:
            raise AnsibleError(_guest_failure('copying to %s failed' % out_path, outcome))
        held = _parse_count(outcome.stdout)
        if held != size:
            raise AnsibleError('copying to %s failed: %d bytes were sent but the guest file '
                               'holds %s' % (out_path, size, held))

    def fetch_file(self, in_path, out_path):
        super(Connection, self).fetch_file(in_path, out_path)
        display.vvv('FETCH %s TO %s' % (in_path, out_path), host=self._play_context.remote_addr)
        if self.get_option('tervainctl'):
            return self._tervainctl_cp('guest:' + to_text(in_path), out_path)
        source = shlex.quote(to_text(in_path))
        local = to_bytes(out_path, errors='surrogate_or_strict')
        # The bytes go to a file beside the target, which replaces it only once the count matched.
        fd, partial = tempfile.mkstemp(dir=os.path.dirname(local) or b'.', prefix=b'.tervain-')
        state = {'header': bytearray(), 'expected': None, 'received': 0}
        try:
            with os.fdopen(fd, 'wb') as handle:
                def take(data):
                    if state['expected'] is None:
                        header = state['header']
                        newline = data.find(b'\n')
                        header.extend(data if newline < 0 else data[:newline])
                        if newline < 0:
                            if len(header) > 64:
                                raise AnsibleError('the guest did not report the size of %s'
                                                   % in_path)
                            return
                        state['expected'] = _parse_count(bytes(header))
                        if state['expected'] is None:
                            raise AnsibleError('the guest reported no size for %s but "%s"'
                                               % (in_path, to_text(bytes(header))))
                        data = data[newline + 1:]
                    handle.write(data)
                    state['received'] += len(data)
                outcome = run_exec(self._address, 'wc -c < %s && cat < %s' % (source, source),
                                   on_stdout=take, timeout=self.get_option('timeout'))
            if outcome.code != 0:
                raise AnsibleError(_guest_failure('fetching %s failed' % in_path, outcome))
            if state['expected'] != state['received']:
                raise AnsibleError('fetching %s failed: the guest file holds %s bytes but %d '
                                   'arrived' % (in_path, state['expected'], state['received']))
            os.chmod(partial, 0o666 & ~_umask())
            os.rename(partial, local)
        except BaseException:
            if os.path.exists(partial):
                os.unlink(partial)
            raise

    def _tervainctl_cp(self, source, target):
        program = self.get_option('tervainctl')
        argv = [program, '--connect', str(self._address), 'cp', source, target]
        display.vvv('TERVAINCTL %s' % ' '.join(shlex.quote(a) for a in argv))
        try:
            done = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, check=False)
        except OSError as e:
            raise AnsibleError('cannot run %s: %s' % (program, to_native(e)))
        message = to_text(done.stderr, errors='surrogate_or_replace').strip()
        if done.returncode == 255:
            raise AnsibleConnectionFailure(message or 'tervainctl could not reach the agent')
        if done.returncode != 0:
            raise AnsibleError(message or 'tervainctl cp failed with status %d' % done.returncode)

    def close(self):
        # Every command has a connection of its own, closed when the command ends.
        self._connected = False
