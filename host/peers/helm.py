#!/usr/bin/python3
"""Simulated system controller: video status, remote-unit credentials, reel, power and cooling objects."""

import argparse
import re

import dbus
import dbus.service

import peerlib

NAME = "com.tarnwell.common.Helm1"
BASE = "/com/tarnwell/common/Helm1"
IFACE = "com.tarnwell.common.Helm1.Control"
REEL_IFACE = "com.tarnwell.common.Helm1.reel"
COOLING_IFACE = "com.tarnwell.common.Helm1.cooling"


class Helm(peerlib.ObjectManager):
    def __init__(self, conn, video_status, remote_ip, remote_bus):
        super().__init__(conn, BASE)
        self.add_property(IFACE, "VideoStatus", "i", video_status, on_set=self.VideoStatusChanged)
        self.add_property(IFACE, "RemoteIP", "s", remote_ip)
        self.add_property(IFACE, "RemoteDbusAddr", "s", remote_bus)

    @dbus.service.signal(IFACE, signature="i")
    def VideoStatusChanged(self, status):
        pass

    @dbus.service.signal(IFACE, signature="uu")
    def KeyPressEvent(self, key, state):
        pass

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="uu", out_signature="")
    def EmitKeyPressEvent(self, key, state):
        self.KeyPressEvent(key, state)

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="ss", out_signature="o")
    def AddObject(self, relative_path, interface):
        """A child object (an accessory plugged in, say) with one interface and no properties."""
        path = BASE + "/" + relative_path
        if not re.fullmatch(r"[A-Za-z0-9_]+(/[A-Za-z0-9_]+)*", relative_path) or path in self.children:
            raise peerlib.invalid_args("Bad or duplicate object path %s" % relative_path)
        obj = peerlib.PeerObject(self.conn, path)
        obj.add_interface(str(interface))
        self.add_child(obj)
        return path

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="s", out_signature="")
    def RemoveObject(self, relative_path):
        path = BASE + "/" + relative_path
        if path not in self.children:
            raise peerlib.invalid_args("No object %s" % relative_path)
        self.remove_child(path)


class Reel(peerlib.PeerObject):
    def __init__(self, conn, distance):
        super().__init__(conn, BASE + "/reel")
        self.distance = distance
        self.add_property(REEL_IFACE, "Connected", "b", False)
        self.add_property(REEL_IFACE, "Status", "i", 0)
        self.add_property(REEL_IFACE, "CountMode", "u", 0)
        self.add_property(REEL_IFACE, "Count", "d", 0.0)
        self.add_property(REEL_IFACE, "SerialNumber", "s", "")

    @dbus.service.method(REEL_IFACE, in_signature="", out_signature="")
    def ZeroCount(self):
        self.set_value(REEL_IFACE, "Count", 0.0)
        self.distance.set_value(REEL_IFACE + ".distance", "Relative", 0.0)


class Cooling(peerlib.PeerObject):
    """The fan follows the CPU temperature, averaged over "AveragingPeriod" seconds, through the range of
    its control mode: off below the range's first temperature, full speed from its second on. Each mode
    keeps its own range; "FanControlRange" shows and changes the current mode's."""

    MODES = {"automatic": [45.0, 75.0], "quiet": [55.0, 85.0], "performance": [35.0, 65.0]}

    def __init__(self, conn):
        super().__init__(conn, BASE + "/cooling")
        self.ranges = {mode: list(limits) for mode, limits in self.MODES.items()}
        self.add_property(COOLING_IFACE, "CPUtempC", "d", 45.0)
        self.add_property(COOLING_IFACE, "FanSpeed", "u", 0)
        self.add_property(COOLING_IFACE, "EmitStatusChanges", "b", False)
        self.add_property(COOLING_IFACE, "FanControlModes", "as", list(self.MODES), writable=False)
        self.add_property(COOLING_IFACE, "FanControlMode", "s", "automatic", on_set=self.mode_set)
        self.add_property(COOLING_IFACE, "FanControlRange", "ad", self.ranges["automatic"],
                          on_set=self.range_set)
        self.add_property(COOLING_IFACE, "AveragingPeriod", "u", 10)

    def mode_set(self, mode):
        if mode not in self.ranges:
            raise peerlib.invalid_args("Unknown fan control mode %s" % mode)
        self.set_value(COOLING_IFACE, "FanControlRange", self.ranges[str(mode)])

    def range_set(self, limits):
        if len(limits) != 2 or not limits[0] < limits[1]:
            raise peerlib.invalid_args("A fan control range is two rising temperatures")
        self.ranges[str(self.value(COOLING_IFACE, "FanControlMode"))] = [float(t) for t in limits]


def child(conn, path, iface, props):
    obj = peerlib.PeerObject(conn, BASE + path)
    for name, (sig, value) in props.items():
        obj.add_property(iface, name, sig, value)
    return obj


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--video-status", type=int, default=0, help="initial VideoStatus (1: camera video present)")
    parser.add_argument("--remote-ip", default="", help="initial RemoteIP")
    parser.add_argument("--remote-bus", default="", help="initial RemoteDbusAddr")
    args = parser.parse_args()
    conn = peerlib.connect("helm")
    helm = Helm(conn, args.video_status, args.remote_ip, args.remote_bus)
    firmware = child(conn, "/reel/firmware", REEL_IFACE + ".firmware", {"Version": ("s", "0.0.0")})
    distance = child(conn, "/reel/distance", REEL_IFACE + ".distance",
                     {"SoftwareMode": ("b", False), "Absolute": ("d", 0.0), "Relative": ("d", 0.0)})
    power = child(conn, "/power", "com.tarnwell.common.Helm1.power", {
        "PowerSource": ("s", "mains"), "SystemPowerLevel": ("i", 100), "BatteryDrainMode": ("u", 0),
        "BatteryVoltages": ("ad", [12.6]), "BatteryChargePercentages": ("ad", [100.0]),
        "BatteryTypes": ("as", ["li-ion"]), "LowBatteryWarnings": ("as", []), "PermittedActions": ("as", [])})
    for obj in (Reel(conn, distance), firmware, distance, power, Cooling(conn)):
        helm.add_child(obj, announce=False)
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
