"""The client library as an engineer installs it: an instance built outside the tree."""

import os
import re
import subprocess

import pytest
from support import BUILD, KEY_FILE, ROOT, SANITIZER

EXAMPLE = ROOT / "client/example"


def run(*command, **environment):
    environment = {**os.environ, **environment}
    found = subprocess.run(
        command, env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False
    )
    assert found.returncode == 0, found.stdout + found.stderr
    return found.stdout


@pytest.mark.skipif(SANITIZER != "", reason="a program outside the tree is built without sanitizers")
def test_the_examples_build_with_cmake_and_pkg_config_and_are_counted(start, tmp_path):
    prefix, build = tmp_path / "prefix", tmp_path / "build"
    for component in ("client", "client-dev"):
        run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
    run("cmake", "-G", "Ninja", "-S", EXAMPLE, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", build)
    pkg_config = {"PKG_CONFIG_PATH": f"{prefix}/lib/pkgconfig"}
    version = re.search('CLIENT_VERSION "(.*)"', (prefix / "include/ugs/UgsClient.h").read_text("utf-8"))[1]
    assert run("pkg-config", "--modversion", "ugs-client", **pkg_config) == version + "\n"
    flags = run("pkg-config", "--cflags", "--libs", "ugs-client", **pkg_config).split()
    compilers = {"c++17": ("g++", "example.cpp"), "c89": ("cc", "example.c"), "c11": ("cc", "example.c")}
    for standard, (compiler, source) in compilers.items():
        strict = (f"-std={standard}", "-pedantic-errors", "-Wall", "-Wextra", "-Werror")
        run(compiler, *strict, EXAMPLE / source, "-o", prefix / standard, *flags)
    start()
    built = ("example", "example-static", "example-c")
    for program in [prefix / name for name in compilers] + [build / name for name in built]:
        expected = "counted\nsigned off\n" if program.name in ("c89", "c11", "example-c") else "counted\n"
        assert run(program, "127.0.0.1", KEY_FILE, LD_LIBRARY_PATH=f"{prefix}/lib") == expected
    exported = run("nm", "--dynamic", "--defined-only", "--demangle", prefix / "lib/libugs-client.so.1")
    assert all(re.match(r"[0-9a-f]* \w (ugs::|ugs_)", line) for line in exported.splitlines()), exported
    described = re.findall(r"^\.F[no] (ugs_\w+)", (ROOT / "deploy/man/ugs_client.3").read_text("utf-8"), re.MULTILINE)
    assert set(described) == set(re.findall(r" (ugs_\w+)$", exported, re.MULTILINE))
