"""How the packages are built: with which flags, hardened, and the same in every folder."""

import json
import os
import re

import pytest
from conftest import REPOSITORY, run

BUILD = REPOSITORY / "build/debian"
HARDENING = {"DEB_BUILD_MAINT_OPTIONS": "hardening=+all"}  # as in debian/rules
SOME_PROGRAMS = {"config_copy_mib.so", "libulmo_platform.so", "wardend", "config-copy"}


@pytest.fixture(scope="module")
def built(packages):
    """The programs and libraries of the packages, before they were stripped."""
    packed = {
        path.rpartition("/")[2] for package in packages.values()
        for path in run("dpkg", "-c", package).stdout.split()
    }
    programs = [
        path for folder in ("bin", "lib") for path in (BUILD / folder).iterdir()
        if path.name in packed and path.read_bytes().startswith(b"\x7fELF")
    ]
    assert SOME_PROGRAMS <= {path.name for path in programs}
    return programs


def readelf(option, program):
    return run("readelf", "-W", option, program).stdout


def test_packages_do_not_show_where_they_were_made(built):
    """Neither the code has the path of the build, nor the debug information that is stripped from
    it, of which the build ID is made. So the packages are the same wherever they are made."""
    assert [path.name for path in built if os.fsencode(REPOSITORY) in path.read_bytes()] == []


def test_all_is_compiled_with_the_flags_of_debian():
    flags = {
        flag for kind in ("CXXFLAGS", "CPPFLAGS")
        for flag in run("dpkg-buildflags", "--get", kind, cwd=REPOSITORY,
                        env={**os.environ, **HARDENING}).stdout.split()
    }
    assert {"-fstack-protector-strong", "-Werror=format-security", "-D_FORTIFY_SOURCE=2"} <= flags
    compiled = {
        command["file"]: command["command"].split()
        for command in json.loads((BUILD / "compile_commands.json").read_text())
    }
    assert compiled
    assert [file for file, words in compiled.items() if not flags <= {*words}] == []
    assert [file for file, words in compiled.items() if "-Werror" in words] == [], \
        "a newer compiler would break the build"


def test_programs_are_hardened(built):
    for program in built:
        assert " DYN (" in readelf("-h", program), f"{program.name} is at a fixed address"
        segments = readelf("-l", program)
        assert " GNU_RELRO " in segments, f"{program.name} can have its calls turned elsewhere"
        assert re.search(r"FLAGS.*\bNOW\b", readelf("-d", program)), f"{program.name} binds late"
        assert re.search(r" GNU_STACK .* RW ", segments), f"{program.name}'s stack can be run"
        symbols = readelf("--dyn-syms", program)
        assert "__stack_chk_fail" in symbols, f"{program.name}'s stack is not guarded"
        if program.name in SOME_PROGRAMS:
            assert re.search(r"__(?!stack_)\w+_chk@", symbols), f"{program.name} is not fortified"


def test_package_for_another_platform():
    """tests/own_platform builds with what is in it, and dh_missing sees to it that nothing is left
    out."""
    (package,) = (REPOSITORY / "build/packages").glob("config-copy-mib-dev_*_all.deb")
    listed = run("dpkg", "-c", package).stdout.split()
    for path in ("include/config-copy-mib/platform/msgbus.h",
                 "share/config-copy-mib/fakes/fakes.h",
                 "share/config-copy-mib/module/config_copy_mib.map",
                 "share/doc/config-copy-mib-dev/examples/own_platform.cpp",
                 "share/doc/config-copy-mib-dev/porting.md.gz",
                 "share/pkgconfig/config-copy-mib.pc"):
        assert f"./usr/{path}" in listed


def test_making_packages_leaves_nothing_behind():
    assert run("git", "-c", f"safe.directory={REPOSITORY}", "-C", REPOSITORY, "status",
               "--porcelain", "--ignored", "debian").stdout == ""
