"""The server as its operator and its instances meet it."""

import base64
import os
import resource
import signal
import socket
import subprocess
import termios
import threading
import time
import unittest

from support import PORT, SERVER, Peer, ServerTest, document, seal, session_members, wait_until

REBUILDS = int(os.environ.get("UGS_REBUILDS", "2"))
LFLAG, IFLAG = 3, 0


class Keys(ServerTest):
    def test_quit_keys_on_a_terminal(self):
        for key in (b"q", b"Q", b"\x1b", b"\x1b\x1b", b"xyq"):
            with self.subTest(key=key):
                server = self.start(stdin="terminal").started()
                server.type(key)
                self.assert_ends_well(server)
                self.assertEqual(server.modes(), server.modes_before)

    def test_other_keys_are_ignored_and_not_echoed(self):
        server = self.start(stdin="terminal").started()
        wait_until(lambda: not server.modes()[LFLAG] & (termios.ECHO | termios.ICANON), "the terminal's key mode")
        self.assertTrue(server.modes()[LFLAG] & termios.ISIG)
        self.assertFalse(server.modes()[IFLAG] & termios.IXON)
        before = server.console()
        for keys in (b"\x1b[A", b"\x1bOP", b"\x1b[15~", b"\x1bq", b"w", b"\x13"):
            server.type(keys)
            time.sleep(1.2)  # a turn each: what is typed together would be read together
        self.assertEqual(server.console(), before)
        self.assertIsNone(server.process.poll())
        server.type(b"q")
        self.assert_ends_well(server)

    def test_bytes_on_a_pipe_are_keys(self):
        for keys in (b"abq", b"\x1b[A"):
            with self.subTest(keys=keys):
                server = self.start().started()
                server.type(keys)
                self.assert_ends_well(server)

    def test_without_a_keyboard_it_serves_on_and_idles(self):
        with open("/dev/null", "rb") as null:
            for stdin in ("pipe", "closed", null):
                with self.subTest(stdin=stdin):
                    server = self.start(stdin=stdin).started()
                    if server.process.stdin:
                        server.process.stdin.close()
                        server.process.stdin = None
                    peer = self.peer().meet()
                    used = cpu_seconds(server.process.pid)
                    time.sleep(2)
                    self.assertLess(cpu_seconds(server.process.pid) - used, 0.4, "a keyboard at its end is being polled")
                    self.assertEqual(peer.ask(seal(document())), b"0")
                    server.process.terminate()
                    self.assert_ends_well(server)

    def test_standard_descriptors_that_were_closed_stay_out_of_reach(self):
        server = self.start(command=("/bin/sh", "-c", f"exec {SERVER} >&- 2>&-")) 
        self.peer().meet()
        for descriptor in (1, 2):
            self.assertEqual(os.readlink(f"/proc/{server.process.pid}/fd/{descriptor}"), "/dev/null")
        server.type(b"q")
        self.assert_ends_well(server)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class JobControl(ServerTest):
    """Under an interactive shell, as an operator has it."""

    def setUp(self):
        super().setUp()
        self.shell = self.start(stdin="terminal", command=("/bin/bash", "--norc", "--noprofile", "-i"))
        self.say("PS1='$ '; cd " + self.shell.directory)

    def say(self, line):
        self.shell.type(line.encode() + b"\n")

    def server_pid(self):
        return wait_until(lambda: session_members(self.shell.process.pid).get("KorvaneUGS"), "the server under the shell")

    def has_key_mode(self):
        return not self.shell.modes()[LFLAG] & termios.ICANON and not self.shell.modes()[LFLAG] & termios.ECHO

    def end(self):
        wait_until(self.has_key_mode, "the terminal's key mode")
        self.shell.type(b"q")
        self.shell.wait_for("Cleaning up")
        self.say("echo the code is $?; exit")
        self.shell.wait_for("the code is 0\n")

    def test_ctrl_z_gives_the_terminal_back_and_fg_takes_it_again(self):
        self.say(SERVER)
        self.shell.started()
        wait_until(self.has_key_mode, "the terminal's key mode")
        modes_while_running = self.shell.modes()
        pid = self.server_pid()
        self.shell.type(b"\x1a")
        wait_until(lambda: self.shell.is_stopped(pid), "the server to stop")
        self.say("stty -a")
        self.shell.wait_for("isig icanon")
        self.say("fg")
        wait_until(lambda: self.shell.modes() == modes_while_running, "the key mode again")
        self.peer().meet().ask(seal(document()))
        self.end()

    def test_ctrl_c_ends_it_and_the_shell_has_its_terminal(self):
        self.say(SERVER)
        self.shell.started()
        self.shell.type(b"\x03")
        self.say("echo the code is $?; stty -a; exit")
        self.shell.wait_for("the code is 0\n")
        self.shell.wait_for("isig icanon")

    def test_a_background_job_is_never_stopped_by_the_terminal(self):
        self.say("stty tostop; " + SERVER + " &")
        pid = self.server_pid()
        self.peer().meet().ask(seal(document()))
        self.shell.wait_for("DETECT NEW REQUEST")
        self.assertFalse(self.shell.is_stopped(pid))
        self.say("fg")
        self.end()


class Signals(ServerTest):
    def test_each_ending_signal_ends_it_well_even_under_load(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                server = self.start().started()
                peer = self.peer().meet()
                reports = [seal(document(f"i{i}")) for i in range(20)]
                for _ in range(20):
                    for report in reports:
                        peer.socket.send(report)
                peer.socket.recv()
                server.process.send_signal(number)
                self.assert_ends_well(server)
                self.assertTrue(server.log_text().endswith("Cleaning up Reply socket in main thread!\n"))

    def test_a_broken_console_does_not_end_it(self):
        reader, writer = os.pipe()
        server = self.start(command=("/bin/sh", "-c", f"exec {SERVER} >&{writer}"), pass_fds=(writer,))
        os.close(writer)
        peer = self.peer().meet()
        os.close(reader)
        server.process.send_signal(signal.SIGPIPE)
        for _ in range(3):
            self.assertEqual(peer.ask(seal(document())), b"0")
        server.type(b"q")
        self.assert_ends_well(server)

    def test_a_deadly_signal_still_gives_the_terminal_back(self):
        for number in (signal.SIGQUIT, signal.SIGABRT, signal.SIGUSR1):
            with self.subTest(number=number):
                server = self.start(stdin="terminal").started()
                wait_until(lambda: server.modes() != server.modes_before, "the terminal's key mode")
                wait_until(lambda: server.threads_open_to(number) == [server.process.pid], "the main thread alone to take it")
                server.process.send_signal(number)
                self.assertEqual(server.wait_for_end(), (-number, ""))
                self.assertEqual(server.modes(), server.modes_before)

    def test_nohup_keeps_it_from_hanging_up(self):
        server = self.start(command=("/usr/bin/env", "--ignore-signal=HUP", SERVER)).started()
        server.process.send_signal(signal.SIGHUP)
        time.sleep(2.5)
        self.peer().meet()
        server.process.terminate()
        self.assert_ends_well(server)

    def test_as_process_1_it_ends_at_a_signal_too(self):
        unshare = ["/usr/bin/unshare", "--user", "--map-root-user", "--pid", "--fork", "--kill-child"]
        if subprocess.run([*unshare, "/bin/true"], capture_output=True, check=False).returncode:
            self.skipTest("this machine allows no pid namespace")
        server = self.start(command=(*unshare, SERVER)).started()
        with open(f"/proc/{server.process.pid}/task/{server.process.pid}/children", encoding="ascii") as file:
            child = int(file.read())
        os.kill(child, signal.SIGTERM)
        self.assert_ends_well(server)


class Logs(ServerTest):
    def test_levels_from_environment_and_arguments(self):
        for environment, arguments, info in (({}, (), True), ({"SPDLOG_LEVEL": "warn"}, (), False),
                                             ({"SPDLOG_LEVEL": "warn"}, ("x", "SPDLOG_LEVEL=info"), True),
                                             ({"SPDLOG_LEVEL": "debug"}, ("SPDLOG_LEVEL=warn",), False)):
            with self.subTest(environment=environment, arguments=arguments):
                server = self.start(environment=environment, arguments=arguments)
                self.peer().meet()
                server.type(b"q")
                self.assert_ends_well(server)
                self.assertEqual("[info] Total cameras in use : 0\n" in server.console(), info)
                self.assertIn("[warning] UGS version 2025.3.0-3380\n\nPress a key to exit...\n", server.console())

    def test_a_full_log_file_is_rotated_and_five_are_kept(self):
        server_directory = subprocess.run(["mktemp", "-d"], capture_output=True, text=True, check=True).stdout.strip()
        self.addCleanup(subprocess.run, ["rm", "-rf", server_directory])
        logs = os.path.join(server_directory, "logs")
        os.mkdir(logs)
        name = lambda index: os.path.join(logs, f"KorvaneUGS.log.{index}.txt" if index else "KorvaneUGS.log.txt")
        for index in range(6):
            with open(name(index), "w", encoding="ascii") as file:
                file.write(f"file {index}\n" + ("x" * (10 * 1024 * 1024 - 1500) if index == 0 else ""))
        server = self.start(directory=server_directory).started()
        self.assertEqual(self.peer().meet().ask(seal(document(MaxCameras=7))), b"0")
        server.type(b"q")
        self.assert_ends_well(server)
        for index in range(1, 6):
            with open(name(index), encoding="ascii") as file:
                self.assertEqual(file.readline(), f"file {index - 1}\n")
        self.assertEqual(len(os.listdir(logs)), 6)
        self.assertIn("MaxCameras    : in use: 7\n", server.log_text())

    def test_without_a_log_file_it_does_not_start(self):
        directory = subprocess.run(["mktemp", "-d"], capture_output=True, text=True, check=True).stdout.strip()
        self.addCleanup(subprocess.run, ["rm", "-rf", directory])
        with open(os.path.join(directory, "logs"), "w", encoding="ascii"):
            pass
        server = self.start(stdin="terminal", directory=directory)
        code, errors = server.wait_for_end()
        self.assertNotEqual(code, 0)
        self.assertIn("logs/KorvaneUGS.log.txt", errors)
        self.assertEqual(server.modes(), server.modes_before)


class Reports(ServerTest):
    def test_huge_and_foreign_requests_are_refused_and_the_next_report_counted(self):
        server = self.start().started()
        peer = self.peer().meet()
        nested = b"[" * 2_000_000 + b"}"
        for payload in (seal(nested), base64.b64encode(nested), b"\xff" * 1000):
            self.assertEqual(peer.ask(payload), b"2", payload[:60])
        self.assertEqual(peer.ask(seal(document())), b"0")
        server.type(b"q")
        self.assert_ends_well(server)

    def test_the_soft_limit_of_open_files_is_raised(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        server = self.start(command=("/bin/sh", "-c", f"ulimit -Sn 64; exec {SERVER}")).started()
        self.assertEqual(resource.prlimit(server.process.pid, resource.RLIMIT_NOFILE), (hard, hard))
        server.type(b"q")
        self.assert_ends_well(server)


class WallClock(ServerTest):
    def test_a_silent_instance_expires_and_a_heard_one_stays(self):
        server = self.start(clock=True).started()
        peer = self.peer().meet()
        self.assertEqual(peer.ask(seal(document("silent", MaxCameras=3))), b"0")
        server.shift_clock(100)
        self.assertEqual(peer.ask(seal(document("heard", MaxCameras=5))), b"0")
        wait_until(lambda: server.figures().get("MaxCameras") == 8, "both instances")
        server.shift_clock(150)
        server.wait_for("Deleting korvane ")
        self.assertRegex(server.console(), r"Deleting korvane [0-9a-f]+ as no new update after 1[56]\d seconds\n\n")
        wait_until(lambda: server.figures().get("MaxCameras") == 5, "the rest of the fleet")
        server.type(b"q")
        self.assert_ends_well(server)

    def test_half_an_hour_rebuilds_the_server_once_with_an_empty_registry(self):
        server = self.start(clock=True).started()
        peer = self.peer().meet()
        self.assertEqual(peer.ask(seal(document("before", MaxCameras=3))), b"0")
        server.shift_clock(1801)
        server.wait_for("Refreshing UGS server...\n")
        peer.meet()
        self.assertEqual(peer.ask(seal(document("after", MaxCameras=5))), b"0")
        wait_until(lambda: server.figures().get("MaxCameras") == 5, "the new registry")
        self.assertEqual(server.console().count("Refreshing"), 1)
        server.shift_clock(1801 - 86400)  # a clock set back delays the next rebuild and expires what it left ahead
        server.wait_for("Deleting korvane ")
        self.assertEqual(peer.ask(seal(document("after", MaxCameras=6))), b"0")
        self.assertEqual(server.console().count("Refreshing"), 1)
        server.type(b"q")
        self.assert_ends_well(server)

    def test_a_taken_port_is_said_and_served_from_the_next_rebuild_on(self):
        with socket.socket() as holder:
            holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            holder.bind(("0.0.0.0", PORT))
            holder.listen()
            server = self.start(clock=True).started()
            server.wait_for(f"[error] 0x0081: tcp://0.0.0.0:{PORT}: Address already in use\n")
        server.shift_clock(1801)
        self.assertEqual(self.peer().meet().ask(seal(document())), b"0")
        server.type(b"q")
        self.assert_ends_well(server)

    def test_rebuilds_under_a_stream_of_reports_lose_nothing_but_time(self):
        server = self.start(clock=True).started()
        self.peer().meet()
        stop = threading.Event()
        reports = [seal(document(f"i{i}")) for i in range(10)]

        def stream():
            peer = Peer(self)
            while not stop.is_set():
                for report in reports:
                    peer.socket.send(report)
                while peer.socket.poll(20):
                    assert peer.socket.recv() == b"0"

        streams = [threading.Thread(target=stream) for _ in range(2)]
        for thread in streams:
            thread.start()
        for rebuild in range(1, REBUILDS + 1):
            server.shift_clock(1801 * rebuild)
            server.wait_for("Refreshing UGS server...\n", rebuild)
            server.wait_for("Creating response socket", rebuild + 1)
        stop.set()
        for thread in streams:
            thread.join()
        self.assertNotIn("0x008", server.console())
        server.type(b"q")
        self.assert_ends_well(server)


if __name__ == "__main__":
    unittest.main(verbosity=2)
