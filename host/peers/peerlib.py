"""Common frame of the simulated peer daemons: typed properties, introspection, object managers, main loop.

Every peer exports objects whose properties carry a fixed D-Bus signature. Reads
go through org.freedesktop.DBus.Properties; writes are checked against the
signature (a mismatch is refused with InvalidArgs, as a real daemon would) and
every accepted write is announced with PropertiesChanged. Members that exist
only to observe or drive a simulated peer live on SIM_IFACE.
"""

import os
import signal
import sys
from xml.sax.saxutils import escape

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

PROPS_IFACE = "org.freedesktop.DBus.Properties"
OM_IFACE = "org.freedesktop.DBus.ObjectManager"
SIM_IFACE = "com.tarnwell.host.Simulation"

_BASIC = {
    "b": dbus.Boolean,
    "y": dbus.Byte,
    "n": dbus.Int16,
    "q": dbus.UInt16,
    "i": dbus.Int32,
    "u": dbus.UInt32,
    "x": dbus.Int64,
    "t": dbus.UInt64,
    "d": dbus.Double,
    "s": dbus.String,
    "o": dbus.ObjectPath,
    "g": dbus.Signature,
}
_CODE_OF = {cls: code for code, cls in _BASIC.items()}


class Error(dbus.DBusException):
    """A D-Bus error reply with an explicit error name."""

    def __init__(self, name, text):
        super().__init__(text)
        self._dbus_error_name = name


def invalid_args(text):
    return Error("org.freedesktop.DBus.Error.InvalidArgs", text)


def typed(sig, value):
    """Converts a plain Python value (as read from JSON) to the dbus-python type of signature sig."""
    if sig == "v":
        return value
    if sig in _BASIC:
        return _BASIC[sig](value)
    if sig.startswith("a{"):
        key_sig, value_sig = list(dbus.Signature(sig[2:-1]))
        return dbus.Dictionary({typed(key_sig, k): typed(value_sig, v) for k, v in value.items()},
                               signature=sig[2:-1])
    if sig.startswith("a"):
        return dbus.Array([typed(sig[1:], v) for v in value], signature=sig[1:])
    if sig.startswith("("):
        return dbus.Struct([typed(s, v) for s, v in zip(dbus.Signature(sig[1:-1]), value)],
                           signature=sig[1:-1])
    raise ValueError("unsupported signature %s" % sig)


def signature_of(value):
    """The D-Bus signature of a value received in a variant."""
    cls = type(value)
    if cls in _CODE_OF:
        return _CODE_OF[cls]
    if cls is dbus.Array:
        return "a" + (value.signature or "v")
    if cls is dbus.Dictionary:
        return "a{" + (value.signature or "sv") + "}"
    if cls is dbus.Struct:
        return "(" + "".join(signature_of(v) for v in value) + ")"
    if cls is dbus.ByteArray:
        return "ay"
    return "?"


def plain(value):
    """Converts a dbus-python value back to plain Python (for logs and the JSON dump)."""
    if isinstance(value, (dbus.Array, list, dbus.Struct, tuple)):
        return [plain(v) for v in value]
    if isinstance(value, dict):
        return {plain(k): plain(v) for k, v in value.items()}
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, int):
        return int(value)
    if isinstance(value, float):
        return float(value)
    if isinstance(value, str):
        return str(value)
    return value


class Property:
    """One property: its signature, its value (or a getter) and whether clients may write it."""

    def __init__(self, sig, value, writable, getter, on_set):
        self.sig = sig
        self.value = typed(sig, value) if getter is None else None
        self.writable = writable
        self.getter = getter
        self.on_set = on_set

    def read(self):
        return typed(self.sig, self.getter()) if self.getter else self.value


class PeerObject(dbus.service.Object):
    """An exported object with typed properties on one or more interfaces."""

    def __init__(self, conn, path):
        super().__init__(conn, path)
        self.path = path
        self.conn = conn
        self._props = {}

    def add_property(self, iface, name, sig, value=None, writable=True, getter=None, on_set=None):
        """on_set(value) is called after a client write has been stored; it may raise Error to refuse."""
        self._props.setdefault(iface, {})[name] = Property(sig, value, writable, getter, on_set)

    def add_interface(self, iface):
        self._props.setdefault(iface, {})

    def interfaces(self):
        return list(self._props)

    def value(self, iface, name):
        return self._props[iface][name].read()

    def set_value(self, iface, name, value):
        """Stores a value from the peer itself and announces it."""
        prop = self._props[iface][name]
        prop.value = typed(prop.sig, value)
        self.PropertiesChanged(iface, {name: prop.value}, dbus.Array([], signature="s"))

    def all_values(self, iface):
        return dbus.Dictionary({n: p.read() for n, p in self._props.get(iface, {}).items()}, signature="sv")

    def _find(self, iface, name):
        if iface:
            prop = self._props.get(iface, {}).get(name)
        else:
            prop = next((p[name] for p in self._props.values() if name in p), None)
        if prop is None:
            raise Error("org.freedesktop.DBus.Error.UnknownProperty",
                        "No property %s on interface %s of %s" % (name, iface, self.path))
        return prop

    @dbus.service.method(PROPS_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface_name, property_name):
        return self._find(interface_name, property_name).read()

    @dbus.service.method(PROPS_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface_name):
        if interface_name not in self._props:
            raise Error("org.freedesktop.DBus.Error.UnknownInterface",
                        "No interface %s on %s" % (interface_name, self.path))
        return self.all_values(interface_name)

    @dbus.service.method(PROPS_IFACE, in_signature="ssv", out_signature="")
    def Set(self, interface_name, property_name, value):
        prop = self._find(interface_name, property_name)
        if not prop.writable:
            raise Error("org.freedesktop.DBus.Error.PropertyReadOnly",
                        "Property %s is read-only" % property_name)
        got = signature_of(value)
        if got != prop.sig:
            raise invalid_args("Property %s has type '%s', not '%s'" % (property_name, prop.sig, got))
        old = prop.value
        prop.value = typed(prop.sig, plain(value))
        if prop.on_set:
            try:
                prop.on_set(prop.value)
            except Error:
                prop.value = old
                raise
        log("%s %s.%s = %r" % (self.path, interface_name, property_name, plain(prop.value)))
        self.PropertiesChanged(interface_name, {property_name: prop.value}, dbus.Array([], signature="s"))

    @dbus.service.signal(PROPS_IFACE, signature="sa{sv}as")
    def PropertiesChanged(self, interface_name, changed_properties, invalidated_properties):
        pass

    @dbus.service.method(dbus.INTROSPECTABLE_IFACE, in_signature="", out_signature="s",
                         path_keyword="object_path", connection_keyword="connection")
    def Introspect(self, object_path, connection):
        cls = self.__class__
        table = self._dbus_class_table[cls.__module__ + "." + cls.__name__]
        names = list(table) + [i for i in self._props if i not in table]
        xml = [_DOCTYPE, '<node name="%s">\n' % object_path]
        for name in names:
            xml.append('  <interface name="%s">\n' % name)
            for func in table.get(name, {}).values():
                if getattr(func, "_dbus_is_method", False):
                    xml.append(cls._reflect_on_method(func))
                elif getattr(func, "_dbus_is_signal", False):
                    xml.append(cls._reflect_on_signal(func))
            for prop_name, prop in self._props.get(name, {}).items():
                access = "readwrite" if prop.writable else "read"
                xml.append('    <property name="%s" type="%s" access="%s"/>\n'
                           % (escape(prop_name), escape(prop.sig), access))
            xml.append("  </interface>\n")
        for child in connection.list_exported_child_objects(object_path):
            xml.append('  <node name="%s"/>\n' % child)
        xml.append("</node>\n")
        return "".join(xml)


_DOCTYPE = ('<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"\n'
            '"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">\n')


class ObjectManager(PeerObject):
    """An object that also reports its child objects through org.freedesktop.DBus.ObjectManager."""

    def __init__(self, conn, path):
        super().__init__(conn, path)
        self.children = {}

    def add_child(self, obj, announce=True):
        self.children[obj.path] = obj
        if announce:
            self.InterfacesAdded(obj.path, self._interfaces_of(obj))

    def remove_child(self, path):
        obj = self.children.pop(path)
        self.InterfacesRemoved(path, dbus.Array(obj.interfaces(), signature="s"))
        obj.remove_from_connection()

    @staticmethod
    def _interfaces_of(obj):
        return dbus.Dictionary({i: obj.all_values(i) for i in obj.interfaces()}, signature="sa{sv}")

    @dbus.service.method(OM_IFACE, in_signature="", out_signature="a{oa{sa{sv}}}")
    def GetManagedObjects(self):
        return dbus.Dictionary({p: self._interfaces_of(o) for p, o in self.children.items()},
                               signature="oa{sa{sv}}")

    @dbus.service.signal(OM_IFACE, signature="oa{sa{sv}}")
    def InterfacesAdded(self, object_path, interfaces_and_properties):
        pass

    @dbus.service.signal(OM_IFACE, signature="oas")
    def InterfacesRemoved(self, object_path, interfaces):
        pass


_name = "peer"


def log(text):
    print("%s: %s" % (_name, text), file=sys.stderr, flush=True)


def connect(program):
    """Opens the session bus named by DBUS_SESSION_BUS_ADDRESS, never a default one."""
    global _name
    _name = program
    if not os.environ.get("DBUS_SESSION_BUS_ADDRESS"):
        log("DBUS_SESSION_BUS_ADDRESS is not set; refusing to guess a bus")
        sys.exit(2)
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    return dbus.SessionBus()


def run(conn, bus_name):
    """Takes the bus name once every object is exported, so an owned name means a ready peer."""
    # Handlers first: whoever sees the name may stop the peer at once.
    loop = GLib.MainLoop()
    for signum in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signum, loop.quit)
    try:
        owner = dbus.service.BusName(bus_name, conn, do_not_queue=True)
    except dbus.exceptions.NameExistsException:
        log("%s is already owned" % bus_name)
        sys.exit(3)
    log("owns %s" % bus_name)
    loop.run()
    log("leaves %s" % owner.get_name())
    # Leave without the name release handshake: the bus may already be gone, and closing the
    # connection releases the name anyway.
    sys.stderr.flush()
    os._exit(0)
