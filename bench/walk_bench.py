#!/usr/bin/env python3
"""Measures the walk for .env files beside find, fd and rg --files on a tree of 200,000 files, all pruning the same folders.

Usage: bench/walk_bench.py BUILD_FOLDER [FILES] [ROUNDS]. Each round runs every program once, in turn, with the tree in
the page cache; every program must find the same files, or nothing is reported."""
import os, pathlib, shutil, statistics, subprocess, sys, tempfile, time

IGNORED = ("node_modules .git .next .nuxt .svelte-kit dist build out target vendor .venv venv Pods DerivedData .cache .turbo "
           "coverage legacy-tauri .terraform __pycache__ .open-next .vercel .wrangler .sst .serverless .output .gradle .idea "
           ".pytest_cache").split()
TEMPLATES = "example sample template dist defaults tpl".split()


def make_tree(root, files):
    """A fifth of the files in ignored folders, ten a folder, an .env file in every fiftieth. The number of .env files to find."""
    made = wanted = folders = 0
    while made < files:
        ignored = folders % 5 == 4
        group = root / f"team{folders // 400}" / f"service{folders // 20 % 20}"
        folder = group / (IGNORED[folders // 5 % len(IGNORED)] if ignored else "src") / f"part{folders % 20}"
        folder.mkdir(parents=True)
        names = [f"module{i}.ts" for i in range(10)]
        if folders % 50 in (3, 4):
            names[0] = ".env" if folders % 100 < 50 else ".env.local"
            names[1] = ".env.example"
            wanted += 0 if ignored else 1
        for name in names:
            (folder / name).touch()
        made += len(names)
        folders += 1
    return made, wanted


def peers(root):
    named = "^\\.(env|dev\\.vars)($|\\.)"
    prune = [word for name in IGNORED for word in ("-o", "-name", name)][1:]
    found = ["find", root, "-type", "d", "(", *prune, ")", "-prune", "-o", "-type", "f", "(", "-name", ".env", "-o", "-name",
             ".env.*", "-o", "-name", ".dev.vars", "-o", "-name", ".dev.vars.*", ")"]
    for ending in TEMPLATES:
        found += ["!", "-iname", f"*.{ending}"]
    commands = {"find": [*found, "-print"]}
    fd = shutil.which("fdfind") or shutil.which("fd")
    if fd:
        commands["fd"] = [fd, "--no-ignore", "--hidden", "--type", "f", "--case-sensitive",
                          *(w for name in IGNORED + [f"*.{e}" for e in TEMPLATES] for w in ("--exclude", name)), named, root]
    if rg := shutil.which("rg"):
        globs = [".env", ".env.*", ".dev.vars", ".dev.vars.*", *(f"!*.{e}" for e in TEMPLATES), *(f"!{n}/" for n in IGNORED)]
        commands["rg --files"] = [rg, "--files", "--no-ignore", "--hidden", *(w for g in globs for w in ("--glob", g)), root]
    return commands


def run(command):
    began = time.perf_counter()
    done = subprocess.run(command, stdout=subprocess.PIPE, check=True)
    return time.perf_counter() - began, done.stdout


def main():
    build = pathlib.Path(sys.argv[1])
    files, rounds = (int(value) for value in (sys.argv[2:] + ["200000", "15"][len(sys.argv) - 2:]))
    with tempfile.TemporaryDirectory(prefix="sorvane-walk-") as folder:
        made, wanted = make_tree(pathlib.Path(folder), files)
        commands = {"sorvane": [os.fspath(build / "walk_driver"), folder], **peers(folder)}
        times = {name: [] for name in commands}
        for turn in range(rounds + 1):
            for name, command in commands.items():
                took, output = run(command)
                count = int(output) if name == "sorvane" else output.count(b"\n")
                if count != wanted:
                    sys.exit(f"{name} found {count} of {wanted} files")
                if turn > 0:  # the first round fills the cache
                    times[name].append(took * 1000)
    middle = {name: statistics.median(taken) for name, taken in times.items()}
    fastest = min(value for name, value in middle.items() if name != "sorvane")
    print(f"walk of {made} files, {wanted} found, {rounds} rounds, {os.cpu_count()} cores; milliseconds, start of the program included")
    print(f"{'':12} {'median':>8} {'least':>8} {'most':>8}")
    for name, taken in times.items():
        print(f"{name:12} {middle[name]:8.1f} {min(taken):8.1f} {max(taken):8.1f}")
    missing = [name for name in ("find", "fd", "rg --files") if name not in times]
    print(f"sorvane takes {middle['sorvane'] / fastest:.2f} times the fastest of the others"
          + (f" (not installed: {', '.join(missing)})" if missing else ""))


main()
