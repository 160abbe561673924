#!/usr/bin/python3
"""Simulated system controller: video status, remote-unit credentials, reel, power and cooling objects."""

import argparse

import dbus
import dbus.service

import peerlib

NAME = "com.tarnwell.common.Helm1"
BASE = "/com/tarnwell/common/Helm1"
IFACE = "com.tarnwell.common.Helm1.Control"
REEL_IFACE = "com.tarnwell.common.Helm1.reel"


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
    cooling = child(conn, "/cooling", "com.tarnwell.common.Helm1.cooling", {
        "CPUtempC": ("d", 45.0), "FanSpeed": ("u", 0), "EmitStatusChanges": ("b", False)})
    for obj in (Reel(conn, distance), firmware, distance, power, cooling):
        helm.add_child(obj, announce=False)
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
