"""The library through ctypes: a driver that is a Python function, one command, and the guard rails."""

import ctypes
import sys

IOCTL = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)


class Options(ctypes.Structure):
    _fields_ = [("control", ctypes.c_char_p), ("lock_path", ctypes.c_char_p), ("sys_root", ctypes.c_char_p),
                ("proc_root", ctypes.c_char_p), ("ioctl", IOCTL), ("ioctl_context", ctypes.c_void_p),
                ("dev_root", ctypes.c_char_p)]


def main():
    library = ctypes.CDLL(sys.argv[1])
    asked = []

    @IOCTL
    def answer(_, command, record):
        asked.append((command, ctypes.c_uint32.from_address(record).value))
        return 0

    options = Options(lock_path=b"/tmp/snbf-abi.lock", ioctl=answer)
    handle = ctypes.c_void_p()
    assert library.libsnbf_open(ctypes.byref(options), ctypes.byref(handle)) == 0
    assert library.libsnbf_start_node(handle, ctypes.c_uint32(7)) == 0
    assert [minor for _, minor in asked] == [7], asked
    assert library.libsnbf_name_is_safe(b"data") == 1
    assert library.libsnbf_name_is_safe(b"control") == 0
    library.libsnbf_close(handle)
    print("worked")


if __name__ == "__main__":
    main()
