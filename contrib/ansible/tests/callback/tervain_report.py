# The playbook test's report: every task's result per host and the play's stats, as one JSON
# document on stdout. ansible-core ships no JSON stdout callback of its own (that one lives in
# a separate collection), so the test brings this one.
from __future__ import annotations

import json

from ansible.parsing.ajson import AnsibleJSONEncoder
from ansible.plugins.callback import CallbackBase

DOCUMENTATION = '''
    name: tervain_report
    type: stdout
    short_description: the playbook test's JSON report
    description: Every task's result per host and the stats, as one JSON document.
'''


class CallbackModule(CallbackBase):
    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = 'stdout'
    CALLBACK_NAME = 'tervain_report'

    def __init__(self, display=None):
        super().__init__(display)
        self.plays = []

    def v2_playbook_on_play_start(self, play):
        self.plays.append({'play': {'name': play.get_name()}, 'tasks': []})

    def v2_playbook_on_task_start(self, task, is_conditional):
        self.plays[-1]['tasks'].append({'task': {'name': task.get_name()}, 'hosts': {}})

    def v2_playbook_on_handler_task_start(self, task):
        self.v2_playbook_on_task_start(task, False)

    def _record(self, result, **outcome):
        entry = dict(result._result)
        entry.update(outcome)
        self.plays[-1]['tasks'][-1]['hosts'][result._host.get_name()] = entry

    def v2_runner_on_ok(self, result):
        self._record(result)

    def v2_runner_on_failed(self, result, ignore_errors=False):
        self._record(result, failed=True)

    def v2_runner_on_unreachable(self, result):
        self._record(result, unreachable=True)

    def v2_runner_on_skipped(self, result):
        self._record(result)

    def v2_playbook_on_stats(self, stats):
        summary = {host: stats.summarize(host) for host in sorted(stats.processed)}
        self._display.display(json.dumps({'plays': self.plays, 'stats': summary},
                                         cls=AnsibleJSONEncoder, sort_keys=True))
