#!/usr/bin/python3
"""Cross-checks the published vector files of this folder with independent
implementations from Debian (python3-mnemonic, python3-bip32utils), so that a
value mistyped when the files were written cannot go unnoticed.

Usage: check_vectors.py <testdata folder>   (exit status 0 when all agree)
"""
import sys
from pathlib import Path

from bip32utils import BIP32Key
from mnemonic import Mnemonic


def check_bip39(path):
    m = Mnemonic("english")
    n = 0
    for line in path.read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        entropy, phrase, seed = line.split("|")
        assert m.to_mnemonic(bytes.fromhex(entropy)) == phrase, phrase
        assert m.check(phrase), phrase
        assert Mnemonic.to_seed(phrase, passphrase="TREZOR").hex() == seed, phrase
        n += 1
    assert n == 24, n
    return n


def check_bip32(path):
    n = 0
    seed = None
    for line in path.read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        first, second = line.split(" ")
        if first == "seed":
            seed = bytes.fromhex(second)
            continue
        key = BIP32Key.fromEntropy(seed)
        for level in first.split("/")[1:]:
            index = int(level.rstrip("H")) + (0x80000000 if level.endswith("H") else 0)
            key = key.ChildKey(index)
        # bip32utils drops leading zero bytes of a private key in some
        # versions; compare the decoded key material, not only the text.
        want = BIP32Key.fromExtendedKey(second)
        assert key.PrivateKey().rjust(32, b"\0") == want.PrivateKey().rjust(32, b"\0"), first
        assert key.C == want.C, first
        n += 1
    assert n == 17, n
    return n


def main():
    folder = Path(sys.argv[1])
    a = check_bip39(folder / "bip39_english_trezor.txt")
    b = check_bip32(folder / "bip32_vectors.txt")
    print(f"{a} BIP-39 and {b} BIP-32 vectors agree with python3-mnemonic and python3-bip32utils")


if __name__ == "__main__":
    main()
