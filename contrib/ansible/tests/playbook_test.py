#!/usr/bin/env python3
"""Runs a real Ansible over two agents on Unix sockets and checks what it reports and leaves.

    playbook_test.py AGENT TERVAINCTL

AGENT and TERVAINCTL are the binaries the build made. Two agents start in a temporary folder,
each with a home of its own that stands for its guest's disk. The collection is built and
installed from its tarball; guest1 uses it (and tervainctl for file transfers), guest2 uses the
plugin file on its own from a connection-plugin folder, with pipelining (modules on stdin). A third
host has no agent and must come out unreachable. Exits 77 (skipped) when Ansible is not installed.
"""

import hashlib
import json
import os
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
COLLECTION = os.path.dirname(HERE)
PAYLOAD_BYTES = 20 * 1024 * 1024
SKIPPED = 77

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print('FAIL: ' + what, file=sys.stderr)


def sha1(path):
    digest = hashlib.sha1()
    with open(path, 'rb') as handle:
        for block in iter(lambda: handle.read(1 << 20), b''):
            digest.update(block)
    return digest.hexdigest()


class Agent:
    """One agent process on a Unix socket; stopped by its own pid only."""

    def __init__(self, program, root, name):
        self.home = os.path.join(root, name)
        os.mkdir(self.home)
        self.socket = os.path.join(root, name + '.sock')
        self.log_path = os.path.join(root, name + '.log')
        env = dict(os.environ, HOME=self.home, TERVAIN_DULK_DISABLE='1')
        with open(self.log_path, 'wb') as log:
            self.process = subprocess.Popen([program, '--unix', self.socket], env=env,
                                            stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=subprocess.STDOUT, cwd=self.home)
        deadline = time.monotonic() + 20
        while not os.path.exists(self.socket):
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError('the agent did not start: ' + self.log())
            time.sleep(0.01)

    def log(self):
        with open(self.log_path, 'r', errors='replace') as handle:
            return handle.read()

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(10)
        # A sanitized build runs a sanitized agent: a report fails the test.
        text = self.log()
        for marker in ('ERROR: AddressSanitizer', 'WARNING: ThreadSanitizer',
                       'ERROR: LeakSanitizer', ': runtime error: '):
            check(marker not in text, '%s reported "%s":\n%s' % (self.home, marker, text))


def inventory_text(guests):
    lines = ['plugin: tervain.agent.guests', 'guests:']
    for entry in guests:
        lines.append('  - ' + json.dumps(entry))
    return '\n'.join(lines) + '\n'


def ansible_env(root):
    env = dict(os.environ)
    for key in list(env):
        if key.startswith('ANSIBLE_'):
            del env[key]
    config = os.path.join(root, 'ansible.cfg')
    open(config, 'w').close()
    env.update({
        'HOME': os.path.join(root, 'controller'),
        'ANSIBLE_CONFIG': config,
        'ANSIBLE_COLLECTIONS_PATH': os.path.join(root, 'collections'),
        'ANSIBLE_CONNECTION_PLUGINS': os.path.join(root, 'standalone'),
        'ANSIBLE_LOCAL_TEMP': os.path.join(root, 'controller', 'tmp'),
        'ANSIBLE_CALLBACK_PLUGINS': os.path.join(HERE, 'callback'),
        'ANSIBLE_STDOUT_CALLBACK': 'tervain_report',
        'ANSIBLE_NOCOLOR': '1',
        'ANSIBLE_RETRY_FILES_ENABLED': 'false',
        'ANSIBLE_FORKS': '3',
    })
    env.pop('TERVAIN_AGENT_ADDR', None)
    os.makedirs(env['ANSIBLE_LOCAL_TEMP'])
    return env


def install_plugins(root, env):
    subprocess.run([os.path.join(COLLECTION, 'build.sh'), root], env=env, check=True,
                   stdout=subprocess.DEVNULL, timeout=120)
    tarball = os.path.join(root, 'tervain-agent-1.0.0.tar.gz')
    subprocess.run(['ansible-galaxy', 'collection', 'install', '--offline', '-p',
                    env['ANSIBLE_COLLECTIONS_PATH'], tarball], env=env, check=True,
                   stdout=subprocess.DEVNULL, timeout=120)
    os.mkdir(env['ANSIBLE_CONNECTION_PLUGINS'])
    shutil.copy(os.path.join(COLLECTION, 'plugins', 'connection', 'tervain.py'),
                env['ANSIBLE_CONNECTION_PLUGINS'])


def check_inventory_addresses(root, env):
    """The inventory plugin's addresses for vsock guests, without connecting to any."""
    path = os.path.join(root, 'fleet.tervain.yml')
    with open(path, 'w') as handle:
        handle.write(inventory_text([
            {'name': 'mac1', 'cid': 3, 'groups': ['macos']},
            {'name': 'mac2', 'cid': 4, 'port': 5000},
            {'name': 'dev', 'address': 'vsock:7'},
        ]))
    listed = subprocess.run(['ansible-inventory', '-i', path, '--list'], env=env, check=True,
                            capture_output=True, timeout=120)
    hostvars = json.loads(listed.stdout)['_meta']['hostvars']
    for host, address in (('mac1', 'vsock:3:2035'), ('mac2', 'vsock:4:5000'), ('dev', 'vsock:7')):
        check(hostvars.get(host, {}).get('ansible_tervain_address') == address,
              'inventory address of %s: %s' % (host, hostvars.get(host)))
    check(hostvars.get('mac1', {}).get('ansible_connection') == 'tervain.agent.tervain',
          'inventory connection of mac1')
    with open(path, 'w') as handle:
        handle.write(inventory_text([{'name': 'both', 'cid': 3, 'socket': '/x.sock'}]))
    refused = subprocess.run(['ansible-inventory', '-i', path, '--list'], env=env,
                             capture_output=True, timeout=120)
    check(b'give exactly one of cid, socket or address' in refused.stderr,
          'a guest with both cid and socket is refused: %r' % refused.stderr[-400:])


def task_results(report):
    """{task name: {host: result}} from the report of callback/tervain_report.py."""
    results = {}
    for play in report['plays']:
        for task in play['tasks']:
            results[task['task']['name']] = task['hosts']
    return results


def check_play(report, root, agents, payload, fetch_dir):
    results = task_results(report)
    stats = report['stats']
    check(stats.get('gone', {}).get('unreachable') == 1,
          'gone is unreachable: %s' % stats.get('gone'))
    check(stats.get('guest1', {}).get('failures') == 0 and stats['guest1'].get('ignored') == 1,
          'guest1 stats: %s' % stats.get('guest1'))
    check(stats.get('guest2', {}).get('failures') == 1 and stats['guest2'].get('ignored') == 1,
          'guest2 stats: %s' % stats.get('guest2'))
    payload_sum = sha1(payload)
    for name, agent in sorted(agents.items()):
        def result(task):
            return results.get(task, {}).get(name, {})
        home = agent.home
        check(result('command').get('stdout') == 'hello ' + name, 'command on %s: %s'
              % (name, result('command')))
        piped = result('shell with a pipe and an exit status')
        outcome = (piped.get('rc'), piped.get('stdout'), piped.get('stderr'),
                   piped.get('failed', False))
        check(outcome == (3, 'a,b,c', 'warned', False), 'shell on %s: %s' % (name, piped))
        raw = result('raw')
        check(raw.get('rc') == 5 and raw.get('stdout', '').strip() == 'raw 42'
              and raw.get('stderr', '').strip() == 'raw-stderr', 'raw on %s: %s' % (name, raw))

        copied = os.path.join(home, 'payload.bin')
        check(os.path.isfile(copied) and sha1(copied) == payload_sum,
              'the copied file on %s equals the payload' % name)
        check(os.path.isfile(copied) and stat.S_IMODE(os.stat(copied).st_mode) == 0o640,
              'the copied file on %s has mode 0640' % name)
        with open(os.path.join(home, 'greeting.txt'), encoding='utf-8') as handle:
            greeting = handle.read()
        check(greeting == 'Grüße from %s\nmode=new\nport=2035\n' % name,
              'template and lineinfile on %s: %r' % (name, greeting))
        check(result('lineinfile adds a line').get('changed') is True, 'lineinfile changed')
        conf = os.path.join(home, 'conf.d')
        check(os.path.isdir(conf) and stat.S_IMODE(os.stat(conf).st_mode) == 0o750,
              'file made conf.d 0750 on %s' % name)
        check(os.readlink(os.path.join(home, 'greeting.link')) == 'greeting.txt',
              'file made the link on %s' % name)
        found = result('stat').get('stat', {})
        check(found.get('size') == PAYLOAD_BYTES and found.get('checksum') == payload_sum,
              'stat on %s: %s' % (name, {k: found.get(k) for k in ('size', 'checksum')}))
        fetched = os.path.join(fetch_dir, name + '.bin')
        check(os.path.isfile(fetched) and sha1(fetched) == payload_sum,
              'the fetched file from %s equals the payload' % name)
        missing = result('failing command, ignored')
        check(missing.get('failed') is True and missing.get('rc') == 1
              and 'No such file' in missing.get('stderr', ''), 'failing command on %s: %s'
              % (name, missing))
        check(not [f for f in os.listdir(fetch_dir) if f.startswith('.tervain-')],
              'no partial fetch files are left')

    failing = results.get('failing task', {})
    check(failing.get('guest2', {}).get('rc') == 7 and failing['guest2'].get('failed') is True,
          'failing task on guest2: %s' % failing.get('guest2'))
    after = results.get('after the failure', {})
    check(after.get('guest1', {}).get('stdout') == 'still here' and 'guest2' not in after,
          'only guest1 goes on after the failure: %s' % sorted(after))


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    agent_program, tervainctl = (os.path.abspath(a) for a in sys.argv[1:])
    if not shutil.which('ansible-playbook'):
        print('SKIPPED: ansible-playbook is not installed (scripts/deps installs ansible-core)')
        return SKIPPED
    root = tempfile.mkdtemp(prefix='tervain-ansible-')
    agents = {}
    try:
        env = ansible_env(root)
        install_plugins(root, env)
        check_inventory_addresses(root, env)

        payload = os.path.join(root, 'payload.bin')
        with open(payload, 'wb') as handle:
            handle.write(os.urandom(PAYLOAD_BYTES))
        fetch_dir = os.path.join(root, 'fetched')
        os.mkdir(fetch_dir)
        for name in ('guest1', 'guest2'):
            agents[name] = Agent(agent_program, root, name)
        # The Python of the "guests" is the system's, which Ansible's modules run under.
        python = {'ansible_python_interpreter': '/usr/bin/python3'}
        inventory = os.path.join(root, 'guests.tervain.yml')
        with open(inventory, 'w') as handle:
            handle.write(inventory_text([
                {'name': 'guest1', 'socket': agents['guest1'].socket,
                 'vars': dict(python, guest_root=agents['guest1'].home,
                              ansible_tervain_tervainctl=tervainctl)},
                {'name': 'guest2', 'address': 'unix:' + agents['guest2'].socket,
                 'vars': dict(python, guest_root=agents['guest2'].home,
                              ansible_connection='tervain', ansible_pipelining=True)},
                {'name': 'gone', 'socket': os.path.join(root, 'nobody.sock'),
                 'vars': dict(python, guest_root=root)},
            ]))
        play = subprocess.run(
            ['ansible-playbook', '-i', inventory, os.path.join(HERE, 'playbook.yml'),
             '-e', json.dumps({'payload': payload, 'fetch_dir': fetch_dir})],
            env=env, capture_output=True, timeout=900, cwd=HERE)
        check(play.returncode == 4 or play.returncode == 2,
              'ansible-playbook exits 2 or 4 (failed and unreachable hosts), not %d'
              % play.returncode)
        try:
            report = json.loads(play.stdout)
        except ValueError:
            report = None
            check(False, 'ansible-playbook printed no JSON report:\n%s\n%s'
                  % (play.stdout[-3000:].decode(errors='replace'),
                     play.stderr[-3000:].decode(errors='replace')))
        if report is not None:
            check_play(report, root, agents, payload, fetch_dir)
            if failures:
                print(json.dumps(report, indent=1)[-20000:], file=sys.stderr)
    finally:
        for agent in agents.values():
            agent.stop()
        shutil.rmtree(root, ignore_errors=True)
    if failures:
        print('%d check(s) failed' % len(failures), file=sys.stderr)
        return 1
    print('ok: a playbook over two agents did what it said')
    return 0


if __name__ == '__main__':
    sys.exit(main())
