# Turns a list of guests (a vsock context id or an agent socket per guest) into inventory hosts
# reached through the tervain connection.

from __future__ import (absolute_import, division, print_function)
__metaclass__ = type

DOCUMENTATION = r'''
    name: guests
    short_description: Guest VMs reached through the Tervain agent
    description:
        - Reads a YAML file whose name ends in C(tervain.yml) or C(tervain.yaml) and makes one host
          per guest, with the connection and the agent address set.
    author: Tervain maintainers
    version_added: "1.0.0"
    options:
        plugin:
            description: Marks the file as this plugin's.
            required: true
            choices: ['tervain.agent.guests']
        guests:
            description:
                - One entry per guest. C(name) is the host name; exactly one of C(cid) (a vsock
                  context id, with C(port) optional), C(socket) (the path of an agent's Unix
                  socket) or C(address) (C(vsock:CID[:PORT]) or C(unix:PATH)) says where its
                  agent listens; C(groups) lists groups to add it to; C(vars) sets host variables.
            type: list
            elements: dict
            required: true
        group:
            description: A group that holds every guest of this file.
            type: str
            default: tervain_guests
        connection:
            description: The connection the hosts use (the plain name C(tervain) when the plugin
                file is installed on its own).
            type: str
            default: tervain.agent.tervain
'''

EXAMPLES = r'''
# guests.tervain.yml
plugin: tervain.agent.guests
guests:
  - name: build-mac-1
    cid: 3
    groups: [macos]
  - name: dev-linux
    socket: /run/vms/dev-linux/agent.sock
    vars:
      ansible_python_interpreter: /usr/bin/python3
'''

from ansible.errors import AnsibleParserError
from ansible.module_utils.six import string_types
from ansible.plugins.inventory import BaseInventoryPlugin


def guest_address(entry):
    """The agent address of one guest entry, or a ValueError saying what is wrong with it."""
    given = [key for key in ('cid', 'socket', 'address') if entry.get(key) is not None]
    if len(given) != 1:
        raise ValueError('give exactly one of cid, socket or address')
    if 'cid' in given:
        cid = entry['cid']
        port = entry.get('port', 2035)
        if isinstance(cid, bool) or not isinstance(cid, int) or cid < 0:
            raise ValueError('cid must be a non-negative number')
        if isinstance(port, bool) or not isinstance(port, int) or not 0 <= port < 2 ** 32:
            raise ValueError('port must be a number')
        return 'vsock:%d:%d' % (cid, port)
    if 'socket' in given:
        if not isinstance(entry['socket'], string_types) or not entry['socket']:
            raise ValueError('socket must be a path')
        return 'unix:' + entry['socket']
    if not isinstance(entry['address'], string_types):
        raise ValueError('address must be a string')
    return entry['address']


class InventoryModule(BaseInventoryPlugin):

    NAME = 'tervain.agent.guests'

    def verify_file(self, path):
        return (super(InventoryModule, self).verify_file(path)
                and path.endswith(('tervain.yml', 'tervain.yaml')))

    def parse(self, inventory, loader, path, cache=True):
        super(InventoryModule, self).parse(inventory, loader, path, cache)
        self._read_config_data(path)
        everyone = self.inventory.add_group(self.get_option('group'))
        connection = self.get_option('connection')
        for index, entry in enumerate(self.get_option('guests') or []):
            if not isinstance(entry, dict) or not entry.get('name'):
                raise AnsibleParserError('%s: guest %d needs a name' % (path, index + 1))
            name = entry['name']
            try:
                address = guest_address(entry)
            except ValueError as e:
                raise AnsibleParserError('%s: guest %s: %s' % (path, name, e))
            self.inventory.add_host(name, group=everyone)
            self.inventory.set_variable(name, 'ansible_connection', connection)
            self.inventory.set_variable(name, 'ansible_tervain_address', address)
            for group in entry.get('groups') or []:
                self.inventory.add_group(group)
                self.inventory.add_child(group, name)
            for key, value in (entry.get('vars') or {}).items():
                self.inventory.set_variable(name, key, value)
