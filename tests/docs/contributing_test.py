"""Follows CONTRIBUTING.md to the letter: in a copy of the source tree, adds an operator by the page's own excerpts.

    contributing_test.py SOURCE COPY [CMAKE_OPTION...]

The new operator is the page's under another name, with a check of its own. Each excerpt goes behind its original, under
that name, and a file that bears the operator's name is copied. The copy must then build and pass its tests, those of
the new operator among them. COPY is made anew and left behind.
"""

import pathlib
import re
import shutil
import subprocess
import sys

NEW = "Walked"
IGNORED = shutil.ignore_patterns("build*", ".git", "__pycache__")


def renamed(text):
    """Celu is the example of the step about checks."""
    return re.sub("ThresholdedRelu|Celu", NEW, text).replace("thresholded_relu", NEW.lower())


def excerpts(page):
    """(file, text) of every fenced block whose paragraph before it ends with `file`:"""
    return re.findall(r"`([^`\s]+)`:\n\n```\w+\n(.*?)```\n", page, re.S)


def follow(page, root):
    for name, text in excerpts(page):
        path = root / name
        content = path.read_text()
        if content.count(text) != 1:
            sys.exit(f"{name} does not hold this excerpt once:\n{text}")
        addition = renamed(text).replace(f"{NEW}Attr, Stepping)", f"{NEW}Attr, {NEW})")
        if renamed(name) != name:
            (root / renamed(name)).write_text(renamed(content))
        else:
            gap = "\n" if "\n" in text.strip() and not text.startswith(" ") else ""
            path.write_text(content.replace(text, text + gap + addition))
        print("added to", renamed(name))


def run(root, *command):
    print("$", *command, flush=True)
    result = subprocess.run(command, cwd=root, capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(result.stdout[-6000:] + result.stderr[-2000:])
    return result.stdout


def main(source, copy, *options):
    source, root = pathlib.Path(source), pathlib.Path(copy)
    shutil.rmtree(root, ignore_errors=True)
    shutil.copytree(source, root, ignore=IGNORED)
    follow((root / "CONTRIBUTING.md").read_text(), root)
    stale = subprocess.run(["script/generate", "--check"], cwd=root, capture_output=True)
    if stale.returncode == 0:
        sys.exit("script/generate --check does not notice the new record")
    run(root, "script/generate")
    run(root, "cmake", "--preset", "release", *options)
    run(root, "cmake", "--build", "--preset", "release", "-j2")
    passed = run(root, "ctest", "--preset", "release", "-j2")
    print(passed[-400:])
    listed = run(root / "build/release/tests", "./check_corruption_test", "--gtest_list_tests")
    if f"/{NEW} " not in listed:
        sys.exit("the tests of checks do not know the new operator")


if __name__ == "__main__":
    main(*sys.argv[1:])
