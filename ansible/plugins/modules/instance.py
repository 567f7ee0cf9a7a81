#!/usr/bin/python
"""Module that brings instances of applications to what is wanted of them."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: instance
short_description: Deploy, upgrade, compare, roll back and remove application instances
description:
  - Brings one instance of a packaged web application, or many in one call, to what is wanted, by
    C(zendrelctl), and changes nothing where the records say that it is so already.
  - In check mode, and with C(--diff), the plan of C(zendrelctl plan) is shown. A package with mistakes, and
    one whose extraction is known to fail, fails in check mode as it does without it.
version_added: "1.0.0"
author:
  - zendrel maintainers (@zendrel)
options:
  state:
    description:
      - With C(present), an instance that is not recorded is deployed, one that is recorded with another
        package, version, release or other options is upgraded, and one that a killed or failed command has
        left unfinished is finished.
      - With C(absent), what is recorded is removed. What visitors or the owner have put there stays.
      - With C(verified), nothing is changed. The task fails where an instance is not recorded, is not
        whole, or differs from what was installed. Where none is named, all that are recorded are compared.
      - With C(rolled_back), an instance that is at I(version) goes back to what its last upgrade has
        replaced. One that is at another version is left as it is, so that a host that the upgrade did
        not reach stays there.
    type: str
    choices: [present, absent, verified, rolled_back]
    default: present
  instances:
    description:
      - Instances to treat in one call, each with the options of this module. What is given beside the list
        holds for those that do not say it themselves.
      - One call saves what the engine needs for each. When an instance fails, those after it are treated
        nevertheless, and the task fails at the end.
    type: list
    elements: dict
  name:
    description:
      - The name of the record. Without it, the instance is found by its directory, and a new one is
        named after the virtual host and the subdirectory.
    type: str
  package_dir:
    description: The directory of the unpacked package, on the host. Required by C(present).
    type: path
  metadata_file:
    description: Metadata, on the host, to read in place of the package's own.
    type: path
    default: ""
  version:
    description:
      - The version that is wanted. The task fails when the package is of another one. Required by
        C(present); with C(rolled_back), the version that is not wanted any more.
    type: str
  release:
    description:
      - The release that is wanted. Without it, with C(present) the package's own is.
    type: str
  vhost_path:
    description: The virtual host's directory. Required by C(present).
    type: path
  www_root:
    description: The document root. Required by C(present); by other states unless I(name) is given.
    type: path
  user_name:
    description: The site's system user. Required by C(present).
    type: str
  application_subdirectory:
    description: The application's directory in the document root, C(.) for the root itself.
    type: str
    default: "."
  script:
    description:
      - Run the package's script, then and later. Without it, an instance goes on as it was deployed, and
        a new one has no script run.
    type: bool
  script_parameters:
    description:
      - Words for the script. C({application}) in one of them is the application's directory. Without it,
        those given at the deployment.
    type: list
    elements: str
  apache_conf:
    description:
      - Name of the Apache file to write. Without it, an instance goes on as it was deployed, and for a
        new one none is written.
    type: str
  skip_webserver_write:
    description:
      - Keep the modes of writable mappings. Without it, an instance goes on as it was deployed.
    type: bool
  keep:
    description: How many old trees an upgrade keeps for C(rolled_back).
    type: int
    default: 1
  in_place:
    description:
      - Upgrade over the running tree, where it cannot be exchanged. B(An extraction that fails then
        removes the application with all data in it.) Nothing is kept.
    type: bool
    default: false
  skip_script:
    description: With C(absent), do not run the package's script.
    type: bool
    default: false
  wait:
    description: Seconds to wait for another command that is at work for the instance.
    type: int
    default: 60
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
    support: full
  platform:
    platforms: debian
notes:
  - An upgrade cannot change I(apache_conf) and I(skip_webserver_write), nor go without the script or its words.
    Where the records say otherwise, the task fails.
  - An instance that was changed by hand is as it is wanted, as long as its record is. C(verified) tells.
seealso:
  - module: veska.zendrel.instances
"""

EXAMPLES = r"""
- name: Have the guestbook in Alice's site
  veska.zendrel.instance:
    package_dir: /srv/packages/guestbook-1.1-1
    version: "1.1"
    vhost_path: /var/www/vhosts/example.com
    www_root: /var/www/vhosts/example.com/httpdocs
    user_name: alice
    application_subdirectory: guestbook
    script: true
    script_parameters: ["--data={application}/data"]
    apache_conf: guestbook.conf
  notify: Reload Apache

- name: Have it in each of two directories
  veska.zendrel.instance:
    package_dir: /srv/packages/guestbook-1.1-1
    version: "1.1"
    vhost_path: /var/www/vhosts/example.com
    www_root: /var/www/vhosts/example.com/httpdocs
    user_name: alice
    instances:
      - application_subdirectory: visitors
      - application_subdirectory: customers

- name: Fail when somebody has changed any
  veska.zendrel.instance:
    state: verified

- name: Go back from 1.1
  veska.zendrel.instance:
    name: example.com-guestbook
    state: rolled_back
    version: "1.1"
  notify: Reload Apache
"""

RETURN = r"""
directory:
  description: The application's directory; the name where that is all that is known.
  returned: always, with I(instances) in I(results)
  type: str
action:
  description: The command of C(zendrelctl) that did it, or would.
  returned: always, with I(instances) in I(results)
  type: str
  choices: [none, deploy, upgrade, rollback, remove]
before:
  description: Name, version and release of what was there; empty if nothing was.
  returned: always, with I(instances) in I(results)
  type: str
  sample: guestbook 1.0-1
after:
  description: The same of what is there now, or would be.
  returned: always, with I(instances) in I(results)
  type: str
  sample: guestbook 1.1-1
plan:
  description: How many files and directories are created, replaced, removed and so on.
  returned: in check mode and with C(--diff), when there is something to extract
  type: dict
  sample: {"create": 14, "keep": 1}
differences:
  description: What was found by comparing, as C(zendrelctl verify) prints it.
  returned: with C(verified)
  type: list
  elements: str
  sample: ["changed index.html"]
output:
  description: What the command printed, such as what a removal has left.
  returned: when a command was run
  type: list
  elements: str
results:
  description: The above for each of I(instances), with C(changed), and with C(failed) and C(msg) if it failed.
  returned: with I(instances)
  type: list
  elements: dict
"""

import os

from ansible.module_utils.basic import AnsibleModule
from ansible.module_utils.common.arg_spec import ArgumentSpecValidator
from ansible_collections.veska.zendrel.plugins.module_utils.zendrelctl import (
    DIFFERENT,
    DONE,
    PROGRAM_ARGUMENT,
    Trouble,
    Zendrelctl,
    summary,
)

INSTALLED = "installed"
DEPLOYING = "deploying"
REMOVING = "removing"

SITE = ("vhost_path", "www_root", "user_name", "application_subdirectory")

# Options of a deployment that an instance keeps unless others are asked for.
KEPT = ("script", "script_parameters", "apache_conf", "skip_webserver_write")

OPTIONS = dict(
    state=dict(type="str", choices=["present", "absent", "verified", "rolled_back"], default="present"),
    name=dict(type="str"),
    package_dir=dict(type="path"),
    metadata_file=dict(type="path", default=""),
    version=dict(type="str"),
    release=dict(type="str"),
    vhost_path=dict(type="path"),
    www_root=dict(type="path"),
    user_name=dict(type="str"),
    application_subdirectory=dict(type="str", default="."),
    script=dict(type="bool"),
    script_parameters=dict(type="list", elements="str"),
    apache_conf=dict(type="str"),
    skip_webserver_write=dict(type="bool"),
    keep=dict(type="int", default=1),
    in_place=dict(type="bool", default=False),
    skip_script=dict(type="bool", default=False),
    wait=dict(type="int", default=60),
)
REQUIRED_IF = [
    ("state", "present", ("package_dir", "version", "vhost_path", "www_root", "user_name")),
    ("state", "rolled_back", ("version",)),
]

DIFF_LINES = 500


class Packages(object):
    """What packages are, each looked over once."""

    def __init__(self, ctl):
        self.ctl = ctl
        self.known = {}

    def read(self, source):
        """Looks a package over. Nothing is touched for one with mistakes."""
        key = tuple(source)
        if key not in self.known:
            self.known[key] = self.ctl.read(["check"] + source, (DONE, DIFFERENT))
        package = self.known[key]
        errors = [
            "%s: %s" % (finding["where"], finding["text"])
            for finding in package["findings"]
            if finding["severity"] == "error"
        ]
        if errors:
            raise Trouble("%s has mistakes: %s" % (source[0], summary(errors)))
        return package


class Instance(object):
    """One instance, on record or to come."""

    def __init__(self, module, ctl, packages, records, params):
        self.module = module
        self.ctl = ctl
        self.packages = packages
        self.params = params
        self.records = records
        self.record = find_record(records, params)
        now = full_version(self.record) if self.record else ""
        where = directory_of(params) if params["www_root"] else params["name"]
        where = self.record["directory"] if self.record else where
        self.result = dict(changed=False, action="none", directory=where, before=now, after=now)

    def bring(self):
        """Does what is wanted, and gives what came of it."""
        try:
            getattr(self, self.params["state"])()
        except Trouble as e:
            self.result.update(failed=True, msg=str(e))
        return self.result

    def state(self):
        """What the record says, with "absent" for none."""
        return self.record["state"] if self.record else "absent"

    # --- The states --------------------------------------------------------------------------------

    def present(self):
        """Deploys or upgrades, unless it is there."""
        self.require_this_site()
        package = self.packages.read(self.source())
        for word in ("version", "release"):
            if self.params[word] not in (None, package[word]):
                raise Trouble(
                    "%s holds %s, not %s %s"
                    % (self.params["package_dir"], full_version(package), word, self.params[word])
                )
        others = []
        if self.state() not in ("absent", DEPLOYING, REMOVING):
            others = other_options(self.record, self.params)
            self.require_upgradable(others)
        if self.state() == INSTALLED and full_version(self.record) == full_version(package) and not others:
            return
        self.result["after"] = full_version(package)
        if self.state() == REMOVING:
            self.change("remove", self.remove_words())
            self.record = None
        if self.state() in ("absent", DEPLOYING):
            self.tell_plan(self.source() + self.site())
            self.change("deploy", self.deploy_words())
        else:
            self.tell_plan(self.source() + [self.named()], self.old_source())
            self.change("upgrade", self.upgrade_words())

    def absent(self):
        """Removes what is recorded."""
        if self.record:
            self.result["after"] = ""
            self.tell_versions()
            self.change("remove", self.remove_words())

    def verified(self):
        """Compares, and fails where something differs."""
        if not self.record:
            raise Trouble("no such instance is recorded")
        name = self.record["instance"]
        lines = self.ctl.run(["verify", self.named()], (DONE, DIFFERENT)).splitlines()
        self.result["differences"] = [line[len(name) + 1:] for line in lines]
        if lines:
            raise Trouble("%s differs from what was installed: %s" % (name, summary(self.result["differences"])))

    def rolled_back(self):
        """Takes an upgrade back."""
        if not self.record:
            return
        interrupted = self.state() == "rollback interrupted"
        if self.state() != INSTALLED and not interrupted:
            raise Trouble("it is recorded as %s: finish that first" % self.state())
        other = any(self.params[word] not in (None, self.record[word]) for word in ("version", "release"))
        if other and not interrupted:
            return
        if self.record["kept"]:
            self.result["after"] = full_version(dict(self.record["kept"][0], package=self.record["package"]))
        elif not interrupted:
            raise Trouble("nothing is kept of instance %s" % self.record["instance"])
        self.tell_versions()
        self.change("rollback", ["rollback", self.named(), self.waiting()])

    def change(self, action, words):
        """Runs what changes the site."""
        if not self.module.check_mode:
            self.result.setdefault("output", []).extend(self.ctl.run(words).splitlines())
        self.result.update(action=action, changed=True)

    # --- What must be so ---------------------------------------------------------------------------

    def require_this_site(self):
        """The name must not be that of an instance elsewhere, nor the place that of another instance."""
        if not self.record:
            there = find_record(self.records, dict(self.params, name=None))
            if there:
                raise Trouble("%s already has instance %s" % (there["directory"], there["instance"]))
            return
        same = self.record["directory"] == directory_of(self.params)
        same = same and os.path.normpath(self.record["vhost-path"]) == os.path.normpath(self.params["vhost_path"])
        if not same or self.record["user-name"] != self.params["user_name"]:
            raise Trouble(
                "instance %s is recorded in %s, for %s"
                % (self.record["instance"], self.record["directory"], self.record["user-name"])
            )

    def require_upgradable(self, others):
        """An upgrade must be able to do what is asked for."""
        fixed = [
            name
            for name in others
            if name in ("apache_conf", "skip_webserver_write")
            or name in ("script", "script_parameters") and not self.params[name]
        ]
        if fixed:
            raise Trouble(
                "an upgrade cannot change %s of instance %s: remove it first, or leave the option out"
                % (", ".join(fixed), self.record["instance"])
            )

    # --- Commands ----------------------------------------------------------------------------------

    def source(self):
        """The package, as the program takes it."""
        return [self.params["package_dir"]] + self.given("metadata_file")

    def old_source(self):
        """The package that is installed, if it is still there."""
        package, metadata = self.record["package-directory"], self.record["options"]["metadata-file"]
        return [package] + ([option("metadata_file", metadata)] if metadata else []) if os.path.isdir(package) else []

    def site(self):
        """The site, as the program takes it."""
        return [option(name, self.params[name]) for name in SITE]

    def named(self):
        """The record, as the program takes it."""
        return option("instance", self.record["instance"])

    def waiting(self):
        """How long to wait."""
        return option("wait", self.params["wait"])

    def given(self, *names):
        """Those options that there are."""
        return [option(name, self.params[name]) for name in names if self.params[name]]

    def script_words(self):
        """Whether and how a script is run."""
        return (["--script"] if self.params["script"] else []) + self.script_parameters()

    def script_parameters(self):
        """The script's words."""
        return [option("script_parameter", word) for word in self.params["script_parameters"] or []]

    def deploy_words(self):
        """The deployment."""
        words = ["deploy"] + self.source() + self.site() + self.script_words() + self.given("apache_conf")
        if self.params["name"]:
            words.append(option("instance", self.params["name"]))
        return words + [self.waiting()] + (["--skip-webserver-write"] if self.params["skip_webserver_write"] else [])

    def upgrade_words(self):
        """The upgrade."""
        words = ["upgrade"] + self.source() + [self.named(), self.waiting()] + self.script_words()
        return words + (["--in-place"] if self.params["in_place"] else [option("keep", self.params["keep"])])

    def remove_words(self):
        """The removal."""
        words = ["--skip-script"] if self.params["skip_script"] else self.script_parameters()
        return ["remove", self.named(), self.waiting()] + words

    # --- What is shown -----------------------------------------------------------------------------

    def tell_versions(self, before=(), after=()):
        """A difference of texts: the versions, then lines for files."""
        texts = []
        for version, lines in ((self.result["before"], before), (self.result["after"], after)):
            shown = ([version] if version else []) + list(lines[:DIFF_LINES])
            if len(lines) > DIFF_LINES:
                shown.append("and %d more" % (len(lines) - DIFF_LINES))
            texts.append("".join(line + "\n" for line in shown))
        where = self.result["directory"]
        self.result["diff"] = dict(before_header=where, after_header=where, before=texts[0], after=texts[1])

    def tell_plan(self, words, old=()):
        """What the extraction would do where somebody asks, and what an upgrade from the old package would remove."""
        if not self.module.check_mode and not self.module._diff:
            return
        plan = self.plan(words)
        counts = {}
        for step in plan["steps"]:
            counts[step["action"]] = counts.get(step["action"], 0) + 1
        names = set(step["path"] for step in plan["steps"])
        steps = self.plan(list(old) + [self.named()])["steps"] if old else []
        gone = [step for step in steps if step["path"] not in names and "before" in step]
        if gone:
            counts["remove"] = len(gone)
        self.result["plan"] = counts
        changing = [step for step in plan["steps"] if not is_same(step)]
        before = sorted((name_of(step), step["before"]) for step in changing + gone if "before" in step)
        after = sorted((name_of(step) + place_of(step), step["mode"]) for step in changing)
        self.tell_versions(*[["%s %s" % (mode, name) for name, mode in lines] for lines in (before, after)])
        failures = ["%s: %s" % (each["path"], each["reason"]) for each in plan["failures"]]
        if failures and self.module.check_mode:
            raise Trouble("the extraction would fail: %s" % summary(failures))
        for each in plan["warnings"]:
            self.module.warn("%s: %s" % (each["path"], each["reason"]))

    def plan(self, words):
        """The plan for a package."""
        skip = self.params["skip_webserver_write"]
        if skip is None and self.record:
            skip = self.record["options"]["skip-webserver-write"]
        words = ["plan"] + words + (["--skip-webserver-write"] if skip else [])
        return self.ctl.read(words, (DONE, DIFFERENT))


def option(name, value):
    """A parameter as the program takes it."""
    return "--%s=%s" % (name.replace("_", "-"), value)


def directory_of(params):
    """Where an application lies, spelled as in records."""
    below = params["application_subdirectory"].strip("/")
    return os.path.normpath("/%s/%s" % ((params["www_root"] or "").strip("/"), below))


def full_version(record):
    """Name, version and release of an instance or a package in one."""
    return "%s %s-%s" % (record["package"], record["version"], record["release"])


def find_record(records, params):
    """The record of an instance, by its name or else by its directory."""
    key = "instance" if params["name"] else "directory"
    value = params["name"] or directory_of(params)
    return next((record for record in records if record[key] == value), None)


def other_options(record, params):
    """Those that are asked for, and were others at the deployment."""
    recorded = record["options"]
    names = [name for name in KEPT if params[name] not in (None, recorded[name.replace("_", "-")])]
    return names + (["metadata_file"] if params["metadata_file"] != recorded["metadata-file"] else [])


def name_of(step):
    """What a step of a plan is about."""
    return step["path"] + ("/" if step["type"] == "dir" else "")


def place_of(step):
    """What is in its place."""
    return " (in place of what is %s)" % step["replaced"] if "replaced" in step else ""


def is_same(step):
    """Whether what is there is as it will be."""
    return step["action"] == "keep" or step.get("replaced") == "equal" and step["before"] == step["mode"]


def all_wanted(module, records):
    """The options of each instance."""
    common = dict((name, module.params[name]) for name in OPTIONS if module.params[name] is not None)
    several = module.params["instances"]
    if several is None:
        several = [{}]
        if common["state"] == "verified" and not ("name" in common or "www_root" in common):
            several = [dict(name=record["instance"]) for record in records]
    validator = ArgumentSpecValidator(OPTIONS, required_if=REQUIRED_IF, required_one_of=[("name", "www_root")])
    wanted = []
    for each in several:
        valid = validator.validate(dict(common, **each))
        if valid.error_messages:
            raise Trouble(valid.error_messages[0])
        wanted.append(valid.validated_parameters)
    return wanted


def failure_of(results):
    """Why some failed: each reason once."""
    places = {}
    for result in results:
        places.setdefault(result["msg"], []).append(result["directory"])
    return summary(["%s: %s" % (summary(where), reason) for reason, where in places.items()])


def main():
    """Runs the module."""
    module = AnsibleModule(
        argument_spec=dict(OPTIONS, instances=dict(type="list", elements="dict"), program=PROGRAM_ARGUMENT),
        supports_check_mode=True,
    )
    try:
        ctl = Zendrelctl(module)
        records = ctl.instances()
        wanted = all_wanted(module, records)
    except Trouble as e:
        module.fail_json(msg=str(e))
    packages = Packages(ctl)
    results = [Instance(module, ctl, packages, records, params).bring() for params in wanted]
    if module.params["instances"] is None and len(results) == 1:
        total = results[0]
    else:
        failed = [result for result in results if "failed" in result]
        total = dict(results=results, changed=any(result["changed"] for result in results))
        total["diff"] = [result.pop("diff") for result in results if "diff" in result]
        if failed:
            total.update(failed=True, msg=failure_of(failed))
    if "failed" in total:
        module.fail_json(**total)
    module.exit_json(**total)


if __name__ == "__main__":
    main()
