#!/usr/bin/python3
"""Independent reader of a teesim object file (pycryptodome, not OpenSSL).

usage: object_file_check.py <file> <storage_key_hex> <name_key_hex> <ta_uuid_hex> <id_hex> <data_hex>
Exits 0 when the file's name is HMAC-SHA-256(name_key, id) in hex + ".obj",
its header is the documented one (format 2), and AES-256-GCM with the
storage key opens it to u64 generation | u32 id_len | id | data with a
generation above zero and exactly the expected id and data.
"""
import hashlib
import hmac
import os
import struct
import sys

from Cryptodome.Cipher import AES


def main():
    path, skey, nkey, uuid, oid, data = sys.argv[1:7]
    skey, nkey, uuid = bytes.fromhex(skey), bytes.fromhex(nkey), bytes.fromhex(uuid)
    oid, data = bytes.fromhex(oid), bytes.fromhex(data)
    expected_name = hmac.new(nkey, oid, hashlib.sha256).hexdigest() + ".obj"
    if os.path.basename(path) != expected_name:
        sys.exit("file name %s, expected %s" % (os.path.basename(path), expected_name))
    blob = open(path, "rb").read()
    header, nonce, body, tag = blob[:8], blob[8:20], blob[20:-16], blob[-16:]
    if header != b"TSOB\x02\x00\x00\x00":
        sys.exit("bad header %r" % header)
    cipher = AES.new(skey, AES.MODE_GCM, nonce=nonce)
    cipher.update(header + uuid)
    plain = cipher.decrypt_and_verify(body, tag)
    (generation,) = struct.unpack("<Q", plain[:8])
    if generation == 0:
        sys.exit("no generation")
    plain = plain[8:]
    (id_len,) = struct.unpack("<I", plain[:4])
    if plain[4:4 + id_len] != oid or id_len != len(oid):
        sys.exit("id mismatch")
    if plain[4 + id_len:] != data:
        sys.exit("data mismatch")
    print("ok")


if __name__ == "__main__":
    main()
