#!/usr/bin/env python3
"""Seeded draw of mutation candidates over src/ (see the header of tools/mutants.txt).

Prints, per subsystem, the first candidates of the shuffled list: where, kind,
original line and the mutated line.  The chosen ones were copied into mutants.txt.
"""
import random, re, sys
from pathlib import Path
ROOT = Path(__file__).resolve().parent.parent / 'src'
SKIP_FILES = {'socket/non_lsp_platform_win.cc'}  # not compiled here
def candidates(path):
    text = path.read_text(); lines = text.splitlines(); out = []
    in_block = False; stack = []
    for n, raw in enumerate(lines, 1):
        s = raw.strip()
        if re.match(r'#\s*if', s): stack.append(bool(re.search(r'_WIN32|_MSC_VER', s)) and not s.startswith('#if !'))
        elif re.match(r'#\s*else', s) and stack: stack[-1] = not stack[-1]
        elif re.match(r'#\s*endif', s) and stack: stack.pop()
        if any(stack): continue
        if in_block:
            if '*/' in s: in_block = False
            continue
        if s.startswith('/*'): in_block = '*/' not in s; continue
        if not s or s.startswith(('//', '#')) or re.search(r'\bLog(Info|Error|Debug|Write)\(|ZS_DCHECK|ZS_ASSERT', s):
            continue
        if '\t' in s or text.count(s) != 1: continue
        code = s.split('//')[0].rstrip()
        muts = []
        if '&&' in code: muts.append(('logic', code.replace('&&', '||', 1)))
        elif '||' in code: muts.append(('logic', code.replace('||', '&&', 1)))
        m = re.search(r'(?<![-<>=!])(==|!=|<=|>=|<|>)(?![<>=])', code)
        if m and m.group(1) in '<>' and re.search(r'\w<[\w:*& ,]*>', code): m = None
        if m and not re.search(r'template|static_assert|operator', code):
            flip = {'==':'!=','!=':'==','<=':'<','>=':'>','<':'<=','>':'>='}[m.group(1)]
            muts.append(('cmp', code[:m.start()] + flip + code[m.end():]))
        m = re.fullmatch(r'return (true|false|0|-1|nullptr|\d+);', code)
        if m:
            v = {'true':'false','false':'true','0':'-1','-1':'0','nullptr':None}.get(m.group(1), '0')
            if v: muts.append(('const', f'return {v};'))
        if re.fullmatch(r'[A-Za-z_][\w:.>\-]*(<[^;]*>)?\(.*\);', code) and code.count('(') == code.count(')') \
           and not code.startswith(('return', 'if', 'while', 'for', 'switch', 'delete')) and '=' not in code.split('(')[0]:
            muts.append(('call', ''))
        for kind, repl in muts:
            out.append((str(path.relative_to(ROOT)), n, code, repl, kind))
    return out
seed = 20261123
rng = random.Random(seed)
per = int(sys.argv[1]) if len(sys.argv) > 1 else 8
for sub in ['core', 'loop', 'address', 'socket', 'channel']:
    cands = []
    for p in sorted((ROOT/sub).glob('*')):
        if str(p.relative_to(ROOT)) in SKIP_FILES: continue
        cands += candidates(p)
    rng.shuffle(cands)
    print(f'## {sub}: {len(cands)} candidates')
    for c in cands[:per+6]:
        print(f'{c[0]}:{c[1]}\t{c[4]}\t{c[2]}\t=> {c[3]}')
