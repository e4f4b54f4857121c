# Runs every command that README.md, docs/*.md and the manual page show, as a user would.
#
# A code block is preceded by a marker, "run" (with status=N, setup="...", NAME=VALUE for the
# environment) or "not run: why"; a code span `zvcompute ...` in the text runs as a one-line block.
# Each block runs with bash -e in a fresh directory holding the file's "example inputs", with a
# zvcompute on PATH that logs every call. Each call must succeed and leave a file that NumPy or
# mrcfile reads (a new file with the shape of its largest operand), unless an operand is a bad
# input: then it must fail, and a file the block wrote must name the bad input.
import glob, os, re, shlex, subprocess, sys, tempfile, warnings
import mrcfile, numpy as np

warnings.simplefilter('ignore', np.ComplexWarning)  # mrcfile.validate sums complex data as real
root, binary = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
errors = []


def make(path, desc):  # type:L0xL1x... with axis 0 first, or bad: an MRC file cut short
    os.makedirs(os.path.dirname(path) or '.', exist_ok=True)
    kind, _, axes = desc.partition(':')
    a = np.random.default_rng(len(path)).uniform(0, 2, [int(n) for n in axes.split('x')[::-1]] if axes else [8, 8])
    a = (a + 1j * a[::-1] if kind == 'cmplx32' else a).astype({'real64': 'f8', 'cmplx32': 'c8'}.get(kind, 'f4'))
    np.save(path, a) if path.endswith('.npy') else mrcfile.new(path, a, overwrite=True).close()
    if kind == 'bad':
        os.truncate(path, os.path.getsize(path) - 100)


def shape(path):  # the field's own readers; mrcfile also checks the header against the data
    if path.endswith('.npy'):
        return np.load(path).shape
    if path.endswith(('.tif', '.tiff')):  # Debian's tifffile decodes no LZW: libtiff's tiffcp unpacks it
        import tifffile
        plain = tempfile.mktemp(suffix='.tif')
        subprocess.run(['tiffcp', '-c', 'none', path, plain], check=True)
        a = tifffile.imread(plain)
        os.remove(plain)
        return (int(np.prod(a.shape)),)  # pages hold a four-axis image's last two axes as one
    if not mrcfile.validate(path, print_file=open(os.devnull, 'w')):
        errors.append(f'{path}: mrcfile.validate fails')
    return mrcfile.read(path).shape


def examples(path):  # the file's inputs, and (place, script, marker options) of each example
    text = open(path).read()
    if path.endswith('.1'):  # roff: comments become markers, .nf and .fi fences
        for roff, md in ((r'^\.\\" (.*)$', r'<!-- \1 -->'), (r'^\.(nf|fi)$', '```'), (r'\\-', '-'),
                         (r'\\\(aq', "'"), (r'\\e', r'\\')):
            text = re.sub(roff, md, text, flags=re.M)
    inputs, marker, block, found = {}, None, None, []
    for n, line in enumerate(text.splitlines(), 1):
        where, line = f'{os.path.relpath(path, root)}:{n}', line.strip()
        m = re.match(r'<!-- (example inputs|run|not run)\b:?(.*?)(-->)?$', line)
        if block is not None and line != '```':
            block.append(line)
        elif block is not None:
            found += [(where, '\n'.join(block), marker[1])] if marker[0] == 'run' else []
            block = marker = None
        elif line.startswith('```'):
            if not marker:
                errors.append(f'{where}: code block marked neither "run" nor "not run: why"')
            marker, block = marker or ('', ''), []
        elif m and m[1] == 'example inputs':
            inputs.update(w.split('=', 1) for w in m[2].split())
        elif m or line:
            marker = (m[1], m[2]) if m else None
            found += [(where, c, '') for c in re.findall(r'`(zvcompute [^`]*)`', line)
                      if not re.search(r'\b[A-Z]{2,}\b', c)]  # FILE, OP: a form, not a command
    return inputs, found


bindir = tempfile.mkdtemp()
log = f'{bindir}/calls'
with open(f'{bindir}/zvcompute', 'w') as f:
    f.write('#!/bin/bash\n"$ZV_BINARY" "$@"; s=$?\n'
            'r=$(printf "%s\\x1f" $s "$PWD" "$@"); printf "%s\\x1e" "$r" >>"$ZV_LOG"; exit $s\n')
os.chmod(f'{bindir}/zvcompute', 0o755)
docs = [f'{root}/README.md'] + sorted(glob.glob(f'{root}/docs/*.md')) + [f'{root}/docs/zvcompute.1']
for doc in docs:
    inputs, found = examples(doc)
    for where, script, options in found:
        os.chdir(tempfile.mkdtemp())
        open(log, 'w').close()
        for name, desc in inputs.items():
            make(name, desc)
        opts = dict(o.split('=', 1) for o in shlex.split(options))
        status, setup = int(opts.pop('status', 0)), opts.pop('setup', 'true')
        env = dict(os.environ, **opts, ZV_BINARY=binary, ZV_LOG=log,
                   PATH=f'{bindir}:{os.path.dirname(sys.executable)}:{os.environ["PATH"]}')
        r = subprocess.run(['bash', '-ec', f'{setup}\n{script}'], env=env, capture_output=True, text=True)
        calls = [c.split('\x1f')[:-1] for c in open(log).read().split('\x1e')[:-1]]
        wanted = len(re.findall(r'^[^#]*\bzvcompute ', script, re.M))
        if r.returncode != status or len(calls) < wanted:
            errors.append(f'{where}: status {r.returncode}, {len(calls)} of {wanted} calls\n{script}\n{r.stderr}')
        for s, cwd, *args in calls:
            pos = args  # the positional arguments: options and their values come first
            while re.match('-[a-z]', pos[0] if pos else ''):
                pos = pos[1 + (pos[0] != '-h'):]
            at = [os.path.relpath(os.path.join(cwd, p)) for p in pos]
            bad = [p for p in at if inputs.get(p) == 'bad']
            logs = [open(p, errors='replace').read() for p in glob.glob('**', recursive=True)
                    if os.path.isfile(p) and p not in inputs and not p.endswith(('.mrc', '.npy'))]
            if int(s) != bool(bad) or not all(any(b in t for t in logs) for b in bad):
                errors.append(f'{where}: zvcompute {" ".join(args)}: status {s}, failure not recorded')
            elif not bad:  # in place: a valid file; new: the shape of the largest operand
                ops = [shape(p) for p in at[2:] if os.path.isfile(p)] if pos[1:2] == ['='] else []
                got, want = shape(at[0]), max(ops or [shape(at[0])], key=np.prod)
                if (np.prod(got) != np.prod(want)) if 1 in (len(got), len(want)) else got != want:
                    errors.append(f'{where}: zvcompute {" ".join(args)}: {pos[0]} has the wrong shape')
        errors += [f'{where}: left {p}' for p in glob.glob('**/.*zvtmp*', recursive=True)]
print('\n'.join(errors) or f'all examples of {len(docs)} files ran')
sys.exit(1 if errors else 0)
