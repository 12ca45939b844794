"""What ugwctl says of itself, its manual page and the README name the same commands, options and exit statuses."""

import os
import re
import subprocess

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PAGES = ["UGW.8", "ugwctl.1"]


def page(name):
    """A manual page as plain text."""
    path = os.path.join(ROOT, "docs", "man", name)
    return subprocess.run(["mandoc", "-T", "ascii", "-O", "width=200", path], capture_output=True, text=True,
                          check=True).stdout.replace("\b_", "")


def plain(text):
    """Without the overstriking of a typewriter."""
    return re.sub(".\b", "", text)


def section(text, title):
    """The lines of a section of a page."""
    lines = plain(text).splitlines()
    begin = lines.index(title) + 1
    end = next((i for i in range(begin, len(lines)) if re.match(r"[A-Z]", lines[i])), len(lines))
    return lines[begin:end]


@pytest.fixture
def told(build):
    """What --help tells: commands with arguments, options by letter and long name, defaults, exit statuses."""
    done = subprocess.run([os.path.join(build, "ugwctl"), "--help"], capture_output=True, text=True, check=True)
    assert done.stderr == ""
    commands, options, statuses = {}, {}, []
    for line in done.stdout.splitlines():
        if match := re.match(r"  (-\w), --([\w-]+)(=\w+)?  +(.*)", line):
            options[match[2]] = (match[1], match[3] or "", re.findall(r"default: (\S+?)[),]", match[4]))
        elif match := re.match(r"  (\d+) +\w", line):
            statuses.append(int(match[1]))
        elif match := re.match(r"  ([a-z-]+)( .*?)?  +\w", line):
            commands[match[1]] = (match[2] or "").strip()
    assert len(commands) >= 10 and len(options) >= 10 and statuses == list(range(11))
    return commands, options, statuses


def items(name, macro):
    """The tags of a page's lists that begin with a macro, as people read them."""
    with open(os.path.join(ROOT, "docs", "man", name)) as file:
        tags = re.findall(r"^\.It %s (.*)$" % macro, file.read(), re.M)
    return [re.sub(r"\b(?:Ar|Cm) ", "", re.sub(r"Op Ar (\S+)", r"[\1]", tag)).replace(" Ns | Ns ", "|") for tag in tags]


def test_the_manual_page_has_all_commands(told):
    found = dict((tag + " ").split(" ", 1) for tag in items("ugwctl.1", "Cm"))
    assert {name: arguments.strip() for name, arguments in found.items()} == told[0]


def test_the_manual_page_has_all_options(told):
    options = section(page("ugwctl.1"), "OPTIONS")
    found = {}
    for at, line in enumerate(options):
        if match := re.match(r"     (-\w), --([\w-]+)(=\w+)?$", line):
            rest = " ".join(options[at + 1:]).split("     -")[0]
            first = re.search(r"Default: [\"`'‘]*(\S+?)[\"`'’,.]*(?:,|\.$|\. | )", rest)
            found[match[2]] = (match[1], match[3] or "", [first[1]] if first else [])
    assert {name: value[:2] for name, value in found.items()} == {n: v[:2] for n, v in told[1].items()}
    for name in ("timeout", "count", "shut-delay", "reboot-delay"):
        assert found[name][2] == told[1][name][2], name


def test_the_manual_page_has_all_exit_statuses(told):
    found = [int(m[1]) for m in (re.match(r"     (\d+) ", line) for line in section(page("ugwctl.1"), "EXIT STATUS"))
             if m]
    assert found == told[2]


def test_the_readme_has_them_too(told):
    with open(os.path.join(ROOT, "README.md")) as file:
        text = file.read()
    rows = dict(re.findall(r"^\| `ugwctl ([a-z-]+)((?: [^`]*)?)` \|", text, re.M))
    assert {name: arguments.strip().replace("\\|", "|") for name, arguments in rows.items()} == told[0]
    about = text[text.index("## Looking at it"):text.index("## Where things are")]
    assert set(re.findall(r"`--([a-z-]+)", about)) == set(told[1])
    for name in PAGES:
        assert "docs/man/" + name in about


def test_the_gateways_page_has_its_arguments():
    with open(os.path.join(ROOT, "README.md")) as file:
        usage = re.search(r"^    UGW ([A-Z -]+)$", file.read(), re.M)[1].split()
    text = page("UGW.8")
    assert plain(" ".join(section(text, "SYNOPSIS"))).split() == ["UGW"] + usage
    assert items("UGW.8", "Ar") == usage


@pytest.mark.parametrize("name", PAGES)
def test_the_pages_are_well_formed(name):
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", os.path.join(ROOT, "docs", "man", name)],
                          capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (0, "")


def test_version_and_wrong_usage(build):
    program = os.path.join(build, "ugwctl")
    done = subprocess.run([program, "--version"], capture_output=True, text=True)
    assert done.returncode == 0 and re.fullmatch(r"ugwctl \d+\.\d+\.\d+ \(\w+\)\n", done.stdout)
    for arguments in ([], ["frob"], ["tree", "--json"], ["--frob", "tree"]):
        done = subprocess.run([program] + arguments, capture_output=True, text=True)
        assert done.returncode == 2 and not done.stdout
        assert re.fullmatch(r"ugwctl: .*; try ugwctl --help\n", done.stderr)
