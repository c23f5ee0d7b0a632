"""python3 -m ugs_client: greets a server, or reports to it. Exit codes: 0 done, 1 refused, 2 usage error, 3 no answer."""

import argparse
import os
import queue
import re
import signal
import sys
from typing import Any, Dict, List, Tuple

from . import Client, NoAnswer, NoSuchHost, NotConnected, Outcome, Refused, Reporter, UgsError, version

DONE, REFUSED, USAGE_ERROR, NO_ANSWER = range(4)
KEYS = "keys/public.pem", "/usr/share/korvaneugs/public.pem"  # a checkout's, and the installed one
MEANINGS = {0: "counted", 1: "hello", 2: "refused; the server's log says why"}


def use(text: str) -> "tuple[str, int]":
    name, equals, count = text.partition("=")
    if not equals or not re.fullmatch("[0-9]+", count, re.ASCII):
        raise argparse.ArgumentTypeError(f"{text} is not NAME=COUNT with a count from 0 to 4294967295")
    return name, int(count)


def make_parser() -> argparse.ArgumentParser:
    target = argparse.ArgumentParser(add_help=False)
    target.add_argument(
        "--server",
        default=os.environ.get("UGS_SERVER") or "127.0.0.1",
        metavar="HOST[:PORT]",
        help="by default UGS_SERVER of the environment, or else 127.0.0.1; port 9304 if left out",
    )
    target.add_argument(
        "--key",
        default=os.environ.get("UGS_KEY") or next((key for key in KEYS if os.path.exists(key)), KEYS[0]),
        metavar="FILE",
        help="the server's public key, a PEM file; by default UGS_KEY of the environment, or else " + " or ".join(KEYS),
    )
    target.add_argument("--timeout", type=float, default=5, metavar="S", help="seconds to wait for the answer (5)")
    parser = argparse.ArgumentParser(
        prog="python3 -m ugs_client",
        description="Greets a KorvaneUGS server, or reports to it.",
        epilog="Exit codes: 0 done, 1 the server refused, 2 usage error, 3 no answer.",
    )
    parser.add_argument("--version", action="version", version=f"libugs-client {version()}")
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("greet", parents=[target], help="is the server there, with this key?")
    report = commands.add_parser("report", parents=[target], help="send one report, or one every so often")
    report.add_argument("--identity", required=True, help="of the instance (KorvaneID)")
    report.add_argument("--container", default="", help="its container (DockerID); information only")
    report.add_argument(
        "--camera", action="append", required=True, metavar="URL", help="URL of a camera; may be repeated"
    )
    report.add_argument(
        "--use", action="append", type=use, default=[], metavar="NAME=N", help="as MaxCameras=4; may be repeated"
    )
    report.add_argument("--layout", default="v6", help="of the document (v6)")
    report.add_argument("--every", type=float, metavar="S", help="report every S seconds (1 to 118) until interrupted")
    return parser


def print_outcome(outcome: Outcome, expected: int) -> int:
    """Returns the exit code."""
    if outcome.code is None:
        print(f"ugs_client: {outcome.text}", file=sys.stderr, flush=True)
        return NO_ANSWER
    print(f"{outcome.code} ({MEANINGS.get(outcome.code, 'unknown code')})", flush=True)  # --every may go on for hours
    return DONE if outcome.code == expected else REFUSED


def ask(options: argparse.Namespace) -> Outcome:
    with Client(options.server, options.key, options.timeout) as client:
        try:
            return Outcome(client.greet() if options.command == "greet" else client.report(*usage_of(options)), None)
        except Refused as error:
            return Outcome(2, error)
        except (NoSuchHost, NotConnected, NoAnswer) as error:
            return Outcome(None, error)


def usage_of(options: argparse.Namespace) -> Tuple[str, List[str], Dict[str, int], str, str]:
    return options.identity, options.camera, dict(options.use), options.container, options.layout


def report_every(options: argparse.Namespace) -> int:
    """Reports until SIGINT or SIGTERM comes. Returns the exit code of the last report."""
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also when it was ignored, as in a shell's background
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    code = NO_ANSWER
    outcomes: "queue.SimpleQueue[Outcome]" = queue.SimpleQueue()
    target: Dict[str, Any] = {"timeout": options.timeout, "period": options.every, "listener": outcomes.put}
    with Reporter(options.server, options.key, *usage_of(options), **target):
        print(f"The first report comes within {options.every:g} s; Ctrl-C ends this.", flush=True)
        try:
            while True:
                code = print_outcome(outcomes.get(), 0)
        except KeyboardInterrupt:
            return code


def main() -> int:
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    parser = make_parser()
    options = parser.parse_args()
    names = [name for name, _ in getattr(options, "use", [])]
    for name in set(names):
        if names.count(name) > 1:
            parser.error(f"--use names {name} twice")
    try:
        if getattr(options, "every", None) is not None:
            return report_every(options)
        return print_outcome(ask(options), 1 if options.command == "greet" else 0)
    except UgsError as error:
        print(f"ugs_client: {error}", file=sys.stderr)
        return USAGE_ERROR


if __name__ == "__main__":
    sys.exit(main())
