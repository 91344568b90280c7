#!/usr/bin/env python3
"""Writes a trace log of a given size for zelph-log's throughput figure: one
process whose four threads make the calls of a pkcs11-tool session (template
reads, signatures, a failed login, module calls nested in spied ones), with
time stamps that advance as a real log's do."""

import argparse

THREADS = ["7F3A12C0", "7F3A0B40", "7F39F9C0", "7F39E840"]
MARKERS = [".", "|", "@", "_"]

# One call: its function, its argument lines, its code, the module's own
# nested call (or None).
CALLS = [
    ("C_GetAttributeValue", ["hSession = 1", "hObject = 3", "pTemplate: 2 attributes asked for",
                             "\tCKA_CLASS\tLen=8\t(data present)", "\tCKA_ID\tLen=1\t(data present)",
                             "pTemplate: 2 attributes answered", "\tCKA_CLASS\tLen=8\tCKO_PRIVATE_KEY",
                             "\tCKA_ID\tLen=1\t01"], "CKR_OK", None),
    ("C_SignInit", ["hSession = 1", "pMechanism = CKM_SHA256_RSA_PKCS, no parameter", "hKey = 3"],
     "CKR_OK", None),
    ("C_Sign", ["hSession = 1", "pData: 26 bytes", "pSignature: room for 256 bytes",
                "*pulSignatureLen = 256"], "CKR_OK", "CardSign"),
    ("C_Login", ["hSession = 1", "userType = CKU_USER", "pPin: 8 characters, not shown"],
     "CKR_PIN_INCORRECT", "CardVerifyPin"),
    ("C_FindObjects", ["hSession = 1", "ulMaxObjectCount = 16", "*pulObjectCount = 2",
                       "phObject = 2, 3"], "CKR_OK", None),
]

HEADER = """##################################################
# Starting log on 2026-11-22 at 10:00:00
# Process ID: 4711
# Arch: x86_64
# Executable path: /usr/bin/pkcs11-tool
# Middleware path: /usr/lib/Zwmware
# Middleware version: 6.20.5.0
# OS version: linux.workstation

"""


def blocks():
    """The text of every (thread, call) pair once, with {t} for the stamps."""
    for t, thread in enumerate(THREADS):
        for name, lines, code, nested in CALLS:
            prefix = "{t} " + thread + MARKERS[t] * 2 + " "
            text = ["\n", prefix + f"Entering {name}.\n"]
            text += [prefix + "    " + line + "\n" for line in lines]
            if nested:
                text += [prefix + f"    Entering {nested}.\n", prefix + "        APDU sent\n",
                         prefix + f"    Leaving {nested}.\n"]
            text += [prefix + f"    Returns {code} (37 us)\n", prefix + f"Leaving {name}.\n"]
            yield "".join(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("path")
    parser.add_argument("--megabytes", type=int, default=1024)
    args = parser.parse_args()
    templates = list(blocks())
    limit = args.megabytes << 20
    micros = 0
    with open(args.path, "w") as out:
        out.write(HEADER)
        written = len(HEADER)
        chunk = []
        while written < limit:
            for template in templates:
                micros += 41
                s, u = divmod(micros, 1000000)
                stamp = f"11-22_{10 + s // 3600 % 14:02d}:{s // 60 % 60:02d}:{s % 60:02d}:{u:06d}"
                block = template.replace("{t}", stamp)
                chunk.append(block)
                written += len(block)
            if len(chunk) > 2000:
                out.write("".join(chunk))
                chunk = []
        out.write("".join(chunk))


if __name__ == "__main__":
    main()
