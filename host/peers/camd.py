#!/usr/bin/python3
"""Simulated camera daemon: the active camera index and one object per camera head.

Each camera has the Camera (RequestTiles, RawMotionData), Features and Tiling
interfaces. RawMotionData is sent on demand (EmitRawMotionData on the camera's
simulation interface) or periodically from the active camera (--motion-period-ms).
"""

import argparse

import dbus
import dbus.service
from gi.repository import GLib

import peerlib

NAME = "com.tarnwell.common.Camd1"
BASE = "/com/tarnwell/common/Camd1"
IFACE = "com.tarnwell.common.Camd1"
CAMERA_IFACE = IFACE + ".Camera"
FEATURES_IFACE = IFACE + ".Features"
TILING_IFACE = IFACE + ".Tiling"
FEATURES = ("Hdr", "Awb", "PlumbLine", "Microphone", "Tiling", "Autorotate", "MechanicalSL", "DigitalSL")


class Camera(peerlib.PeerObject):
    def __init__(self, conn, index, features):
        super().__init__(conn, "%s/Camera%d" % (BASE, index))
        self.add_property(CAMERA_IFACE, "Index", "i", index, writable=False)
        self.add_property(CAMERA_IFACE, "Name", "s", "Camera %d" % index)
        for feature in FEATURES:
            self.add_property(FEATURES_IFACE, feature, "b", feature in features)
        self.add_property(TILING_IFACE, "TilingMode", "u", 0)
        self.add_property(peerlib.SIM_IFACE, "RequestTilesCount", "u", 0, writable=False)
        self.add_property(peerlib.SIM_IFACE, "RequestTilesReply", "u", 0)

    @dbus.service.method(CAMERA_IFACE, in_signature="", out_signature="u")
    def RequestTiles(self):
        sim = peerlib.SIM_IFACE
        self.set_value(sim, "RequestTilesCount", self.value(sim, "RequestTilesCount") + 1)
        return self.value(sim, "RequestTilesReply")

    @dbus.service.signal(CAMERA_IFACE, signature="ddddddd")
    def RawMotionData(self, a, b, c, d, e, f, g):
        pass

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="ddddddd", out_signature="")
    def EmitRawMotionData(self, a, b, c, d, e, f, g):
        self.RawMotionData(a, b, c, d, e, f, g)


class Camd(peerlib.ObjectManager):
    def __init__(self, conn, features):
        super().__init__(conn, BASE)
        self.add_property(IFACE, "ActiveCameraIndex", "i", -1)
        self.features = features
        self.next_index = 0
        self.samples = 0

    def camera(self, index):
        return self.children.get("%s/Camera%d" % (BASE, index))

    def add_camera(self, announce):
        camera = Camera(self.conn, self.next_index, self.features)
        self.next_index += 1
        self.add_child(camera, announce)
        return camera

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="", out_signature="o")
    def AddCamera(self):
        return self.add_camera(announce=True).path

    @dbus.service.method(peerlib.SIM_IFACE, in_signature="i", out_signature="")
    def RemoveCamera(self, index):
        camera = self.camera(index)
        if camera is None:
            raise peerlib.invalid_args("No camera %d" % index)
        self.remove_child(camera.path)
        if self.value(IFACE, "ActiveCameraIndex") == index:
            self.set_value(IFACE, "ActiveCameraIndex", -1)

    def emit_sample(self):
        camera = self.camera(self.value(IFACE, "ActiveCameraIndex"))
        if camera is not None:
            self.samples += 1
            roll = float(self.samples % 360)
            camera.RawMotionData(roll, 0.0, 0.0, 0.0, 0.0, 9.81, float(self.samples))
        return True


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--cameras", type=int, default=1, help="camera objects at start")
    parser.add_argument("--active", type=int, default=0, help="initial ActiveCameraIndex (-1: none)")
    parser.add_argument("--features", default=",".join(FEATURES),
                        help="comma-separated features present (default all): " + ",".join(FEATURES))
    parser.add_argument("--motion-period-ms", type=int, default=0, help="send RawMotionData this often")
    args = parser.parse_args()
    features = set(f for f in args.features.split(",") if f)
    if features - set(FEATURES):
        parser.error("unknown features %s" % ",".join(sorted(features - set(FEATURES))))
    conn = peerlib.connect("camd")
    camd = Camd(conn, features)
    for _ in range(args.cameras):
        camd.add_camera(announce=False)
    camd._props[IFACE]["ActiveCameraIndex"].value = dbus.Int32(args.active)
    if args.motion_period_ms > 0:
        GLib.timeout_add(args.motion_period_ms, camd.emit_sample)
    peerlib.run(conn, NAME)


if __name__ == "__main__":
    main()
