"""docs/protocol.md and what belongs to it, against a server that has the published key of the vectors."""

import json
import os
import re
import subprocess
import sys
import tempfile

from support import BUILD, END_OF_STATUS, ServerTest, wait_until

DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs")
VECTORS = os.path.join(DOCS, "vectors")
SERVER = os.path.join(BUILD, "tests/server-with-test-key")


def load_vectors():
    with open(os.path.join(VECTORS, "vectors.json"), encoding="ascii") as file:
        return json.load(file)


class ProtocolTest(ServerTest):
    def server(self):
        return self.start(command=(SERVER,)).started()


class Vectors(ProtocolTest):
    def test_every_vector_is_answered_and_logged_as_it_says(self):
        server = self.server()
        peer = self.peer().meet(next(v["payload"] for v in load_vectors() if v["name"] == "greeting").encode())
        counted = {}
        for vector in load_vectors():
            with self.subTest(vector["name"]):
                mark = server.printed
                self.assertEqual(peer.ask(vector["payload"].encode()).decode(), vector["reply"])
                if vector["reply"] == "0":
                    document = json.loads(vector["plaintext"])
                    request = document.get("v6", document.get("v4", document.get("v5", document)))
                    count = request["InUse"]["MaxCameras"]
                    counted[request["KorvaneID"]] = count if isinstance(count, int) else 0
                    server.wait_for(END_OF_STATUS, times=len(counted) + 1)
                else:
                    wait_until(lambda: len(server.console(mark)) >= len(vector["console"]), lambda: server.console(mark))
                    self.assertEqual(server.console(mark), vector["console"])
        self.assertEqual(server.figures()["MaxCameras"], sum(counted.values()))

    def test_the_vectors_are_those_that_the_script_makes(self):
        with tempfile.NamedTemporaryFile() as made:
            subprocess.run([sys.executable, os.path.join(VECTORS, "make.py"), made.name], check=True)
            self.assertEqual(load_vectors(), json.load(made))

    def test_the_example_on_the_page_is_the_vector(self):
        with open(os.path.join(DOCS, "protocol.md"), encoding="utf-8") as file:
            blocks = dict(re.findall(r"```text (\w+)\n(.*?)```", file.read(), re.DOTALL))
        example = load_vectors()[0]
        for name in ("plaintext", "key", "iv", "payload"):
            self.assertEqual(blocks[name].replace("\n", ""), example[name], name)


class Clients(ProtocolTest):
    """The clients on the page. Node's runs where its `zeromq` package is found (./dev check-deploy installs it)."""

    def check(self, *command):
        server = self.server()
        client = subprocess.run([*command, "tcp://127.0.0.1:9304", os.path.join(VECTORS, "test-public.pem"), "hall-9", "1", "3"],
                                capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual((client.stdout, client.stderr), ("0\n" * 3, ""))
        server.wait_for("DETECT NEW REQUEST", times=3)
        self.assertEqual(server.figures()["MaxCameras"], 4)

    def test_python(self):
        self.check(sys.executable, os.path.join(DOCS, "clients/report.py"))

    def test_node(self):
        modules = os.environ.get("UGS_NODE_MODULES")
        if not modules:
            self.skipTest("UGS_NODE_MODULES names no directory with Node's zeromq package")
        script = os.path.join(modules, "../report.mjs")
        with open(os.path.join(DOCS, "clients/report.mjs"), encoding="utf-8") as source, open(script, "w", encoding="utf-8") as copy:
            copy.write(source.read())  # Node looks for packages beside the script
        self.check("node", script)
