"""What the tests take as arguments."""

import ctypes
import fcntl
import os
import socket
import struct
import threading

import pexpect
import pytest
import zmq
from support import END_OF_STATUS, TIMEOUT, PORT, SERVER, Peer, Server

CLONE_NEWNET, SIOCSIFFLAGS, IFF_UP = 0x40000000, 0x8914, 1


# A network of the test's own, where this process may make one; else port 9304 must be free in the machine's.
@pytest.fixture(autouse=True)
def network():
    own = ctypes.CDLL(None).unshare(CLONE_NEWNET) == 0
    with socket.socket() as any_socket:
        if own:
            fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh22x", b"lo", IFF_UP))
            return
        assert "PYTEST_XDIST_WORKER" not in os.environ, "without networks of their own, run the tests without -n"
        any_socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        any_socket.bind(("0.0.0.0", PORT))  # fails if another server holds it


# Made after the network, so that its threads live in it.
@pytest.fixture
def context(network):
    context = zmq.Context()
    yield context
    context.destroy(linger=0)


@pytest.fixture
def peer(context):
    return Peer(context)


# Stands in for a server: shows `text`, or what that returns, to whoever connects to the status socket whose path it
# returns.
@pytest.fixture
def serve(tmp_path):
    listeners = []

    def serve(text):
        path = tmp_path / "status"
        listeners.append(socket.socket(socket.AF_UNIX))
        listeners[0].bind(str(path))
        listeners[0].listen()

        def answer():
            while True:
                try:
                    connection = listeners[0].accept()[0]
                except OSError:
                    return
                with connection:
                    try:
                        connection.sendall(text() if callable(text) else text)
                    except OSError:
                        pass

        threading.Thread(target=answer, daemon=True).start()
        return path

    yield serve
    for listener in listeners:
        listener.shutdown(socket.SHUT_RDWR)
        listener.close()


# Starts servers, each of which must end well.
@pytest.fixture
def start(tmp_path, network):
    servers = []

    def start(*arguments, ready=END_OF_STATUS, **options):
        servers.append(Server(options.pop("directory", tmp_path / f"server{len(servers)}"), *arguments, **options))
        if ready:
            servers[-1].wait_for(ready)
        return servers[-1]

    yield start
    try:
        for server in servers:
            server.end()
    finally:
        for server in servers:
            server.kill()
            server.wait()


# Starts a program, the server if none is named, on a terminal of its own.
@pytest.fixture
def open_terminal(tmp_path, network):
    terminals = []

    def open_terminal(command=f"exec {SERVER} 2>errors"):
        options = {"cwd": tmp_path, "timeout": TIMEOUT, "encoding": "utf-8", "env": {**os.environ, "TERM": "dumb"}}
        terminals.append(pexpect.spawn("/bin/sh", ["-c", command], **options))
        return terminals[-1]

    yield open_terminal
    for terminal in terminals:
        terminal.close(force=True)
