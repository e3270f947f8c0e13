#!/usr/bin/env python3
"""Makes a recovery-code key pair for a build: a 2048-bit RSA signature key as the hex text of a
CryptoAPI PRIVATEKEYBLOB and PUBLICKEYBLOB, the files `recovery_code keygen` writes.

    recovery_key.py PRIVATE_FILE PUBLIC_FILE

The build that names no vendor key embeds the public half; its tests sign with the private half,
which stays in the build tree."""
import secrets
import sys

BITS = 2048
E = 65537
SMALL_PRIMES = [p for p in range(3, 2000) if all(p % d for d in range(2, int(p ** 0.5) + 1))]


def probably_prime(n, rounds=40):
    if any(n % p == 0 for p in SMALL_PRIMES):
        return n in SMALL_PRIMES
    d, s = n - 1, 0
    while d % 2 == 0:
        d, s = d // 2, s + 1
    for _ in range(rounds):
        x = pow(secrets.randbelow(n - 3) + 2, d, n)
        if x in (1, n - 1):
            continue
        for _ in range(s - 1):
            x = pow(x, 2, n)
            if x == n - 1:
                break
        else:
            return False
    return True


def prime(bits):
    while True:
        n = secrets.randbits(bits) | (3 << (bits - 2)) | 1  # top two bits set: the product has all bits
        if (n - 1) % E != 0 and probably_prime(n):
            return n


def le(n, size):
    return n.to_bytes(size, "little")


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: recovery_key.py PRIVATE_FILE PUBLIC_FILE")
    while True:
        p, q = prime(BITS // 2), prime(BITS // 2)
        if p != q:
            break
    n = p * q
    d = pow(E, -1, (p - 1) * (q - 1))
    half = BITS // 16
    full = BITS // 8
    header = lambda blob_type, magic: bytes([blob_type, 2, 0, 0]) + le(0x2400, 4) + magic + le(BITS, 4) + le(E, 4)
    public = header(6, b"RSA1") + le(n, full)
    private = (header(7, b"RSA2") + le(n, full) + le(p, half) + le(q, half) + le(d % (p - 1), half) +
               le(d % (q - 1), half) + le(pow(q, -1, p), half) + le(d, full))
    for path, blob in ((sys.argv[1], private), (sys.argv[2], public)):
        with open(path, "w") as f:
            f.write(blob.hex().upper() + "\n")


if __name__ == "__main__":
    main()
