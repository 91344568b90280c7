#!/usr/bin/env python3
"""Writes the C++ tables of the standard PKCS#11 names from the system's headers.

usage: generate_names.py [--duplicates] <p11-kit pkcs11.h> <NSS pkcs11t.h> <output.cpp>

The names are the union of both headers' object-like #defines of the prefixes
below whose bodies are numbers: literals, | + << of literals, casts to
unsigned long and other such names. A name both headers define with
different values stops the build, naming both lines (but for the few p11-kit
misnumbers, see P11KIT_MISNUMBERED).

Several names for one value of a kind: the one a log line shows is chosen by
  1. an alias (#define X Y in either header) never wins: CKA_SUBPRIME_BITS
     over CKA_SUB_PRIME_BITS, CKF_EC_OID over CKF_EC_NAMEDCURVE;
  2. then a name pkcs11t.h (3.0) has beats one only p11-kit's pkcs11.h (2.40)
     has: CKM_DSA_PROBABILISTIC_PARAMETER_GEN over p11-kit's misspelling;
  3. then the name defined later in pkcs11t.h (else in pkcs11.h), as both
     list a renamed value's old name first: CKK_EC over CKK_ECDSA,
     CKM_EC_KEY_PAIR_GEN over CKM_ECDSA_KEY_PAIR_GEN, CKK_CAST128 over CKK_CAST5.
--duplicates prints every such choice instead of writing the tables.

The flag words' bits are the CKF_ defines pkcs11t.h places right after the
structure (or C_Initialize's arguments) they belong to, up to the next
typedef or #define of another prefix.
"""

import re
import sys

# CNameKind's enumerators, each with the prefix of its names.
KINDS = [
    ("kReturnValue", "CKR_"),
    ("kAttribute", "CKA_"),
    ("kObjectClass", "CKO_"),
    ("kKeyType", "CKK_"),
    ("kCertificateType", "CKC_"),
    ("kMechanism", "CKM_"),
    ("kUserType", "CKU_"),
    ("kSessionState", "CKS_"),
    ("kMgf", "CKG_MGF1_"),
    ("kKdf", "CKD_"),
    ("kOaepSource", "CKZ_"),
    ("kProfile", "CKP_"),
]
# PBKDF2's pseudo-random functions and salt source share CKP_ and CKZ_ with
# the profiles and OAEP's source; the vendor markers start ranges, no values.
NOT_NAMES = re.compile(r"CKP_PKCS5_PBKD2_|CKZ_SALT_SPECIFIED$|.*_VENDOR_DEFINED$")
# CFlagKind's enumerators, each with the structure its CKF_ bits follow.
FLAG_KINDS = [
    ("kSlot", "CK_SLOT_INFO"),
    ("kToken", "CK_TOKEN_INFO"),
    ("kSession", "CK_SESSION_INFO"),
    ("kMechanism", "CK_MECHANISM_INFO"),
    ("kInitialize", "CK_C_INITIALIZE_ARGS"),
]
# p11-kit 0.24's pkcs11.h numbers these 0x1C0 to 0x1C4, where every module
# built on the OASIS headers (and pkcs11t.h, and later p11-kit) returns 0x1B5
# to 0x1B9. Only for them a difference is no error: pkcs11t.h's value is taken.
P11KIT_MISNUMBERED = {"CKR_EXCEEDED_MAX_ITERATIONS", "CKR_FIPS_SELF_TEST_FAILED",
                      "CKR_LIBRARY_LOAD_FAILED", "CKR_PIN_TOO_WEAK", "CKR_PUBLIC_KEY_INVALID"}
PREFIXES = tuple(p for _, p in KINDS) + ("CKF_",)
ULONG_MASK = (1 << 64) - 1


class Define:
    def __init__(self, path, line, name, body):
        self.path, self.line, self.name, self.body = path, line, name, body.strip()
        self.alias = re.fullmatch(r"[A-Za-z_]\w*", self.body) is not None
        self.value = None

    def where(self):
        return f"{self.path}:{self.line}: #define {self.name} {self.body}"


def logical_lines(path):
    """Yields (line number, text) of each line after splicing and comments."""
    with open(path, encoding="latin-1") as f:
        text = f.read()
    line, start, out, i = 1, 1, [], 0
    while i < len(text):
        c = text[i]
        if text.startswith("\\\n", i):
            i, line = i + 2, line + 1
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = len(text) if end < 0 else end + 2
            line += text.count("\n", i, end)
            out.append(" ")
            i = end
        elif text.startswith("//", i):
            while i < len(text) and text[i] != "\n":
                i += 1
        elif c == "\n":
            yield start, "".join(out)
            out, line, i = [], line + 1, i + 1
            start = line
        else:
            out.append(c)
            i += 1
    if out:
        yield start, "".join(out)


def read_header(path):
    """Returns the header's object-like defines and its events in order:
    ("define", Define), ("struct", name) at the end of a typedef'd structure,
    ("typedef", None) for any other typedef."""
    defines, events = {}, []
    for line, text in logical_lines(path):
        m = re.match(r"\s*#\s*define\s+([A-Za-z_]\w*)(\(?)(.*)", text)
        undef = re.match(r"\s*#\s*undef\s+([A-Za-z_]\w*)", text)
        if undef:
            defines.pop(undef.group(1), None)
        elif m:
            if m.group(2):
                events.append(("typedef", None))  # a macro: ends a group too
                continue
            d = Define(path, line, m.group(1), m.group(3))
            old = defines.get(d.name)
            if old and old.body != d.body and d.name.startswith(PREFIXES):
                sys.exit(f"{d.where()}\n{old.where()}\nerror: defined twice, differently")
            defines[d.name] = d
            events.append(("define", d))
        elif re.match(r"\s*typedef\b", text):
            events.append(("typedef", None))
        else:
            m = re.match(r"\s*}\s*([A-Za-z_]\w*)\s*;", text)
            if m:
                events.append(("struct", m.group(1)))
    return defines, events


def evaluate(d, defines, seen=()):
    """The define's value as an unsigned long, or None when it is none."""
    if d.value is not None or d.name in seen:
        return d.value
    body = re.sub(r"\(\s*(unsigned\s+long(\s+int)?|CK_ULONG)\s*\)", " ", d.body)
    expr = []
    for token in re.findall(r"0[xX][0-9A-Fa-f]+\w*|\d+\w*|[A-Za-z_]\w*|<<|\S", body):
        number = re.fullmatch(r"(0[xX][0-9A-Fa-f]+|\d+)[uUlL]*", token)
        if number:
            expr.append(str(int(number.group(1), 0)))
        elif re.fullmatch(r"[A-Za-z_]\w*", token):
            other = defines.get(token)
            value = other and evaluate(other, defines, seen + (d.name,))
            if value is None:
                return None
            expr.append(str(value))
        elif token in ("(", ")", "|", "+", "<<", "~"):
            expr.append(token)
        else:
            return None
    if not expr:
        return None
    try:
        value = eval(" ".join(expr), {"__builtins__": {}})  # digits and operators only
    except SyntaxError:
        return None
    d.value = value & ULONG_MASK
    return d.value


def named_values(headers):
    """Every name of the kinds' and CKF_ prefixes: name -> [Define per header]."""
    names = {}
    for defines, _ in headers:
        for d in defines.values():
            if d.name.startswith(PREFIXES) and evaluate(d, defines) is not None:
                names.setdefault(d.name, []).append(d)
    for name, ds in names.items():
        if len({d.value for d in ds}) > 1:
            if name not in P11KIT_MISNUMBERED:
                sys.exit(f"{ds[0].where()}\n{ds[1].where()}\n"
                         f"error: the headers give {name} different values")
            print(f"note: {name} is 0x{ds[0].value:X} in {ds[0].path}:{ds[0].line}, "
                  f"0x{ds[1].value:X} in {ds[1].path}:{ds[1].line}; taking the latter",
                  file=sys.stderr)
            names[name] = ds[1:]
    return names


def choose(candidates, nss_defines):
    """The preferred of several names of one value (rules in the docstring)."""

    def rank(ds):
        return (not any(d.alias for d in ds), ds[-1].name in nss_defines, ds[-1].line)

    return max(candidates, key=rank)


def table(names, nss_defines, duplicates):
    """[(value, name)] sorted by value, one name per value."""
    by_value = {}
    for ds in names:
        by_value.setdefault(ds[0].value, []).append(ds)
    rows = []
    for value in sorted(by_value):
        best = choose(by_value[value], nss_defines)
        if len(by_value[value]) > 1:
            others = sorted(ds[0].name for ds in by_value[value] if ds is not best)
            duplicates.append(f"0x{value:08X} {best[0].name} over {', '.join(others)}")
        rows.append((value, best[0].name))
    return rows


def flag_groups(events):
    """The CKF_ names after each structure of FLAG_KINDS, by structure."""
    groups, current = {s: [] for _, s in FLAG_KINDS}, None
    for kind, item in events:
        if kind == "struct":
            current = item if item in groups else None
        elif kind == "define" and current and item.name.startswith("CKF_"):
            groups[current].append(item.name)
        else:
            current = None
    return groups


def array(name, rows):
    lines = [f"constexpr CNamedValue {name}[] = {{"]
    lines += [f"    {{0x{value:X}UL, \"{text}\"}}," for value, text in rows]
    return lines + ["};"]


def span_switch(signature, enum, arrays):
    lines = [f"{signature} noexcept {{", "  switch (kind) {"]
    for enumerator, name in arrays:
        lines.append(f"    case {enum}::{enumerator}:")
        lines.append(f"      return {name};")
    return lines + ["  }", "  return {};", "}"]


def main(argv):
    duplicates_only = "--duplicates" in argv
    argv = [a for a in argv if a != "--duplicates"]
    if len(argv) != 4:
        sys.exit(__doc__.split("\n\n")[1])
    p11kit, nss = read_header(argv[1]), read_header(argv[2])
    nss_defines = nss[0]
    names = named_values([p11kit, nss])
    duplicates, out = [], [
        f"// Generated by {argv[0].rsplit('/', 1)[-1]} from {argv[1]} and {argv[2]}.",
        '#include "names/Pkcs11NameTables.h"', "", "namespace zelph {", "namespace {", ""]
    arrays = []
    for enumerator, prefix in KINDS:
        mine = [ds for n, ds in names.items() if n.startswith(prefix) and not NOT_NAMES.match(n)]
        out += array(f"{enumerator}Names", table(mine, nss_defines, duplicates)) + [""]
        arrays.append((enumerator, f"{enumerator}Names"))
    flag_arrays = []
    for (enumerator, struct), members in zip(FLAG_KINDS, flag_groups(nss[1]).values()):
        rows = table([names[n] for n in members], nss_defines, duplicates)
        if not rows or any(v == 0 or v & (v - 1) for v, _ in rows):
            sys.exit(f"{argv[2]}: the CKF_ names after {struct} are not bits: {rows}")
        out += array(f"{enumerator}Flags", rows) + [""]
        flag_arrays.append((enumerator, f"{enumerator}Flags"))
    if duplicates_only:
        print("\n".join(duplicates))
        return
    out += ["}  // namespace", ""]
    out += span_switch("std::span<const CNamedValue> StandardNamesOf(CNameKind kind)",
                       "CNameKind", arrays) + [""]
    out += span_switch("std::span<const CNamedValue> FlagNamesOf(CFlagKind kind)",
                       "CFlagKind", flag_arrays) + [""]
    out += ["CVendorRange VendorRangeOf(CNameKind kind) noexcept {", "  switch (kind) {"]
    for enumerator, prefix in KINDS:
        ds = names.get(prefix + "VENDOR_DEFINED")
        if ds:
            out += [f"    case CNameKind::{enumerator}:",
                    f"      return {{\"{prefix}VENDOR_DEFINED\", 0x{ds[0].value:X}UL}};"]
    out += ["    default:", "      return {nullptr, 0};", "  }", "}", "", "}  // namespace zelph"]
    with open(argv[3], "w", encoding="ascii") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main(sys.argv)
