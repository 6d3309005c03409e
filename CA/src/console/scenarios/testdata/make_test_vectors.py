#!/usr/bin/python3
"""Derives the console's compiled-in test vectors from inputs.json.

Every expected value comes from independent, well-known implementations
packaged by Debian, never from this project's code:
  python3-mnemonic      BIP-39 English phrases and the BIP-39 seed
  python3-bip32utils    BIP-32 derivation along m/44'/60'/0'/0/a
  python3-ecdsa         secp256k1 keys, RFC 6979 deterministic ECDSA
  python3-pycryptodome  Keccak-256 (the original padding, not SHA3-256)

Before producing anything the script checks those libraries against
published vectors (BIP-32 test vector 1, the BIP-39 all-zero phrase, the
worked example of EIP-155, the Keccak-256 of the empty string) and checks
that data set 0 gives the published account-0 address. Every signature is
normalised to low S and its recovery id is found and confirmed by
recovering the public key.

Usage:
  make_test_vectors.py cpp [OUT]   write the C++ tables (default:
                                   ../generated/TestDataTables.cpp)
  make_test_vectors.py dump        print the canonical listing of every value
  make_test_vectors.py check PROG [ARG...]
                                   run PROG, which prints the compiled tables in the
                            same listing, and compare; exit 1 on a difference (an
                            emulator's command may come first: PROG is then the
                            emulator, and the program one of its arguments)
"""

import hashlib
import json
import os
import subprocess
import sys

import ecdsa
from bip32utils import BIP32_HARDEN, BIP32Key
from Cryptodome.Hash import keccak
from ecdsa import SECP256k1
from ecdsa.ellipticcurve import Point
from ecdsa.util import sigencode_strings
from mnemonic import Mnemonic

HERE = os.path.dirname(os.path.abspath(__file__))
INPUTS = os.path.join(HERE, "inputs.json")
DEFAULT_CPP = os.path.join(HERE, "..", "generated", "TestDataTables.cpp")

DATA_SETS = 5
ACCOUNTS = 5
PINS = 4
SPECIAL_TRANSACTIONS = 11

N = SECP256k1.order
P = SECP256k1.curve.p()
G = Point(SECP256k1.curve, SECP256k1.generator.x(), SECP256k1.generator.y(), SECP256k1.order)

# m/44'/60'/0'/0/a: the path every per-account value is derived at.
PATH_PREFIX = [44 + BIP32_HARDEN, 60 + BIP32_HARDEN, 0 + BIP32_HARDEN, 0]


class VectorError(Exception):
    pass


def require(condition, message):
    if not condition:
        raise VectorError(message)


def keccak256(data):
    h = keccak.new(digest_bits=256)
    h.update(data)
    return h.digest()


def int32(value):
    return value.to_bytes(32, "big")


# ---- RLP, only to turn the sample transactions into the bytes that are hashed

def _rlp_length(length, offset):
    if length < 56:
        return bytes([offset + length])
    encoded = length.to_bytes((length.bit_length() + 7) // 8, "big")
    return bytes([offset + 55 + len(encoded)]) + encoded


def rlp(item):
    if isinstance(item, list):
        payload = b"".join(rlp(x) for x in item)
        return _rlp_length(len(payload), 0xC0) + payload
    if isinstance(item, int):
        item = item.to_bytes((item.bit_length() + 7) // 8, "big") if item else b""
    if len(item) == 1 and item[0] < 0x80:
        return item
    return _rlp_length(len(item), 0x80) + item


def legacy_signing_payload(tx):
    """The EIP-155 signing payload of a legacy transaction."""
    return rlp([
        tx["nonce"], tx["gas_price"], tx["gas_limit"], bytes.fromhex(tx["to"]),
        tx["value"], bytes.fromhex(tx["data"]), tx["chain_id"], 0, 0,
    ])


# ---- keys, addresses, signatures

def derive_private_key(bip39_seed, account):
    key = BIP32Key.fromEntropy(bip39_seed)
    for index in PATH_PREFIX + [account]:
        key = key.ChildKey(index)
    return key


def public_point(private_key):
    return ecdsa.SigningKey.from_string(private_key, curve=SECP256k1).get_verifying_key()


def address_of(verifying_key):
    return keccak256(verifying_key.to_string("uncompressed")[1:])[-20:]


def recover(digest, r, s, v):
    """The public point of (digest, r, s, v), or None when there is none."""
    require(0 < r < N and 0 < s < N, "signature out of range")
    require(r < P, "r does not name a curve point")
    alpha = (pow(r, 3, P) + 7) % P
    beta = pow(alpha, (P + 1) // 4, P)
    if beta * beta % P != alpha:
        return None
    y = beta if beta % 2 == v else P - beta
    big_r = Point(SECP256k1.curve, r, y, N)
    e = int.from_bytes(digest, "big") % N
    q = ecdsa.numbertheory.inverse_mod(r, N) * (s * big_r + ((N - e) % N) * G)
    return q


def sign(private_key, digest):
    """(r, s, v): RFC 6979 with SHA-256, low S, v the recovery id 0 or 1."""
    sk = ecdsa.SigningKey.from_string(private_key, curve=SECP256k1)
    vk = sk.get_verifying_key()
    r_bytes, s_bytes = sk.sign_digest_deterministic(
        digest, hashfunc=hashlib.sha256, sigencode=sigencode_strings)
    r, s = int.from_bytes(r_bytes, "big"), int.from_bytes(s_bytes, "big")
    if s > N // 2:
        s = N - s
    expected = vk.pubkey.point
    matches = [v for v in (0, 1)
               if (q := recover(digest, r, s, v)) is not None
               and q.x() == expected.x() and q.y() == expected.y()]
    require(len(matches) == 1, "no unique recovery id for a signature")
    require(vk.verify_digest(int32(r) + int32(s), digest, sigdecode=ecdsa.util.sigdecode_string),
            "a signature does not verify")
    return r, s, matches[0]


# ---- published anchors: the libraries must reproduce them before we trust them

def check_libraries():
    require(N == int("fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141", 16),
            "secp256k1 group order")
    require(P == int("fffffffffffffffffffffffffffffffffffffffffffffffffffffffefffffc2f", 16),
            "secp256k1 field prime")
    require(keccak256(b"").hex()
            == "c5d2460186f7233c927e7db2dcc703c0e500b653ca82273b7bfad8045d85a470",
            "Keccak-256 of the empty string")
    # BIP-32 test vector 1.
    master = BIP32Key.fromEntropy(bytes(range(16)))
    require(master.ExtendedKey() ==
            "xprv9s21ZrQH143K3QTDL4LXw2F7HEK3wJUD2nW2nRk4stbPy6cq3jPPqjiChkVvvNKmPGJxWUtg6LnF5kejMRNNU3TGtRBeJgk33yuGBxrMPHi",
            "BIP-32 test vector 1, m")
    require(master.ChildKey(0 + BIP32_HARDEN).ExtendedKey() ==
            "xprv9uHRZZhk6KAJC1avXpDAp4MDc3sQKNxDiPvvkX8Br5ngLNv1TxvUxt4cV1rGL5hj6KCesnDYUhd7oWgT11eZG7XnxHrnYeSvkzY7d2bhkJ7",
            "BIP-32 test vector 1, m/0H")
    # BIP-39: the all-zero entropy.
    require(Mnemonic("english").to_mnemonic(bytes(16)) == " ".join(["abandon"] * 11 + ["about"]),
            "BIP-39 phrase of the all-zero entropy")
    # EIP-155 worked example: payload, signing hash, and the signature with
    # the key 0x46...46 (v = 37, i.e. recovery id 0).
    example = {"nonce": 9, "gas_price": 20 * 10**9, "gas_limit": 21000,
               "to": "35" * 20, "value": 10**18, "data": "", "chain_id": 1}
    payload = legacy_signing_payload(example)
    require(payload.hex() == "ec098504a817c800825208943535353535353535353535353535353535353535"
                             "880de0b6b3a764000080018080", "EIP-155 example payload")
    digest = keccak256(payload)
    require(digest.hex() == "daf5a779ae972f972197303d7b574746c7ef83eadac0f2791ad23db92e4c8e53",
            "EIP-155 example signing hash")
    r, s, v = sign(bytes([0x46] * 32), digest)
    require((r, s, v) == (
        18515461264373351373200002665853028612451056578545711640558177340181847433846,
        46948507304638947509940763649030358759909902576025900602547168820602576006531, 0),
        "EIP-155 example signature")


# ---- the vectors

SPECIAL_VALUES = {
    "0": 0, "1": 1, "n": N, "n-1": N - 1, "n+1": N + 1,
    "2^256-1": 2**256 - 1, "p": P, "2^255": 2**255,
}


def load_inputs():
    with open(INPUTS, encoding="utf-8") as f:
        inputs = json.load(f)
    pins = inputs["pins"]
    require(len(pins) == PINS, "four PINs")
    require(all(len(p) == 6 and p.isascii() and p.isdigit() for p in pins), "PINs of 6 digits")
    seeds = [bytes.fromhex(s) for s in inputs["seeds"]]
    require(len(seeds) == DATA_SETS and all(len(s) == 16 for s in seeds), "five 16-byte seeds")
    require(seeds[0] == bytes(16), "data set 0 is the all-zero entropy")
    require(len(set(seeds)) == DATA_SETS, "the seeds differ")
    special_seed = bytes.fromhex(inputs["special_seed"])
    require(len(special_seed) == 16 and special_seed not in seeds, "a special seed of its own")
    api_digest = keccak256(inputs["api_test_digest"]["keccak256_of_text"].encode("utf-8"))
    specials = []
    for entry in inputs["special_transactions"]:
        if "value" in entry:
            require(entry["value"] in SPECIAL_VALUES, "unknown special value " + entry["value"])
            digest = int32(SPECIAL_VALUES[entry["value"]])
        else:
            digest = keccak256(legacy_signing_payload(entry["transaction"]))
        specials.append((entry["label"], digest))
    require(len(specials) == SPECIAL_TRANSACTIONS, "eleven special transactions")
    return pins, seeds, special_seed, api_digest, specials


def derive():
    check_libraries()
    pins, seeds, special_seed, api_digest, specials = load_inputs()
    words = Mnemonic("english")
    data_sets = []
    for seed in seeds:
        phrase = words.to_mnemonic(seed)
        require(words.check(phrase), "phrase checksum")
        bip39_seed = Mnemonic.to_seed(phrase, passphrase="")
        accounts = []
        for account in range(ACCOUNTS):
            node = derive_private_key(bip39_seed, account)
            private_key = node.PrivateKey()
            vk = public_point(private_key)
            require(vk.to_string("compressed") == node.PublicKey(),
                    "bip32utils and ecdsa agree on the public key")
            r, s, v = sign(private_key, api_digest)
            accounts.append({"private_key": private_key, "address": address_of(vk),
                             "r": int32(r), "s": int32(s), "v": v})
        data_sets.append({"seed": seed, "mnemonic": phrase, "accounts": accounts})
    require(data_sets[0]["accounts"][0]["address"].hex()
            == "9858effd232b4033e47d90003d41ec34ecaeda94",
            "published account-0 address of the all-zero entropy")
    return {"pins": pins, "data_sets": data_sets, "special_seed": special_seed,
            "api_digest": api_digest, "specials": specials}


# ---- outputs

def listing(vectors):
    """The canonical text that the table dump program prints as well."""
    lines = []
    for i, pin in enumerate(vectors["pins"]):
        lines.append(f"pin {i} {pin}")
    for d, data_set in enumerate(vectors["data_sets"]):
        lines.append(f"seed {d} {data_set['seed'].hex()}")
        lines.append(f"seed_size {d} {len(data_set['seed'])}")
        lines.append(f"mnemonic {d} {data_set['mnemonic']}")
        for a, account in enumerate(data_set["accounts"]):
            lines.append(f"private_key {d} {a} {account['private_key'].hex()}")
            lines.append(f"address {d} {a} {account['address'].hex()}")
            lines.append(f"sig_r {d} {a} {account['r'].hex()}")
            lines.append(f"sig_s {d} {a} {account['s'].hex()}")
            lines.append(f"sig_v {d} {a} {account['v']:02x}")
    for a in range(ACCOUNTS):
        words = " ".join(f"{w:08x}" for w in PATH_PREFIX + [a])
        lines.append(f"hd_path {a} {words}")
    lines.append(f"special_seed {vectors['special_seed'].hex()}")
    lines.append(f"special_seed_size {len(vectors['special_seed'])}")
    for i, (_, digest) in enumerate(vectors["specials"]):
        lines.append(f"special_transaction {i} {digest.hex()}")
    lines.append(f"api_test_digest {vectors['api_digest'].hex()}")
    return "\n".join(lines) + "\n"


def c_bytes(data, indent):
    hexes = [f"0x{b:02x}" for b in data]
    rows = [", ".join(hexes[i:i + 16]) for i in range(0, len(hexes), 16)]
    return "{" + (",\n" + " " * (indent + 1)).join(rows) + "}"


def cpp(vectors):
    out = []
    emit = out.append
    emit("// Generated by testdata/make_test_vectors.py from testdata/inputs.json.")
    emit("// Do not edit: change the inputs and rerun the generator. A test reruns it")
    emit("// and compares every value with what is compiled in.")
    emit('#include "TestDataTables.h"')
    emit("")
    emit("namespace test {")
    emit("namespace vectors {")
    emit("")
    emit("const char kPins[kPinCount][kPinLength + 1] = {")
    for pin in vectors["pins"]:
        emit(f'    "{pin}",')
    emit("};")
    emit("")
    emit("const char* const kMnemonics[kDataSetCount] = {")
    for data_set in vectors["data_sets"]:
        emit(f'    "{data_set["mnemonic"]}",')
    emit("};")
    emit("")
    emit("const unsigned char kSeeds[kDataSetCount][kSeedSize] = {")
    for data_set in vectors["data_sets"]:
        emit(f"    {c_bytes(data_set['seed'], 4)},")
    emit("};")
    emit("")
    emit("const uint32_t kSeedLengths[kDataSetCount] = {"
         + ", ".join(str(len(d["seed"])) for d in vectors["data_sets"]) + "};")
    for name, key, size in (("kPrivateKeys", "private_key", "kKeySize"),
                            ("kAddresses", "address", "kAddressSize"),
                            ("kSignatureR", "r", "kKeySize"),
                            ("kSignatureS", "s", "kKeySize")):
        emit("")
        emit(f"const unsigned char {name}[kRowCount][{size}] = {{")
        for d, data_set in enumerate(vectors["data_sets"]):
            for a, account in enumerate(data_set["accounts"]):
                emit(f"    // data set {d}, account {a}")
                emit(f"    {c_bytes(account[key], 4)},")
        emit("};")
    emit("")
    emit("const unsigned char kSignatureV[kRowCount] = {")
    for data_set in vectors["data_sets"]:
        emit("    " + ", ".join(str(a["v"]) for a in data_set["accounts"]) + ",")
    emit("};")
    emit("")
    emit("const unsigned char kSpecialSeed[kSeedSize] =")
    emit(f"    {c_bytes(vectors['special_seed'], 4)};")
    emit("")
    emit("const unsigned char kSpecialTransactions[kSpecialTransactionCount][kDigestSize] = {")
    for i, (label, digest) in enumerate(vectors["specials"]):
        emit(f"    // {i}: {label}")
        emit(f"    {c_bytes(digest, 4)},")
    emit("};")
    emit("")
    emit("const unsigned char kApiTestDigest[kDigestSize] =")
    emit(f"    {c_bytes(vectors['api_digest'], 4)};")
    emit("")
    emit("}  // namespace vectors")
    emit("}  // namespace test")
    return "\n".join(out) + "\n"


def check(command):
    expected = listing(derive())
    actual = subprocess.run(command, check=True, stdout=subprocess.PIPE,
                            encoding="utf-8").stdout
    if actual == expected:
        print(f"{len(expected.splitlines())} values agree with the generator")
        return 0
    want, got = expected.splitlines(), actual.splitlines()
    for i in range(max(len(want), len(got))):
        w = want[i] if i < len(want) else "<missing>"
        g = got[i] if i < len(got) else "<missing>"
        if w != g:
            print(f"line {i + 1} differs:\n  generator: {w}\n  compiled:  {g}")
    return 1


def main(argv):
    if len(argv) >= 2 and argv[1] == "cpp" and len(argv) <= 3:
        path = argv[2] if len(argv) == 3 else DEFAULT_CPP
        text = cpp(derive())
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return 0
    if len(argv) == 2 and argv[1] == "dump":
        sys.stdout.write(listing(derive()))
        return 0
    if len(argv) >= 3 and argv[1] == "check":
        return check(argv[2:])
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv))
    except VectorError as e:
        sys.stderr.write(f"make_test_vectors.py: check failed: {e}\n")
        sys.exit(1)
