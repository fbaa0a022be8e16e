#!/usr/bin/env python3
"""Generates the code-page tables of quarnel/platform/internal/ and the test data
of tests/data/ from recorded answers of the Win32 conversion calls.

  tools/gen_codepage_tables.py RECORDINGS_DIR

RECORDINGS_DIR holds codepages.tsv (GetCPInfo, IsDBCSLeadByteEx and
MultiByteToWideChar of every single byte and every 932 lead/trail pair) and
wc2mb_<cp>.tsv (WideCharToMultiByte of every UTF-16 unit). The build and the
tests never read that folder: the outputs are committed.

Outputs:
  quarnel/platform/internal/codepage_tables.cpp  1252 and Mac Roman (10000) in
      both directions, best-fit included; the 932 lead bytes and the fix-ups
      that make glibc's CP932 converter answer as Windows does.
  tests/data/codepage_mb2wc.tsv  every recorded MultiByteToWideChar answer.
  tests/data/codepage_wc2mb.tsv  every recorded WideCharToMultiByte answer
      that is not the default character: a unit not listed gives '?' with
      usedDefault 1.
  tests/data/codepage_lead.tsv   IsDBCSLeadByteEx(932, b) for every byte.

The 932 fix-ups are the differences between the recordings and this machine's
glibc iconv ("CP932"), found by asking iconv about every byte, pair and unit.
"""

import ctypes
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# ---------------------------------------------------------------- reading


def read_recordings(folder):
    mb2wc = {}  # (cp, bytes) -> unit
    mb2wc_rows = []
    lead = {}  # byte -> 0/1
    with open(os.path.join(folder, 'codepages.tsv'), encoding='utf-8') as f:
        for line in f:
            if line.startswith('#'):
                continue
            fields = line.rstrip('\n').split('\t')
            if fields[0] == 'MB2WC':
                cp, data, size, ret, err, units = fields[1:7]
                assert size == '1' and ret == '1' and err == '-', line
                mb2wc[(int(cp), bytes.fromhex(data))] = int(units, 16)
                mb2wc_rows.append((cp, data.replace(' ', ''), units))
            elif fields[0] == 'LEAD' and fields[1] == '932':
                lead[int(fields[2], 16)] = int(fields[3])
    wc2mb = {}
    for cp in (1252, 10000, 932):
        table = {}
        with open(os.path.join(folder, 'wc2mb_%d.tsv' % cp), encoding='utf-8') as f:
            for line in f:
                if line.startswith('#'):
                    continue
                unit, ret, err, data, used = line.rstrip('\n').split('\t')
                assert err == '-' and used in ('0', '1'), line
                table[int(unit, 16)] = (bytes.fromhex(data), int(used))
        wc2mb[cp] = table
    return mb2wc, mb2wc_rows, lead, wc2mb


# ---------------------------------------------------------------- iconv

libc = ctypes.CDLL(None, use_errno=True)
libc.iconv_open.restype = ctypes.c_void_p
libc.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
libc.iconv.restype = ctypes.c_size_t
libc.iconv.argtypes = [ctypes.c_void_p] + [ctypes.POINTER(ctypes.c_char_p),
                                           ctypes.POINTER(ctypes.c_size_t)] * 2
libc.iconv_close.argtypes = [ctypes.c_void_p]


class Iconv:
    def __init__(self, to, frm):
        self.cd = libc.iconv_open(to.encode(), frm.encode())
        if self.cd in (None, ctypes.c_void_p(-1).value, 2**64 - 1):
            raise SystemExit('iconv does not know %s -> %s' % (frm, to))

    def __call__(self, data):
        """The converted bytes, or None when iconv refuses the input."""
        libc.iconv(self.cd, None, None, None, None)  # reset the state
        src = ctypes.create_string_buffer(data, len(data))
        dst = ctypes.create_string_buffer(16)
        sp, sl = ctypes.c_char_p(ctypes.addressof(src)), ctypes.c_size_t(len(data))
        dp, dl = ctypes.c_char_p(ctypes.addressof(dst)), ctypes.c_size_t(16)
        r = libc.iconv(self.cd, ctypes.byref(sp), ctypes.byref(sl), ctypes.byref(dp),
                       ctypes.byref(dl))
        if r == 2**64 - 1 or sl.value != 0:
            return None
        return dst.raw[:16 - dl.value]


# ---------------------------------------------------------------- tables


def sbcs_tables(cp, mb2wc, wc2mb):
    to_unicode = [mb2wc[(cp, bytes([b]))] for b in range(256)]
    forward = {}
    for unit, (data, used) in wc2mb[cp].items():
        if used:
            assert data == b'\x3f', (cp, unit)
            continue
        assert len(data) == 1, (cp, unit)
        # Byte 0 marks "no mapping" in the pages: only U+0000 may map to it.
        assert data[0] != 0 or unit == 0, (cp, unit)
        forward[unit] = data[0]
    # Every byte's own unit must convert back to it.
    for b, unit in enumerate(to_unicode):
        assert forward.get(unit) == b, (cp, b, unit)
    pages = sorted({unit >> 8 for unit in forward})
    return to_unicode, forward, pages


def emit_sbcs(out, name, cp, to_unicode, forward, pages):
    out.append('// Code page %d: %d units convert (%d of them by best fit).' %
               (cp, len(forward), len(forward) - 256))
    out.append('const char16_t k%sToUnicode[256] = {' % name)
    for row in range(0, 256, 8):
        out.append('    ' + ' '.join('0x%04X,' % u for u in to_unicode[row:row + 8]))
    out.append('};')
    out.append('const unsigned char k%sPages[%d][256] = {' % (name, len(pages) + 1))
    out.append('    {},  // no unit of these pages converts')
    for page in pages:
        out.append('    {  // U+%02X00' % page)
        cells = [forward.get((page << 8) | lo, 0) for lo in range(256)]
        for row in range(0, 256, 16):
            out.append('        ' + ' '.join('0x%02X,' % c for c in cells[row:row + 16]))
        out.append('    },')
    out.append('};')
    index = [0] * 256
    for i, page in enumerate(pages):
        index[page] = i + 1
    out.append('const unsigned char k%sPageIndex[256] = {' % name)
    for row in range(0, 256, 16):
        out.append('    ' + ' '.join('%d,' % c for c in index[row:row + 16]))
    out.append('};')
    out.append('const SbcsTable k%sTable = {k%sToUnicode, k%sPageIndex, k%sPages};' %
               (name, name, name, name))
    out.append('')


def cp932_fixups(mb2wc, lead, wc2mb):
    to_utf16 = Iconv('UTF-16LE', 'CP932')
    from_utf16 = Iconv('CP932', 'UTF-16LE')
    default_unit = 0x30FB
    lead_bytes = [b for b in range(256) if lead[b]]

    single = []  # (byte, unit) where iconv refuses the byte or answers otherwise
    for b in range(256):
        want = mb2wc[(932, bytes([b]))]
        if lead[b]:
            assert want == default_unit, b  # a lone lead byte
            continue
        got = to_utf16(bytes([b]))
        got = int.from_bytes(got, 'little') if got and len(got) == 2 else None
        if got != want:
            single.append((b, want))

    # Pairs: iconv must agree wherever it converts, and refuse exactly the
    # pairs Windows answers with the default character.
    pair_fixes = []
    for (cp, data), want in mb2wc.items():
        if cp != 932 or len(data) != 2:
            continue
        got = to_utf16(data)
        got = int.from_bytes(got, 'little') if got and len(got) == 2 else None
        if got is None and want == default_unit:
            continue
        if got != want:
            pair_fixes.append((data[0] << 8 | data[1], want))

    wc_fixes = []  # (unit, bytes as a 16-bit value, 0 = no mapping)
    for unit, (data, used) in sorted(wc2mb[932].items()):
        want = None if used else data
        got = from_utf16(unit.to_bytes(2, 'little'))
        if got != want:
            wc_fixes.append((unit, 0 if want is None else int.from_bytes(want, 'big')))
    return lead_bytes, single, pair_fixes, wc_fixes


def emit_932(out, lead_bytes, single, pair_fixes, wc_fixes):
    out.append('// Code page 932: lead bytes, as IsDBCSLeadByteEx answers.')
    flags = [1 if b in lead_bytes else 0 for b in range(256)]
    out.append('const unsigned char kCp932LeadFlags[256] = {')
    for row in range(0, 256, 32):
        out.append('    ' + ' '.join('%d,' % c for c in flags[row:row + 32]))
    out.append('};')
    out.append('')
    out.append('// Single bytes that glibc\'s CP932 refuses or converts otherwise.')
    out.append('const CodeUnitFix kCp932ByteFixes[] = {')
    for b, unit in single:
        out.append('    {0x%02X, 0x%04X},' % (b, unit))  # bytes, unit
    out.append('};')
    out.append('')
    out.append('// Lead/trail pairs whose unit differs from glibc\'s CP932.')
    out.append('const CodeUnitFix kCp932PairFixes[] = {')
    for data, unit in pair_fixes:
        out.append('    {0x%04X, 0x%04X},' % (data, unit))
    if not pair_fixes:
        out.append('    {0, 0},  // none (the count below is 0)')
    out.append('};')
    out.append('')
    out.append('// UTF-16 units whose bytes differ from glibc\'s CP932: Windows\' best-fit')
    out.append('// mappings, and units Windows does not convert (bytes 0, the default')
    out.append('// character). Sorted by unit.')
    out.append('const UnitBytesFix kCp932UnitFixes[] = {')
    for unit, data in wc_fixes:
        out.append('    {0x%04X, 0x%04X},' % (unit, data))
    out.append('};')
    out.append('const Cp932Fixes kCp932Fixes = {')
    out.append('    kCp932LeadFlags,')
    out.append('    kCp932ByteFixes, sizeof(kCp932ByteFixes) / sizeof(kCp932ByteFixes[0]),')
    out.append('    kCp932PairFixes, %d,' % len(pair_fixes))
    out.append('    kCp932UnitFixes, sizeof(kCp932UnitFixes) / sizeof(kCp932UnitFixes[0]),')
    out.append('};')


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    mb2wc, mb2wc_rows, lead, wc2mb = read_recordings(sys.argv[1])

    out = ['// Generated by tools/gen_codepage_tables.py from recorded answers of the',
           '// Win32 conversion calls; do not edit.',
           '#include "quarnel/platform/internal/codepage_tables.h"',
           '',
           '// Arrays are const, so each stays inside this file; the three records at',
           '// the end of each section are what codepage.cpp sees.',
           'namespace quarnel_internal {',
           '',
           '// clang-format off']
    for name, cp in (('Cp1252', 1252), ('MacRoman', 10000)):
        # Code page 2 (CP_MACCP) must be the same table as 10000.
        for b in range(256):
            assert mb2wc[(2, bytes([b]))] == mb2wc[(10000, bytes([b]))], b
        emit_sbcs(out, name, cp, *sbcs_tables(cp, mb2wc, wc2mb))
    lead_bytes, single, pair_fixes, wc_fixes = cp932_fixups(mb2wc, lead, wc2mb)
    emit_932(out, lead_bytes, single, pair_fixes, wc_fixes)
    out.append('// clang-format on')
    out.append('')
    out.append('}  // namespace quarnel_internal')
    with open(os.path.join(ROOT, 'quarnel/platform/internal/codepage_tables.cpp'), 'w') as f:
        f.write('\n'.join(out) + '\n')

    data = os.path.join(ROOT, 'tests/data')
    with open(os.path.join(data, 'codepage_mb2wc.tsv'), 'w') as f:
        f.write('# MultiByteToWideChar(cp, MB_PRECOMPOSED, bytes): code page, bytes (hex), '
                'the one UTF-16 unit (hex)\n')
        for cp, hexbytes, units in mb2wc_rows:
            f.write('%s\t%s\t%s\n' % (cp, hexbytes, units))
    with open(os.path.join(data, 'codepage_wc2mb.tsv'), 'w') as f:
        f.write('# WideCharToMultiByte(cp, 0, unit): code page, unit (hex), bytes (hex), '
                'usedDefault. Units not listed (surrogates excepted) give 3F, usedDefault 1\n')
        for cp in (1252, 10000, 932):
            for unit, (hexbytes, used) in sorted(wc2mb[cp].items()):
                if used == 1 and hexbytes == b'\x3f':
                    continue
                f.write('%d\t%04X\t%s\t%d\n' % (cp, unit, hexbytes.hex().upper(), used))
    with open(os.path.join(data, 'codepage_lead.tsv'), 'w') as f:
        f.write('# IsDBCSLeadByteEx(932, byte): byte (hex), result\n')
        for b in range(256):
            f.write('%02X\t%d\n' % (b, lead[b]))
    print('932 fix-ups: %d bytes, %d pairs, %d units' %
          (len(single), len(pair_fixes), len(wc_fixes)))


if __name__ == '__main__':
    main()
