#!/usr/bin/python3
"""Simulated settings daemon: one object per section, every value typed as in the defaults file."""

import argparse
import copy
import json
import os

import dbus
import dbus.lowlevel
import dbus.service

import peerlib

NAME = "com.tarnwell.common.Settings1"
BASE = "/com/tarnwell/common/Settings1"
IFACE = "com.tarnwell.common.Settings1"
DEFAULTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "settings_defaults.json")


class Section(peerlib.PeerObject):
    def __init__(self, conn, name, keys):
        super().__init__(conn, BASE + "/" + name)
        self.add_interface(IFACE)
        for key, (sig, value) in keys.items():
            self.add_property(IFACE, key, sig, value)

    def reset(self, defaults, only=None):
        """Puts keys back to their defaults and announces those that differed, in one signal."""
        changed = {}
        for key, (sig, value) in defaults.items():
            if only is not None and key != only:
                continue
            default = peerlib.typed(sig, value)
            prop = self._props[IFACE][key]
            if prop.value != default:
                prop.value = default
                changed[key] = default
        if changed:
            self.PropertiesChanged(IFACE, dbus.Dictionary(changed, signature="sv"),
                                   dbus.Array([], signature="s"))


class Settings(peerlib.PeerObject):
    """The base object: the reset methods, and a way to announce arbitrary changes for tests."""

    def __init__(self, conn, defaults):
        super().__init__(conn, BASE)
        self.add_interface(peerlib.SIM_IFACE)
        self.defaults = defaults
        self.sections = {name: Section(conn, name, keys) for name, keys in defaults.items()}

    def section(self, name):
        if name not in self.sections:
            raise peerlib.invalid_args("No section %s" % name)
        return self.sections[name]

    @dbus.service.method(IFACE, in_signature="b", out_signature="")
    def ResetToDefaults(self, flag):
        peerlib.log("ResetToDefaults(%s)" % bool(flag))
        for name, section in self.sections.items():
            section.reset(self.defaults[name])

    @dbus.service.method(IFACE, in_signature="s", out_signature="")
    def ResetSection(self, section):
        peerlib.log("ResetSection(%s)" % section)
        self.section(section).reset(self.defaults[section])

    @dbus.service.method(IFACE, in_signature="ss", out_signature="")
    def ResetSetting(self, section, key):
        peerlib.log("ResetSetting(%s, %s)" % (section, key))
        if key not in self.defaults.get(section, {}):
            raise peerlib.invalid_args("No setting %s in section %s" % (key, section))
        self.section(section).reset(self.defaults[section], only=key)

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="osa{sv}", out_signature="")
    def EmitPropertiesChanged(self, path, interface, changed):
        """Sends PropertiesChanged from this service on any path with any values, stored or not."""
        message = dbus.lowlevel.SignalMessage(path, peerlib.PROPS_IFACE, "PropertiesChanged")
        message.append(interface, changed, dbus.Array([], signature="s"), signature="sa{sv}as")
        self.conn.send_message(message)


def load(path, without):
    with open(path) as f:
        defaults = json.load(f)
    for item in without:
        section, _, key = item.partition("/")
        defaults.get(section, {}).pop(key, None)
    return defaults


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--defaults", default=DEFAULTS, help="JSON file: {section: {key: [signature, value]}}")
    parser.add_argument("--without", action="append", default=[], metavar="SECTION/KEY",
                        help="leave a key out, as if the unit did not know it")
    args = parser.parse_args()
    defaults = load(args.defaults, args.without)
    conn = peerlib.connect("settings")
    Settings(conn, copy.deepcopy(defaults))
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
