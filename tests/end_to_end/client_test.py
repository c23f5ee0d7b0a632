"""The client library as an engineer installs it: an instance built outside the tree."""

import os
import subprocess
import tempfile
import unittest

from support import BUILD, KEYS, ServerTest

EXAMPLE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../../client/example"))


class Example(ServerTest):
    def test_it_builds_with_cmake_and_pkg_config_and_is_counted(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        prefix, build = os.path.join(directory.name, "prefix"), os.path.join(directory.name, "build")

        def run(*command, **environment):
            result = subprocess.run(command, env={**os.environ, **environment}, capture_output=True, text=True,
                                    check=False)
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
            return result.stdout

        for component in ("client", "client-dev"):
            run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
        run("cmake", "-G", "Ninja", "-S", EXAMPLE, "-B", build, "-DCMAKE_PREFIX_PATH=" + prefix)
        run("cmake", "--build", build)
        library = os.path.join(prefix, "lib")
        flags = run("pkg-config", "--cflags", "--libs", "ugs-client", PKG_CONFIG_PATH=library + "/pkgconfig").split()
        by_hand = os.path.join(build, "by-hand")
        run("g++", "-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror", EXAMPLE + "/example.cpp", "-o", by_hand,
            *flags)
        server = self.start().started()
        for program in (by_hand, build + "/example", build + "/example-static"):
            self.assertEqual(run(program, "127.0.0.1", KEYS + "/public.pem", LD_LIBRARY_PATH=library), "counted\n")
        server.type(b"q")
        self.assert_ends_well(server)


if __name__ == "__main__":
    unittest.main(verbosity=2)
