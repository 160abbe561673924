#!/usr/bin/python3
"""Simulated storage daemon: an object manager with one device per local directory.

"MountPoint" is the directory, "FreeSpace" is read from its file system on every
read, and every "SetWriteActive" call is kept in properties of the device's
simulation interface ("SetWriteActiveCount", "WriteActiveTypes", "WriteActiveCalls").
"""

import argparse
import os
import re

import dbus
import dbus.service

import peerlib

NAME = "com.tarnwell.common.StorageDaemon1"
BASE = "/com/tarnwell/common/StorageDaemon1"
IFACE = "com.tarnwell.common.StorageDaemon1"
DEVICE_IFACE = "com.tarnwell.common.StorageDaemon1.Device"


class Device(peerlib.PeerObject):
    def __init__(self, conn, name, directory, socket):
        super().__init__(conn, BASE + "/" + name)
        self.directory = os.path.abspath(directory)
        add = self.add_property
        add(DEVICE_IFACE, "Id", "s", name)
        add(DEVICE_IFACE, "MountPoint", "s", self.directory)
        add(DEVICE_IFACE, "IsMounted", "b", True)
        add(DEVICE_IFACE, "FreeSpace", "t", writable=False, getter=self.free_space)
        add(DEVICE_IFACE, "ReadOnly", "b", False)
        add(DEVICE_IFACE, "Bus", "s", "sd" if socket == 0 else "usb")
        add(DEVICE_IFACE, "Socket", "i", socket)
        add(DEVICE_IFACE, "DevicePath", "s", "/dev/sim%d" % socket)
        add(DEVICE_IFACE, "StorageIsBelowWarningLevel", "b", False)
        add(DEVICE_IFACE, "StorageIsBelowMinimumLevel", "b", False)
        add(DEVICE_IFACE, "KnownPrimary", "b", socket == 0)
        add(DEVICE_IFACE, "IsSafeToRemove", "b", True)
        add(peerlib.SIM_IFACE, "SetWriteActiveCount", "u", 0, writable=False)
        add(peerlib.SIM_IFACE, "WriteActiveTypes", "ay", [], writable=False)
        add(peerlib.SIM_IFACE, "WriteActiveCalls", "as", [], writable=False)
        add(peerlib.SIM_IFACE, "FormatCount", "u", 0, writable=False)

    def free_space(self):
        try:
            st = os.statvfs(self.directory)
        except OSError:
            return 0
        return st.f_bavail * st.f_frsize

    @dbus.service.method(DEVICE_IFACE, in_signature="yb", out_signature="")
    def SetWriteActive(self, write_type, active):
        if not 1 <= write_type <= 4:
            raise peerlib.invalid_args("Write type %d is not 1 to 4" % write_type)
        sim = peerlib.SIM_IFACE
        calls = list(self.value(sim, "WriteActiveCalls")) + ["%d:%s" % (write_type, str(bool(active)).lower())]
        types = set(self.value(sim, "WriteActiveTypes"))
        (types.add if active else types.discard)(int(write_type))
        peerlib.log("%s SetWriteActive(%d, %s)" % (self.path, write_type, bool(active)))
        self.set_value(sim, "SetWriteActiveCount", len(calls))
        self.set_value(sim, "WriteActiveCalls", calls)
        self.set_value(sim, "WriteActiveTypes", sorted(types))
        if self.value(DEVICE_IFACE, "IsSafeToRemove") != (not types):
            self.set_value(DEVICE_IFACE, "IsSafeToRemove", not types)

    @dbus.service.method(DEVICE_IFACE, in_signature="", out_signature="")
    def StartFormat(self):
        # Only counted: the directory behind the device is never touched.
        if self.value(peerlib.SIM_IFACE, "WriteActiveTypes"):
            raise peerlib.Error(IFACE + ".Error.Busy", "Device %s is being written" % self.path)
        peerlib.log("%s StartFormat" % self.path)
        self.set_value(peerlib.SIM_IFACE, "FormatCount", self.value(peerlib.SIM_IFACE, "FormatCount") + 1)


class Manager(peerlib.ObjectManager):
    def __init__(self, conn):
        super().__init__(conn, BASE)
        self.add_property(IFACE, "PrimaryDevice", "s", "")
        self.add_property(IFACE, "AvailableDevices", "as", [], writable=False)
        self.sockets = 0

    def add_device(self, name, directory, announce):
        if not re.fullmatch(r"[A-Za-z0-9_]+", name) or BASE + "/" + name in self.children:
            raise peerlib.invalid_args("Bad or duplicate device name %s" % name)
        if not os.path.isdir(directory):
            raise peerlib.invalid_args("No directory %s" % directory)
        device = Device(self.conn, name, directory, self.sockets)
        self.sockets += 1
        self.add_child(device, announce)
        self._update_lists(announce)

    def _update_lists(self, announce):
        paths = sorted(self.children)
        primary = self.value(IFACE, "PrimaryDevice")
        if primary not in self.children:
            primary = paths[0] if paths else ""
        if announce:
            self.set_value(IFACE, "AvailableDevices", paths)
            if primary != self.value(IFACE, "PrimaryDevice"):
                self.set_value(IFACE, "PrimaryDevice", primary)
        else:
            self._props[IFACE]["AvailableDevices"].value = peerlib.typed("as", paths)
            self._props[IFACE]["PrimaryDevice"].value = peerlib.typed("s", primary)

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="ss", out_signature="o")
    def AddDevice(self, name, directory):
        self.add_device(str(name), str(directory), announce=True)
        return BASE + "/" + name

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="s", out_signature="")
    def RemoveDevice(self, name):
        path = BASE + "/" + name
        if path not in self.children:
            raise peerlib.invalid_args("No device %s" % name)
        self.remove_child(path)
        self._update_lists(announce=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("devices", nargs="+", metavar="[NAME=]DIR",
                        help="a device backed by DIR (default names device0, device1, ...)")
    args = parser.parse_args()
    conn = peerlib.connect("storage")
    manager = Manager(conn)
    for index, device in enumerate(args.devices):
        name, sep, directory = device.partition("=")
        if not sep:
            name, directory = "device%d" % index, device
        try:
            manager.add_device(name, directory, announce=False)
        except dbus.DBusException as e:
            parser.error(str(e))
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
