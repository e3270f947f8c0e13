#!/usr/bin/env python3
"""Decodes a quarantine archive with independent tools: libmcrypt's rijndael-256 (CBC) for the
encrypted chunk and the lz4 command for the frame. Prints the recorded path, the digest and what
the encrypted chunk holds ("whole": the whole frame, end mark included; "first": exactly its
first block); writes the content.

    quarantine_decode.py ARCHIVE OUTPUT
"""
import ctypes
import struct
import subprocess
import sys
import tempfile


def key_and_chain():
    phrase = b"Kq7#Zt2!vBn9&Lx\0"
    hexed = "".join("%02X" % c for c in phrase).encode() + b"\0"
    return (phrase + hexed)[:32], (hexed + phrase)[:32]


def decrypt(data):
    lib = ctypes.CDLL("libmcrypt.so.4")
    lib.mcrypt_module_open.restype = ctypes.c_void_p
    module = ctypes.c_void_p(lib.mcrypt_module_open(b"rijndael-256", None, b"cbc", None))
    key, chain = key_and_chain()
    if lib.mcrypt_generic_init(module, key, 32, chain) != 0:
        sys.exit("mcrypt init failed")
    buf = ctypes.create_string_buffer(bytes(data), len(data))
    lib.mdecrypt_generic(module, buf, len(data))
    lib.mcrypt_generic_deinit(module)
    lib.mcrypt_module_close(module)
    return buf.raw[:len(data)]


def main():
    archive = open(sys.argv[1], "rb").read()
    offset, _, plain, stored = struct.unpack_from("<4I", archive, 0)
    path = archive[60:archive.index(b"\0", 60)].decode("latin-1")
    chunk = decrypt(archive[offset + 7:offset + 7 + stored])
    frame = archive[offset:offset + 7] + chunk[:plain] + archive[offset + 7 + stored:]
    whole = offset + 7 + stored == len(archive) and chunk[plain - 4:plain] == bytes(4)
    first = not whole and 4 + (struct.unpack_from("<I", chunk)[0] & 0x7FFFFFFF) == plain
    holds = "whole" if whole else "first" if first else "other"
    with tempfile.NamedTemporaryFile(suffix=".lz4") as f:
        f.write(frame)
        f.flush()
        subprocess.run(["lz4", "-q", "-d", "-f", f.name, sys.argv[2]], check=True)
    print(path, archive[28:60].hex(), holds)


main()
