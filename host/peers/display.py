#!/usr/bin/python3
"""Simulated display daemon: answers ResetCsc and counts the calls."""

import sys

import dbus.service

import peerlib

NAME = "com.tarnwell.common.Display1"
PATH = "/com/tarnwell/common/Display1"
IFACE = "com.tarnwell.common.Display1.Control"


class Display(peerlib.PeerObject):
    def __init__(self, conn):
        super().__init__(conn, PATH)
        self.add_interface(IFACE)
        self.add_property(peerlib.SIM_IFACE, "ResetCscCount", "u", 0, writable=False)

    @dbus.service.method(IFACE, in_signature="", out_signature="")
    def ResetCsc(self):
        count = self.value(peerlib.SIM_IFACE, "ResetCscCount") + 1
        self.set_value(peerlib.SIM_IFACE, "ResetCscCount", count)
        peerlib.log("ResetCsc (%d)" % count)


def main():
    if len(sys.argv) > 1:
        sys.exit("usage: display.py")
    conn = peerlib.connect("display")
    Display(conn)
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
