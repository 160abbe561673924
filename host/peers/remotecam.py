#!/usr/bin/python3
"""Simulated remote-camera monitor: the remote unit's reel events in "RemoteCameraReelSSE"."""

import argparse

import peerlib

NAME = "com.tarnwell.common.RemoteCamMonitor1"
PATH = "/com/tarnwell/common/RemoteCamMonitor1"
IFACE = "com.tarnwell.common.RemoteCamMonitor1"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--reel-sse", default="", help="initial RemoteCameraReelSSE")
    args = parser.parse_args()
    conn = peerlib.connect("remotecam")
    monitor = peerlib.PeerObject(conn, PATH)
    monitor.add_property(IFACE, "RemoteCameraReelSSE", "s", args.reel_sse)
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
