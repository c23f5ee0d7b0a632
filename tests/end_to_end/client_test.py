"""The client library as an engineer installs it: an instance built outside the tree."""

import os
import subprocess

import pytest
from support import BUILD, KEY_FILE, ROOT, SANITIZER

EXAMPLE = ROOT / "client/example"


def run(*command, **environment):
    found = subprocess.run(command, env={**os.environ, **environment}, capture_output=True, text=True, check=False)
    assert found.returncode == 0, found.stdout + found.stderr
    return found.stdout


@pytest.mark.skipif(SANITIZER != "", reason="a program outside the tree is built without sanitizers")
def test_the_example_builds_with_cmake_and_pkg_config_and_is_counted(start, tmp_path):
    prefix, build, by_hand = tmp_path / "prefix", tmp_path / "build", tmp_path / "by-hand"
    for component in ("client", "client-dev"):
        run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
    run("cmake", "-G", "Ninja", "-S", EXAMPLE, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", build)
    flags = run("pkg-config", "--cflags", "--libs", "ugs-client", PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig").split()
    strict = ("-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Werror")
    run("g++", *strict, EXAMPLE / "example.cpp", "-o", by_hand, *flags)
    start()
    for program in (by_hand, build / "example", build / "example-static"):
        assert run(program, "127.0.0.1", KEY_FILE, LD_LIBRARY_PATH=f"{prefix}/lib") == "counted\n"
