"""Runs every command that README.md, docs/*.md and the manual page show, as a user would.

A code block is preceded by a marker, "run" (with status=N, setup="...", NAME=VALUE for the
environment) or "not run: why"; a code span `zvcompute ...` in the text runs as a one-line block.
Each block runs with bash -e in a fresh directory holding the file's "example inputs", with a
zvcompute on PATH that logs every call. Each call must succeed and leave a new file that NumPy or
mrcfile reads with the shape of its largest operand, unless an operand is a bad input: then it must
fail, and a file the block wrote must name the bad input."""
import glob, os, re, shlex, subprocess, sys, tempfile
import mrcfile, numpy as np, warnings
warnings.simplefilter("ignore", np.ComplexWarning)  # mrcfile.validate on complex data

root, binary = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
errors = []


def make(path, spec):  # type:L0xL1x... with axis 0 first, or bad: an MRC file cut short
    os.makedirs(os.path.dirname(path) or '.', exist_ok=True)
    kind, _, axes = spec.partition(':')
    shape = tuple(int(n) for n in reversed(axes.split('x'))) if axes else (8, 8)
    a = np.random.default_rng(len(path)).uniform(0, 2, shape)
    a = a + 1j * a[::-1] if kind == 'cmplx32' else a
    a = a.astype({'real32': 'f4', 'real64': 'f8', 'int16': 'i2', 'cmplx32': 'c8'}.get(kind, 'f4'))
    if path.endswith('.npy'):
        return np.save(path, a)
    mrcfile.new(path, a, overwrite=True).close()
    if kind == 'bad':
        os.truncate(path, os.path.getsize(path) - 100)


def shape(path):  # the field's own readers; mrcfile also checks the header against the data
    if path.endswith('.npy'):
        return np.load(path).shape
    with open(os.devnull, 'w') as quiet:
        if not mrcfile.validate(path, print_file=quiet):
            errors.append(f'{path}: mrcfile.validate fails')
    return mrcfile.read(path).shape


def examples(path):
    text = open(path).read()
    if path.endswith('.1'):  # roff: comments become markers, .nf/.fi fences
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
        elif m:
            marker = (m[1], m[2])
        else:
            marker = marker if not line else None
            found += [(where, c, '') for c in re.findall(r'`(zvcompute [^`]*)`', line)
                      if not re.search(r'\b[A-Z]{2,}\b', c)]
    return inputs, found


def operands(args):  # positional arguments: options and their values come first
    while args and re.match(r'-[a-z]', args[0]):
        args = args[1 + (args[0] != '-h'):]
    return args


bindir = tempfile.mkdtemp()
with open(f'{bindir}/zvcompute', 'w') as f:
    f.write('#!/bin/bash\n"$ZV_BINARY" "$@"; s=$?\n'
            'r=$(printf "%s\\x1f" $s "$PWD" "$@"); printf "%s\\x1e" "$r" >>"$ZV_LOG"; exit $s\n')
os.chmod(f'{bindir}/zvcompute', 0o755)
docs = [f'{root}/README.md'] + sorted(glob.glob(f'{root}/docs/*.md')) + [f'{root}/docs/zvcompute.1']
for doc in docs:
    inputs, found = examples(doc)
    for where, script, options in found:
        os.chdir(tempfile.mkdtemp())
        if os.path.exists(f'{bindir}/calls'):
            os.remove(f'{bindir}/calls')
        for name, spec in inputs.items():
            make(name, spec)
        opts = dict(o.split('=', 1) for o in shlex.split(options))
        status, setup = int(opts.pop('status', 0)), opts.pop('setup', 'true')
        env = dict(os.environ, **opts, ZV_BINARY=binary, ZV_LOG=f'{bindir}/calls',
                   PATH=f'{bindir}:{os.path.dirname(sys.executable)}:{os.environ["PATH"]}')
        r = subprocess.run(['bash', '-ec', f'{setup}\n{script}'], env=env, capture_output=True, text=True)
        calls = ([c.split('\x1f')[:-1] for c in open(f'{bindir}/calls').read().split('\x1e')[:-1]]
                 if os.path.exists(f'{bindir}/calls') else [])
        wanted = len(re.findall(r'^[^#]*\bzvcompute ', script, re.M))
        if r.returncode != status or len(calls) < wanted:
            errors.append(f'{where}: status {r.returncode}, {len(calls)} of {wanted} calls\n{script}\n{r.stderr}')
        for s, cwd, *args in calls:
            pos, at = operands(args), lambda p: os.path.join(cwd, p)
            bad = [p for p in pos if inputs.get(os.path.relpath(at(p)), '') == 'bad']
            logs = [open(p, errors='replace').read() for p in glob.glob('**', recursive=True)
                    if os.path.isfile(p) and p not in inputs and not p.endswith(('.mrc', '.npy'))]
            if int(s) != (1 if bad else 0) or any(not any(b in t for t in logs) for b in bad):
                errors.append(f'{where}: zvcompute {" ".join(args)}: status {s}, failure not recorded')
            elif not bad and pos[1:2] == ['=']:
                images = [shape(at(p)) for p in pos[2:] if os.path.isfile(at(p))]
                if shape(at(pos[0])) != max(images, key=np.prod):
                    errors.append(f'{where}: zvcompute {" ".join(args)}: {pos[0]} has the wrong shape')
            elif not bad:
                shape(at(pos[0]))
        errors += [f'{where}: left {p}' for p in glob.glob('**/.*zvtmp*', recursive=True)]
print('\n'.join(errors) or f'all examples of {len(docs)} files ran')
sys.exit(1 if errors else 0)
