#!/usr/bin/env python3
"""The C interface used from Python through ctypes, as a host application
would: two handles on a private virtual bus exchange frames both ways.

Usage: test_capi.py <path of libcanopenmaster.so>. Exits 0 when every check
passed, 1 otherwise."""
import ctypes
import os
import socket
import sys
import time


class CaFrame(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("id", ctypes.c_uint32),
                ("length", ctypes.c_uint8),
                ("flags", ctypes.c_uint8),
                ("data", ctypes.c_uint8 * 8)]


failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("check failed: " + what, file=sys.stderr)


def use_private_port():
    # A UDP port nobody uses right now: the bus of this script alone.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("", 0))
        port = s.getsockname()[1]
    os.environ["CANOPEN_VBUS_PORT"] = str(port)  # putenv: seen by the library


def frame(can_id, data, length=None):
    f = CaFrame()
    f.id = can_id
    f.length = len(data) if length is None else length
    for i, b in enumerate(data[:8]):
        f.data[i] = b
    return f


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    use_private_port()
    lib = ctypes.CDLL(sys.argv[1])
    lib.qca.argtypes = []
    lib.qca.restype = None
    lib.ca_create.argtypes = [ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32]
    for name in ("ca_connect", "ca_disconnnect", "ca_destroy"):
        getattr(lib, name).argtypes = [ctypes.c_int32]
    for name in ("ca_send", "ca_recv"):
        getattr(lib, name).argtypes = [ctypes.c_int32, ctypes.POINTER(CaFrame)]
    for name in ("ca_create", "ca_connect", "ca_send", "ca_recv", "ca_disconnnect", "ca_destroy"):
        getattr(lib, name).restype = ctypes.c_int32
    check(ctypes.sizeof(CaFrame) == 14, "CaFrame is 14 bytes")

    def receive(handle, timeout=2.0):
        f = CaFrame()
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            r = lib.ca_recv(handle, ctypes.byref(f))
            if r > 0:
                return r, f
            time.sleep(0.001)
        return -1, None

    def receive_until(handle, can_id):
        while True:
            r, f = receive(handle)
            if r < 0:
                return False
            if f.id == can_id:
                return True

    lib.qca()
    a = lib.ca_create(6, b"Talvik Virtual", 500)
    b = lib.ca_create(6, None, 500)
    check(a == 0 and b == 1, "handles 0 and 1, got %d and %d" % (a, b))
    check(lib.ca_create(12, b"Talvik Virtual", 500) == -1, "type 12 makes no adapter")
    check(lib.ca_connect(a) == 1, "ca_connect(a)")
    check(lib.ca_connect(b) == 1, "ca_connect(b)")
    check(lib.ca_recv(b, None) == -1, "nothing waiting, null record")

    # The receive sockets are bound by the adapters' threads: ping until b hears.
    ready = False
    end = time.monotonic() + 5
    while not ready and time.monotonic() < end:
        lib.ca_send(a, ctypes.byref(frame(0x7EF, [])))
        time.sleep(0.005)
        while lib.ca_recv(b, ctypes.byref(CaFrame())) > 0:
            ready = True
    check(ready, "b hears a")
    lib.ca_send(a, ctypes.byref(frame(0x7F0, [])))
    check(receive_until(b, 0x7F0), "marker reaches b")

    # a -> b
    sent = [frame(0x181, [1, 2]), frame(0x182, []), frame(0x183, [9] * 8, length=12)]
    for f in sent:
        check(lib.ca_send(a, ctypes.byref(f)) == 1, "ca_send(a)")
    for i, expected in enumerate(sent):
        f = CaFrame()
        f.length = 0x5A
        f.flags = 0xFF
        end = time.monotonic() + 2
        r = -1
        while r < 0 and time.monotonic() < end:
            r = lib.ca_recv(b, ctypes.byref(f))
            if r < 0:
                time.sleep(0.001)
        check(1 <= r <= 3 - i, "frame %d: %d waiting" % (i, r))
        check(f.id == expected.id, "frame %d: id 0x%X" % (i, f.id))
        check(f.length == 0x5A, "frame %d: the caller's length byte is left alone" % i)
        check(f.flags == 0, "frame %d: flags byte cleared" % i)
        check(bytes(f.data) == bytes(expected.data), "frame %d: data %s" % (i, bytes(f.data).hex()))
    check(lib.ca_recv(b, ctypes.byref(CaFrame())) == -1, "b is empty")

    # b -> a
    lib.ca_send(b, ctypes.byref(frame(0x1FFFFFFE, [0xA0 + i for i in range(8)])))
    r, f = receive(a)
    check(r == 1, "a receives one frame")
    if f is not None:
        check(f.id == 0x1FFFFFFE, "id from b")
        check(bytes(f.data) == bytes(range(0xA0, 0xA8)), "data from b")
    check(lib.ca_recv(a, ctypes.byref(CaFrame())) == -1, "a never hears itself")

    for name in ("ca_connect", "ca_disconnnect", "ca_destroy"):
        check(getattr(lib, name)(2) == 0, name + " with handle 2")
    check(lib.ca_recv(2, ctypes.byref(CaFrame())) == 0, "ca_recv with handle 2")
    check(lib.ca_send(2, ctypes.byref(CaFrame())) == 0, "ca_send with handle 2")

    check(lib.ca_disconnnect(a) == 1, "ca_disconnnect(a)")
    check(lib.ca_destroy(a) == 1, "ca_destroy(a)")
    check(lib.ca_destroy(b) == 1, "ca_destroy(b)")
    check(lib.ca_recv(b, ctypes.byref(CaFrame())) == -1, "destroyed b is empty")

    if failures:
        print("%d check(s) failed" % len(failures), file=sys.stderr)
        return 1
    print("C interface from Python: all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
