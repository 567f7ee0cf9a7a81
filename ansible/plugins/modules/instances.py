#!/usr/bin/python
"""Module that tells which instances are recorded."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: instances
short_description: Tell which application instances are recorded on a host
description:
  - Reads the records of C(zendrelctl) and makes them a fact. Nothing is changed.
version_added: "1.0.0"
author:
  - zendrel maintainers (@zendrel)
options:
  program:
    description: The program, by its path, or by its name where it is found.
    type: str
    default: zendrelctl
extends_documentation_fragment:
  - ansible.builtin.action_common_attributes
attributes:
  check_mode:
    support: full
  diff_mode:
    support: none
  platform:
    platforms: debian
seealso:
  - module: veska.zendrel.instance
"""

EXAMPLES = r"""
- name: Read what is installed
  veska.zendrel.instances:

- name: Show what is not whole
  ansible.builtin.debug:
    msg: "{{ zendrel_instances.values() | rejectattr('state', 'eq', 'installed') | map(attribute='instance') }}"
"""

RETURN = r"""
ansible_facts:
  description: Facts to add.
  returned: always
  type: dict
  contains:
    zendrel_instances:
      description: What C(zendrelctl instances --json) prints of each instance, by the instance's name.
      returned: always
      type: dict
      sample:
        example.com-guestbook:
          application-subdirectory: guestbook
          directory: /var/www/vhosts/example.com/httpdocs/guestbook
          instance: example.com-guestbook
          package: guestbook
          release: "1"
          state: installed
          version: "1.0"
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.veska.zendrel.plugins.module_utils.zendrelctl import PROGRAM_ARGUMENT, Trouble, Zendrelctl


def main():
    """Runs the module."""
    module = AnsibleModule(argument_spec=dict(program=PROGRAM_ARGUMENT), supports_check_mode=True)
    try:
        records = Zendrelctl(module).instances()
    except Trouble as e:
        module.fail_json(msg=str(e))
    module.exit_json(
        changed=False, ansible_facts=dict(zendrel_instances=dict((record["instance"], record) for record in records))
    )


if __name__ == "__main__":
    main()
